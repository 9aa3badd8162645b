#include "Load.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <fstream>
#include <iostream>
#include <random>
#include <sstream>
#include <stdexcept>

namespace bench {

using zelt::ThrowErrno;

std::int64_t Now() {
  timespec time{};
  ::clock_gettime(CLOCK_MONOTONIC, &time);
  return time.tv_sec * kSecond + time.tv_nsec;
}

// ------------------------------------------------------------------------------------------------
// Messages

namespace {

constexpr std::size_t kMarkAt = 5;

// All take two bytes, so that a number is exchanged without a change of size.
constexpr unsigned kFirstNumber = 128;

std::size_t NumberAt(Sample sample, std::size_t size) {
  return sample == Sample::Relayed ? 1 : size - 2;
}

// The field's bytes fill `out` up to `size`, less `rest`.
void Fill(Bytes& out, unsigned field, std::size_t size, std::size_t rest, bool is_text) {
  std::size_t length = size - rest - out.size() - 2;
  length -= length > 127 ? 1 : 0;  // its length takes two bytes, three above 16383
  length -= length > 16383 ? 1 : 0;
  Bytes data(length, 'x');
  if (!is_text) {
    std::minstd_rand random(static_cast<unsigned>(size));
    std::ranges::generate(data, [&] { return static_cast<char>(random() >> 8U); });
  }
  AppendText(out, field, data);
}

}  // namespace

void AppendVarint(Bytes& out, std::uint64_t value) {
  for (; value > 127; value >>= 7U) {
    out += static_cast<char>(value | 128U);
  }
  out += static_cast<char>(value);
}

void AppendText(Bytes& out, unsigned field, View text) {
  AppendVarint(out, field << 3U | 2U);
  AppendVarint(out, text.size());
  out += text;
}

Bytes MakeSample(Sample sample, std::size_t size, char mark) {
  Bytes out;
  if (sample == Sample::Relayed) {
    AppendVarint(out, 1U << 3U);
    AppendVarint(out, kFirstNumber);
    AppendText(out, 2, View(&mark, 1));
    Fill(out, 3, size, 0, false);
  } else {
    Fill(out, 1, size, 3, true);
    AppendVarint(out, 2U << 3U);
    AppendVarint(out, kFirstNumber);
  }
  if (out.size() != size) {
    throw std::runtime_error("no message of " + std::to_string(size) + " bytes");
  }
  return out;
}

void SetNumber(Sample sample, Bytes& message, unsigned number) {
  message[NumberAt(sample, message.size())] = static_cast<char>(128U | number % kRing);
}

unsigned NumberOf(Sample sample, View message) {
  return static_cast<unsigned char>(message[NumberAt(sample, message.size())]) & 127U;
}

char MarkOf(View relayed) {
  return relayed[kMarkAt];
}

// ------------------------------------------------------------------------------------------------
// Notes and latencies

void SendNote(int side, const SideNote& note) {
  if (::send(side, &note, sizeof note, MSG_NOSIGNAL) != sizeof note) {
    ThrowErrno("cannot tell the other side");
  }
}

bool ReceiveNote(int side, SideNote& note) {
  return ::recv(side, &note, sizeof note, MSG_DONTWAIT) == sizeof note;
}

double Latencies::Percentile(double share) {
  if (all_.empty()) {
    return 0;
  }
  const auto at = static_cast<std::ptrdiff_t>(share * static_cast<double>(all_.size() - 1));
  std::ranges::nth_element(all_, all_.begin() + at);
  return static_cast<double>(all_[static_cast<std::size_t>(at)]) / 1000;
}

// ------------------------------------------------------------------------------------------------
// Streams

Stream::Stream(int fd) : fd_(fd), in_(1U << 20U, '\0') {}

bool Stream::Fill() {
  if (taken_ == filled_) {
    taken_ = filled_ = 0;
  } else if (in_.size() - filled_ < in_.size() / 2) {
    std::memmove(in_.data(), in_.data() + taken_, filled_ - taken_);
    filled_ -= std::exchange(taken_, 0);
  }
  const ssize_t count = ::read(Fd(), in_.data() + filled_, in_.size() - filled_);
  if (count < 0 && errno != EAGAIN && errno != EIO && errno != ECONNRESET) {
    ThrowErrno("cannot read");
  }
  filled_ += static_cast<std::size_t>(std::max<ssize_t>(count, 0));
  return count > 0 || (count < 0 && errno == EAGAIN);
}

void Stream::Flush() {
  if (out_.empty()) {
    return;
  }
  const ssize_t count = ::write(Fd(), out_.data(), out_.size());
  if (count < 0 && errno != EAGAIN && errno != EPIPE && errno != ECONNRESET) {
    ThrowErrno("cannot write");
  }
  out_.erase(0, static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
}

namespace {

zelt::FileDescriptor NewSocket(int family, int type) {
  zelt::FileDescriptor fd(::socket(family, type | SOCK_CLOEXEC, 0));
  if (!fd) {
    ThrowErrno("no socket");
  }
  return fd;
}

void SetNoDelay(int fd) {
  const int on = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void SetNonBlocking(int fd) {
  ::fcntl(fd, F_SETFL, O_NONBLOCK);
}

sockaddr_un UnixAddress(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    throw std::runtime_error("too long for a socket: " + path);
  }
  std::ranges::copy(path, static_cast<char*>(address.sun_path));
  return address;
}

template <class Address>
const sockaddr* Plain(const Address& address) {
  return reinterpret_cast<const sockaddr*>(&address);
}

}  // namespace

int ConnectTcp(std::uint16_t port) {
  zelt::FileDescriptor fd = NewSocket(AF_INET, SOCK_STREAM);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd.Get(), Plain(address), sizeof address) != 0) {
    ThrowErrno("cannot connect to port " + std::to_string(port));
  }
  SetNoDelay(fd.Get());
  SetNonBlocking(fd.Get());
  return fd.Release();
}

