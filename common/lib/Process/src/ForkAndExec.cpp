#include "zelt/ForkAndExec.h"

#include "zelt/FileDescriptor.h"
#include "zelt/LogClient.h"
#include "zelt/StartThread.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <ranges>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

namespace zelt {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::uint32_t kProcessLogCategory = 0x800A;
constexpr std::size_t kKept = std::size_t{64} * 1024;
constexpr int kCannotRun = 127;  // as shells have it
constexpr std::size_t kLoggedLines = 20;
constexpr int kRoomForOthers = 1024 * 1024;

// One output of the child: the pipe, and the last of what came through it.
class Output {
 public:
  Output() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
      ThrowErrno("pipe2");
    }
    read_ = FileDescriptor(ends[0]);
    FileDescriptor end(ends[1]);
    // Whoever has this end can read, too, so that the pipe never is without a reader. Without /proc
    // it is an end for writing as any other.
    const std::string name = "/proc/self/fd/" + std::to_string(end.Get());
    if (FileDescriptor both(open(name.c_str(), O_RDWR | O_CLOEXEC)); both) {
      end = std::move(both);
    }
    // Above the standard three, so that in the child no dup2 overwrites it.
    write_ = FileDescriptor(fcntl(end.Get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    capacity_ = fcntl(read_.Get(), F_GETPIPE_SZ);
    if (!write_ || capacity_ < 0 || fcntl(read_.Get(), F_SETFL, O_NONBLOCK) != 0) {
      ThrowErrno("fcntl");
    }
  }

  bool IsOpen() const { return static_cast<bool>(read_); }  // false once nobody has the other end
  int ReadEnd() const { return read_.Get(); }
  int WriteEnd() const { return write_.Get(); }

  // From here on, nobody who still has the other end waits for this one.
  void LetGo() {
    fcntl(write_.Get(), F_SETPIPE_SZ, kRoomForOthers);
    fcntl(write_.Get(), F_SETFL, O_NONBLOCK);
    write_.Close();
  }

  // Reads all that lies in the pipe, but no more than fits into it at a time, so that a writer that
  // never rests cannot hold the reader up.
  void Drain() {
    std::array<char, kKept> buffer;  // NOLINT(cppcoreguidelines-pro-type-member-init)
    for (ssize_t left = capacity_; left > 0 && read_;) {
      const ssize_t size = read(read_.Get(), buffer.data(), buffer.size());
      if (size > 0) {
        left -= size;
        text_.append(buffer.data(), static_cast<std::size_t>(size));
        if (text_.size() > kKept) {
          text_.erase(0, text_.size() - kKept);
        }
      } else if (size < 0 && errno == EAGAIN) {
        return;
      } else if (size == 0 || errno != EINTR) {
        read_.Close();
      }
    }
  }

  std::string Take() { return std::exchange(text_, {}); }

 private:
  FileDescriptor read_;
  FileDescriptor write_;
  int capacity_ = 0;
  std::string text_;
};

// Between fork and exec only async-signal-safe calls: another thread may have held any lock.

// "the child failed: exec, errno 2\n" on the given descriptor, and the end.
[[noreturn]] void Fail(int descriptor, const char* step) noexcept {
  int number = errno;
  std::array<char, 128> text{};
  std::size_t at = text.size();
  const auto prepend = [&](const char* part) {
    const std::size_t size = std::strlen(part);
    at -= size;
    std::memcpy(&text.at(at), part, size);
  };
  prepend("\n");
  do {
    text.at(--at) = static_cast<char>('0' + number % 10);
    number /= 10;
  } while (number != 0);
  prepend(", errno ");
  prepend(step);
  prepend("the child failed: ");
  [[maybe_unused]] const auto written = write(descriptor, &text.at(at), text.size() - at);
  _exit(kCannotRun);
}

// An older kernel has no close_range, and a sandbox may forbid it.
void CloseAllFrom(unsigned first) noexcept {
  rlimit limit{};
  if (close_range(first, ~0U, 0) == 0 || getrlimit(RLIMIT_NOFILE, &limit) != 0) {
    return;
  }
  for (rlim_t descriptor = first; descriptor < limit.rlim_cur; ++descriptor) {
    close(static_cast<int>(descriptor));
  }
}

[[noreturn]] void RunChild(pid_t parent, int output, int error,
                           UniqueFunction<void()>& in_child) noexcept {
  struct sigaction by_default{};
  by_default.sa_handler = SIG_DFL;
  for (int number = 1; number < NSIG; ++number) {
    sigaction(number, &by_default, nullptr);  // fails for those that cannot be caught anyway
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  // The parent may have died before the request was in force.
  if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent) {
    Fail(error, "prctl, or its parent is gone");
  }
  const int null = open("/dev/null", O_RDONLY);
  if (null < 0) {
    Fail(error, "open /dev/null");
  }
  if (dup2(null, STDIN_FILENO) < 0 || dup2(output, STDOUT_FILENO) < 0 ||
      dup2(error, STDERR_FILENO) < 0) {
    Fail(error, "dup2");
  }
  CloseAllFrom(STDERR_FILENO + 1);
  try {
    errno = 0;
    in_child();
  } catch (...) {
    Fail(STDERR_FILENO, "an exception");
  }
  Fail(STDERR_FILENO, "exec");
}

// Signals stay blocked until the child has taken the parent's handlers off.
pid_t Fork(const Output& output, const Output& error, UniqueFunction<void()>& in_child) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child == 0) {
    RunChild(parent, output.WriteEnd(), error.WriteEnd(), in_child);
  }
  const int fork_error = errno;
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  errno = fork_error;
  return child;
}

