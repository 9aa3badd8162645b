#include "Line.h"

#include "Limits.h"
#include "zelt/Paths.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <utility>

namespace orka {
namespace {

struct Rate {
  std::uint32_t bits_per_second;
  speed_t code;
};
constexpr std::array kRates = std::to_array<Rate>({
    {1200, B1200},       {2400, B2400},       {4800, B4800},       {9600, B9600},
    {19200, B19200},     {38400, B38400},     {57600, B57600},     {115200, B115200},
    {230400, B230400},   {460800, B460800},   {500000, B500000},   {576000, B576000},
    {921600, B921600},   {1000000, B1000000}, {1152000, B1152000}, {1500000, B1500000},
    {2000000, B2000000}, {2500000, B2500000}, {3000000, B3000000}, {3500000, B3500000},
    {4000000, B4000000},
});

std::unexpected<std::string> SystemError(const std::string& what) {
  return std::unexpected(what + ": " + std::strerror(errno));
}

// Returns the terminal modes of `settings`, if these make sense.
std::expected<termios, std::string> MakeModes(const UartSettings& settings) {
  const auto refuse = [](const char* what, std::uint32_t value, const char* allowed) {
    return std::unexpected(std::string(what) + " " + std::to_string(value) + " is not " + allowed);
  };
  const Rate* rate = nullptr;
  for (const Rate& known : kRates) {
    if (known.bits_per_second == settings.baud_rate) {
      rate = &known;
    }
  }
  if (rate == nullptr) {
    return refuse("baud rate", settings.baud_rate, "a standard rate");
  }
  if (settings.stop_bits < 1 || settings.stop_bits > 2) {
    return refuse("stop bits", settings.stop_bits, "1 or 2");
  }
  if (settings.data_bits != 8) {
    return refuse("data bits", settings.data_bits, "8, the width of a frame's bytes");
  }
  if (settings.parity > 2) {
    return refuse("parity", settings.parity, "0 (none), 1 (odd) or 2 (even)");
  }
  if (settings.flow_control > 1) {
    return refuse("flow control", settings.flow_control, "0 (none) or 1 (RTS/CTS)");
  }
  if (settings.read_timeout > UINT8_MAX) {
    return refuse("read timeout", settings.read_timeout, "0 to 255");
  }
  termios modes{};
  cfmakeraw(&modes);
  cfsetspeed(&modes, rate->code);
  modes.c_cflag &= ~static_cast<tcflag_t>(CSIZE | CSTOPB | PARENB | PARODD | CRTSCTS | CLOCAL);
  modes.c_cflag |= CREAD | CS8;
  modes.c_cflag |= settings.stop_bits == 2 ? CSTOPB : 0U;
  modes.c_cflag |= settings.parity != 0 ? PARENB : 0U;
  modes.c_cflag |= settings.parity == 1 ? PARODD : 0U;
  modes.c_cflag |= settings.flow_control == 1 ? CRTSCTS : 0U;
  modes.c_cflag |= settings.modem_control ? 0U : CLOCAL;
  modes.c_iflag |= settings.parity != 0 ? INPCK : 0U;
  // With VMIN 0 and VTIME 0 an empty line would read like a closed one.
  modes.c_cc[VMIN] = 1;
  modes.c_cc[VTIME] = static_cast<cc_t>(settings.read_timeout);
  return modes;
}

// Sets what the device can do, which is all that tcsetattr promises, and checks that it is
// everything.
std::expected<void, std::string> SetModes(int fd, const termios& modes) {
  static constexpr auto kChecked = std::to_array<std::pair<tcflag_t, const char*>>({
      {CSIZE, "8 data bits"},
      {CSTOPB, "this number of stop bits"},
      {PARENB | PARODD, "this parity"},
      {CRTSCTS, "this flow control"},
  });
  termios done{};
  if (::tcgetattr(fd, &done) != 0 || ::tcsetattr(fd, TCSANOW, &modes) != 0 ||
      ::tcgetattr(fd, &done) != 0) {
    return std::unexpected(std::strerror(errno));
  }
  if (::cfgetospeed(&done) != ::cfgetospeed(&modes)) {
    return std::unexpected("the device does not do this baud rate");
  }
  for (const auto& [flags, what] : kChecked) {
    if (((done.c_cflag ^ modes.c_cflag) & flags) != 0) {
      return std::unexpected(std::string("the device does not do ") + what);
    }
  }
  return {};
}

// The line is bounded by what waits for it; what waits in the system beside that is kept small.
constexpr int kSocketBuffer = 64 * 1024;

}  // namespace

std::expected<Line, std::string> Line::MakeTcp(const SocketSettings& settings) {
  asio::error_code failure;
  const auto address = asio::ip::make_address(settings.address, failure);
  if (failure) {
    return std::unexpected("\"" + settings.address + "\" is no numeric address");
  }
  if (settings.port == 0 || settings.port > UINT16_MAX) {
    return std::unexpected("port " + std::to_string(settings.port) + " is not 1 to 65535");
  }
  Line line;
  line.connect_to_.emplace(address, static_cast<std::uint16_t>(settings.port));
  line.name_ = (address.is_v6() ? "[" + settings.address + "]" : settings.address) + ":" +
               std::to_string(settings.port);
  line.fd_ =
      zelt::FileDescriptor(::socket(line.connect_to_->protocol().family(),
                                    SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP));
  if (!line.fd_) {
    return SystemError("cannot create a socket");
  }
  const int on = 1;
  ::setsockopt(line.Fd(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  ::setsockopt(line.Fd(), SOL_SOCKET, SO_SNDBUF, &kSocketBuffer, sizeof(kSocketBuffer));
  return line;
}

std::expected<Line, std::string> Line::OpenSerial(const UartSettings& settings) {
  const auto modes = MakeModes(settings);
  if (!modes) {
    return std::unexpected(modes.error());
  }
  Line line;
  line.name_ = settings.device;
  const std::string path = zelt::PathUnderRoot(settings.device);
  line.fd_ = zelt::FileDescriptor(::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
  const int fd = line.Fd();
  if (!line.fd_) {
    return SystemError("cannot open " + path);
  }
  // TIOCEXCL keeps later openers out, the lock those that had it open before and heed it, too.
  if (settings.exclusive &&
      (::flock(fd, LOCK_EX | LOCK_NB) != 0 || (::isatty(fd) != 0 && ::ioctl(fd, TIOCEXCL) != 0))) {
    return SystemError(settings.device + " is in use");
  }
  line.exclusive_ = settings.exclusive;
  if (const auto set = SetModes(fd, *modes); !set) {
    return std::unexpected("cannot set up " + settings.device + ": " + set.error());
  }
  line.set_up_ = true;
  const unsigned bits =
      1 + settings.data_bits + (settings.parity != 0 ? 1 : 0) + settings.stop_bits;
  line.byte_time_ = std::chrono::nanoseconds(std::chrono::seconds(bits)) / settings.baud_rate;
  ::tcflush(fd, TCIOFLUSH);
  return line;
}

ssize_t Line::Read(std::span<std::uint8_t> buffer) const {
  return ::read(Fd(), buffer.data(), buffer.size());
}

ssize_t Line::Write(codec::ByteView bytes) const {
  return connect_to_ ? ::send(Fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL)
                     : ::write(Fd(), bytes.data(), bytes.size());
}

void Line::Close() {
  static constexpr std::chrono::milliseconds kStep{5};
  if (!fd_) {
    return;
  }
  if (set_up_) {  // a pseudo-terminal has nothing pending
    int pending = 0;
    auto waited = std::chrono::milliseconds(0);
    for (; ::ioctl(Fd(), TIOCOUTQ, &pending) == 0 && pending > 0; waited += kStep) {
      if (waited == kDrainTimeout) {
        ::tcflush(Fd(), TCOFLUSH);
        break;
      }
      std::this_thread::sleep_for(kStep);
    }
  }
  if (exclusive_) {
    ::ioctl(Fd(), TIOCNXCL);  // a pseudo-terminal would stay exclusive
  }
  fd_.Close();
}

}  // namespace orka