int ConnectUnix(const std::string& path, int type) {
  zelt::FileDescriptor fd = NewSocket(AF_UNIX, type);
  const sockaddr_un address = UnixAddress(path);
  if (::connect(fd.Get(), Plain(address), sizeof address) != 0) {
    ThrowErrno("cannot connect to " + path);
  }
  return fd.Release();
}

int ListenTcp(std::uint16_t& port) {
  zelt::FileDescriptor fd = NewSocket(AF_INET, SOCK_STREAM);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  if (::bind(fd.Get(), Plain(address), size) != 0 || ::listen(fd.Get(), 4) != 0 ||
      ::getsockname(fd.Get(), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    ThrowErrno("cannot listen");
  }
  port = ntohs(address.sin_port);
  return fd.Release();
}

int ListenUnix(const std::string& path, int type) {
  zelt::FileDescriptor fd = NewSocket(AF_UNIX, type);
  const sockaddr_un address = UnixAddress(path);
  if (::bind(fd.Get(), Plain(address), sizeof address) != 0 || ::listen(fd.Get(), 128) != 0) {
    ThrowErrno("cannot listen at " + path);
  }
  return fd.Release();
}

int Accept(int listener, bool tcp) {
  const int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd < 0) {
    ThrowErrno("cannot accept");
  }
  if (tcp) {
    SetNoDelay(fd);
    SetNonBlocking(fd);
  }
  return fd;
}

int OpenTerminal(const std::string& path) {
  zelt::FileDescriptor fd(::open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
  termios modes{};
  if (::tcgetattr(fd.Get(), &modes) != 0) {
    ThrowErrno("no terminal: " + path);
  }
  ::cfmakeraw(&modes);
  ::tcsetattr(fd.Get(), TCSANOW, &modes);
  SetNonBlocking(fd.Get());
  return fd.Release();
}

void WriteWhole(const std::string& path, View text) {
  const std::string part = path + ".part";
  std::ofstream(part, std::ios::binary) << text;
  if (std::rename(part.c_str(), path.c_str()) != 0) {
    ThrowErrno("cannot write " + path);
  }
}

// ------------------------------------------------------------------------------------------------
// Commands

bool CommandLine::Serve() {
  std::array<char, 4096> bytes{};
  const ssize_t count = ::read(0, bytes.data(), bytes.size());
  if (count <= 0) {
    return false;
  }
  pending_.append(bytes.data(), static_cast<std::size_t>(count));
  for (std::size_t end = 0; (end = pending_.find('\n')) != std::string::npos;) {
    std::istringstream line(pending_.substr(0, end));
    pending_.erase(0, end + 1);
    Words words;
    for (std::string word; line >> word;) {
      words.push_back(word);
    }
    const std::string answer = commands_.at(words.at(0))(words);
    std::cout << '{' << answer << '}' << std::endl;
  }
  return true;
}

std::string Field(View name, double value, bool last) {
  std::ostringstream text;
  text.precision(15);
  text << '"' << name << "\":" << value << (last ? "" : ",");
  return text.str();
}

std::size_t Number(const std::string& word) {
  return std::stoul(word);
}

double Real(const std::string& word) {
  return std::stod(word);
}

int RunMain(const char* program, const std::function<int()>& body) {
  try {
    return body();
  } catch (const std::exception& error) {
    std::cerr << program << ": " << error.what() << '\n';
    return 1;
  }
}

}  // namespace bench
