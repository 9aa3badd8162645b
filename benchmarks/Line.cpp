// A serial line: what goes in at one end comes out at the other, no faster than the line is, and
// what comes from the radio's end some time later, as if the radio took that to turn round. Times
// are absolute, so that nothing adds up. The camera's end is a pseudo-terminal; the radio's is a
// socket, because every passage of a pseudo-terminal waits for a thread of the kernel.
//
// usage: bench_line CAMERA RADIO BYTES_PER_SECOND TURN_US
//   CAMERA  the symbolic link to the terminal; RADIO the socket to connect to. It makes both.
#include "Load.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <utility>

namespace bench {
namespace {

// As in a serial port's driver; the rest waits with the writer.
constexpr std::size_t kBuffer = 4096;
// A sleep of the kernel's ends this much late at the worst; the rest is waited for awake.
constexpr std::int64_t kAwake = 150'000;
// Within a burst, bytes come out in portions of this long.
constexpr std::int64_t kPortion = 1'000'000;

class Terminal {
 public:
  explicit Terminal(const std::string& link) {
    master_ = zelt::FileDescriptor(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK));
    std::array<char, 128> name{};
    if (!master_ || ::grantpt(master_.Get()) != 0 || ::unlockpt(master_.Get()) != 0 ||
        ::ptsname_r(master_.Get(), name.data(), name.size()) != 0) {
      zelt::ThrowErrno("no pseudo-terminal");
    }
    slave_ = zelt::FileDescriptor(OpenTerminal(name.data()));  // it stays when others come and go
    std::filesystem::remove(link);
    std::filesystem::create_symlink(name.data(), link);
  }
  int Fd() const { return master_.Get(); }

 private:
  zelt::FileDescriptor master_;
  zelt::FileDescriptor slave_;
};

// One direction. Bytes that come together, or before the ones ahead are out, are one burst.
class Direction {
 public:
  Direction(int from, int to, double bytes_per_second, std::int64_t turn)
      : from_(from), to_(to), byte_time_(1e9 / bytes_per_second), turn_(turn) {}

  void Read() {
    std::array<char, kBuffer> bytes{};
    const std::size_t room = kBuffer - std::min(kBuffer, waiting_.size());
    const ssize_t count = room == 0 ? 0 : ::read(from_, bytes.data(), room);
    if (count <= 0) {
      return;
    }
    if (waiting_.empty()) {
      // Behind what went before, even when that was written a little late.
      begun_ = std::max(Now() + turn_, begun_ + Length(passed_));
      first_ = first_ == 0 ? begun_ : first_;
      passed_ = 0;
    }
    waiting_.append(bytes.data(), static_cast<std::size_t>(count));
  }

  void Write() {
    const auto out = static_cast<std::size_t>(
        std::max(0.0, static_cast<double>(Now() - begun_) / byte_time_ + 1e-6));
    const std::size_t due = std::min(waiting_.size(), out - std::min(out, passed_));
    const ssize_t count = due == 0 ? 0 : ::write(to_, waiting_.data(), due);
    if (count > 0) {
      waiting_.erase(0, static_cast<std::size_t>(count));
      passed_ += static_cast<std::size_t>(count);
    }
    if (count > 0 && waiting_.empty()) {
      carrying_ += Length(passed_);
      ended_ = Now();
      late_ += Now() - begun_ - Length(passed_);
    }
  }

  // When the next portion, or the last byte, is due.
  std::int64_t Next() const {
    return waiting_.empty() ? INT64_MAX
                            : std::min(begun_ + Length(passed_ + waiting_.size()),
                                       std::max(begun_, Now()) + kPortion + kAwake);
  }
  short Events() const { return waiting_.size() < kBuffer ? POLLIN : short{0}; }

  // Since the last call: how long from the first byte to the last, how much of it something was
  // carried, and how much later than it should the ends of bursts came out.
  std::string Report(const std::string& name, bool last) {
    const auto seconds = [](std::int64_t time) { return static_cast<double>(time) / kSecond; };
    return Field(name + "_span", seconds(ended_ - std::exchange(first_, 0))) +
           Field(name + "_carrying", seconds(std::exchange(carrying_, 0))) +
           Field(name + "_late", seconds(std::exchange(late_, 0)), last);
  }

 private:
  std::int64_t Length(std::size_t bytes) const {
    return static_cast<std::int64_t>(static_cast<double>(bytes) * byte_time_);
  }

  int from_;
  int to_;
  double byte_time_;
  std::int64_t turn_;
  Bytes waiting_;
  std::int64_t begun_ = 0;  // when the first byte of this burst began
  std::size_t passed_ = 0;  // bytes of this burst that are out
  // Since the last report.
  std::int64_t first_ = 0;
  std::int64_t ended_ = 0;
  std::int64_t carrying_ = 0;
  std::int64_t late_ = 0;
};

int Run(const Words& words) {
  const double speed = Real(words.at(3));
  const Terminal camera(words.at(1));
  const zelt::FileDescriptor listener(ListenUnix(words.at(2), SOCK_STREAM));
  std::cout << "{}" << std::endl;
  const zelt::FileDescriptor radio(Accept(listener.Get(), false));
  ::fcntl(radio.Get(), F_SETFL, O_NONBLOCK);
  const auto turn = static_cast<std::int64_t>(Number(words.at(4))) * 1000;
  std::array directions = {Direction(camera.Fd(), radio.Get(), speed, 0),
                           Direction(radio.Get(), camera.Fd(), speed, turn)};
  CommandLine commands({{"carried", [&](const Words&) {
                           return directions[0].Report("to_radio", false) +
                                  directions[1].Report("to_camera", true);
                         }}});
  while (true) {
    std::array watched = {
        pollfd{.fd = 0, .events = POLLIN, .revents = 0},
        pollfd{.fd = camera.Fd(), .events = directions[0].Events(), .revents = 0},
        pollfd{.fd = radio.Get(), .events = directions[1].Events(), .revents = 0}};
    const std::int64_t next = std::min(directions[0].Next(), directions[1].Next());
    const std::int64_t sleep =
        next == INT64_MAX ? kSecond : std::max<std::int64_t>(next - Now() - kAwake, 0);
    const timespec time{.tv_sec = sleep / kSecond, .tv_nsec = sleep % kSecond};
    ::ppoll(watched.data(), watched.size(), &time, nullptr);
    if (watched[0].revents != 0 && !commands.Serve()) {
      return 0;
    }
    for (Direction& direction : directions) {
      direction.Read();
      direction.Write();
    }
  }
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  return bench::RunMain("bench_line", [&] {
    if (argc != 5) {
      throw std::runtime_error("usage: bench_line CAMERA RADIO BYTES_PER_SECOND TURN_US");
    }
    return bench::Run({argv, argv + argc});
  });
}