int Reap(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) {
      ThrowErrno("waitpid");
    }
  }
  return status;
}

// A child that has been started, and what can be heard of it.
class Child {
 public:
  explicit Child(UniqueFunction<void()>& in_child) : pid_(Fork(output_, error_, in_child)) {
    if (pid_ < 0) {
      ThrowErrno("fork");
    }
    end_ = FileDescriptor(static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)));
    if (!end_) {
      const int cause = errno;
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) == 0) {  // else the number may be somebody else's by now
        kill(pid_, SIGKILL);
        Reap(pid_);
      }
      errno = cause;
      ThrowErrno("pidfd_open");
    }
  }

  // Reads what it says until it has ended, or `time` is over: false.
  bool WaitForEnd(Clock::time_point time) {
    for (;;) {
      const auto left = std::chrono::ceil<milliseconds>(time - Clock::now());
      if (left.count() <= 0) {
        return false;
      }
      // Once the child has ended, all that it wrote lies in the pipes, and this takes the rest.
      if (Listen(static_cast<int>(left.count()))) {
        return true;
      }
    }
  }

  // What it said, and how it ended. One that has not is killed and left to itself.
  ForkAndExecResult Finish(bool has_ended) {
    int status = SIGKILL;  // as waitpid tells it
    if (has_ended) {
      status = Reap(pid_);
      end_.Close();
    } else {
      syscall(SYS_pidfd_send_signal, end_.Get(), SIGKILL, nullptr, 0);
    }
    output_.LetGo();
    error_.LetGo();
    output_.Drain();
    error_.Drain();
    return {.status = status, .standardOutput = output_.Take(), .standardError = error_.Take()};
  }

  bool IsGone() const { return !end_ && !output_.IsOpen() && !error_.IsOpen(); }

  // Reaps it, and throws away what whoever has its outputs writes, until there is nobody.
  void Outlast() {
    while (!IsGone()) {
      if (Listen(-1)) {
        waitpid(pid_, nullptr, 0);
        end_.Close();
      }
      output_.Take();
      error_.Take();
    }
  }

 private:
  // Waits until something happens, and reads what there is. True: it has ended.
  bool Listen(int timeout) {
    std::array<pollfd, 3> events = {{{.fd = end_.Get(), .events = POLLIN, .revents = 0},
                                     {.fd = output_.ReadEnd(), .events = POLLIN, .revents = 0},
                                     {.fd = error_.ReadEnd(), .events = POLLIN, .revents = 0}}};
    const bool is_told = poll(events.data(), events.size(), timeout) > 0;
    output_.Drain();
    error_.Drain();
    return is_told && events[0].revents != 0;
  }

  Output output_;
  Output error_;
  pid_t pid_;
  // Readable once it has ended. It is not reaped before, so its number is its own until then.
  FileDescriptor end_;
};

void LogLines(std::string_view text) {
  if (text.ends_with('\n')) {
    text.remove_suffix(1);
  }
  std::vector<std::string_view> lines;  // the last one first
  while (!text.empty() && lines.size() < kLoggedLines) {
    const std::size_t start = text.find_last_of('\n') + 1;
    lines.push_back(text.substr(start));
    text = text.substr(0, start == 0 ? 0 : start - 1);
  }
  for (const std::string_view line : std::views::reverse(lines)) {
    ZELT_LOG_AS("ForkAndExecImpl", kLogWarning, kProcessLogCategory)
        << "A child process says: " << line;
  }
}

ForkAndExecResult Run(UniqueFunction<void()>& in_child, milliseconds limit) {
  Child child(in_child);
  const bool has_ended = child.WaitForEnd(Clock::now() + limit);
  ForkAndExecResult result = child.Finish(has_ended);
  LogLines(result.standardError);
  if (!has_ended) {
    ZELT_LOG_AS("ForkAndExecImpl", kLogError, kProcessLogCategory)
        << "Killed a child process that did not end within " << limit.count() << " ms";
  }
  if (!child.IsGone()) {
    try {
      StartThread([child = std::move(child)]() mutable { child.Outlast(); }).detach();
    } catch (const std::system_error& error) {
      ZELT_LOG(kLogError, kProcessLogCategory)
          << "Nobody reads what a child process has left behind: " << error.what();
    }
  }
  return result;
}

}  // namespace

ForkAndExecResult ForkAndExecImpl(UniqueFunction<void()> in_child, milliseconds limit) {
  try {
    return Run(in_child, limit);
  } catch (const std::system_error& error) {
    ZELT_LOG(kLogError, kProcessLogCategory) << "Failed to run a child process: " << error.what();
    return {.status = -1, .standardOutput = {}, .standardError = {}};
  }
}

}  // namespace zelt
