#include "zelt/ForkAndExec.h"

#include "zelt/LogClient.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace zelt {
namespace {

constexpr std::uint32_t kCategory = 0x800A;
constexpr std::size_t kKept = std::size_t{64} * 1024;
constexpr int kCannotRun = 127;  // as shells have it

[[noreturn]] void ThrowErrno(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Fd& operator=(Fd&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Fd() { Close(); }

  int Get() const { return fd_; }
  void Close() {
    if (const int fd = std::exchange(fd_, -1); fd >= 0) {
      close(fd);
    }
  }

 private:
  int fd_ = -1;
};

// One output of the child: the pipe, and the last of what came through it.
class Output {
 public:
  Output() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
      ThrowErrno("pipe2");
    }
    read_ = Fd(ends[0]);
    // Above the standard three, so that in the child no dup2 overwrites it.
    write_ = Fd(fcntl(Fd(ends[1]).Get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    if (write_.Get() < 0 || fcntl(read_.Get(), F_SETFL, O_NONBLOCK) != 0) {
      ThrowErrno("fcntl");
    }
  }

  int ReadEnd() const { return read_.Get(); }  // negative once all has been read
  int WriteEnd() const { return write_.Get(); }
  void CloseWriteEnd() { write_.Close(); }

  // Reads what lies in the pipe, at most once its capacity, so that a writer that never rests
  // cannot hold the reader up.
  void Drain() {
    if (read_.Get() < 0) {
      return;
    }
    std::array<char, kKept> buffer;  // NOLINT(cppcoreguidelines-pro-type-member-init)
    const ssize_t size = read(read_.Get(), buffer.data(), buffer.size());
    if (size > 0) {
      text_.append(buffer.data(), static_cast<std::size_t>(size));
      if (text_.size() > kKept) {
        text_.erase(0, text_.size() - kKept);
      }
    } else if (size == 0 || (errno != EAGAIN && errno != EINTR)) {
      read_.Close();
    }
  }

  std::string Take() { return std::move(text_); }

 private:
  Fd read_;
  Fd write_;
  std::string text_;
};

// Between fork and exec only async-signal-safe calls: another thread may have held any lock.
[[noreturn]] void RunChild(pid_t parent, int output, int error,
                           UniqueFunction<void()>& inChild) noexcept {
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
    _exit(kCannotRun);
  }
  const int null = open("/dev/null", O_RDONLY);
  if (null < 0 || dup2(null, STDIN_FILENO) < 0 || dup2(output, STDOUT_FILENO) < 0 ||
      dup2(error, STDERR_FILENO) < 0 || close_range(STDERR_FILENO + 1, ~0U, 0) != 0) {
    _exit(kCannotRun);
  }
  try {
    inChild();
  } catch (...) {
    _exit(kCannotRun);
  }
  _exit(kCannotRun);
}

// Signals stay blocked until the child has taken the parent's handlers off.
pid_t Fork(const Output& output, const Output& error, UniqueFunction<void()>& inChild) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child == 0) {
    RunChild(parent, output.WriteEnd(), error.WriteEnd(), inChild);
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

ForkAndExecResult Run(UniqueFunction<void()>& inChild) {
  Output output;
  Output error;
  const pid_t child = Fork(output, error, inChild);
  if (child < 0) {
    ThrowErrno("fork");
  }
  output.CloseWriteEnd();
  error.CloseWriteEnd();
  // The child is ours and not reaped yet, so its number cannot have been given away.
  const Fd ended(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
  if (ended.Get() < 0) {
    const int cause = errno;
    kill(child, SIGKILL);
    Reap(child);
    errno = cause;
    ThrowErrno("pidfd_open");
  }
  std::array<pollfd, 3> events{};
  do {
    events = {{{.fd = ended.Get(), .events = POLLIN, .revents = 0},
               {.fd = output.ReadEnd(), .events = POLLIN, .revents = 0},
               {.fd = error.ReadEnd(), .events = POLLIN, .revents = 0}}};
    if (poll(events.data(), events.size(), -1) < 0) {
      events[0].revents = 0;  // EINTR: nothing has been told
    }
    // Once the child has ended, all that it wrote lies in the pipes, and this takes the rest.
    output.Drain();
    error.Drain();
  } while (events[0].revents == 0);
  return {.status = Reap(child), .standardOutput = output.Take(), .standardError = error.Take()};
}

}  // namespace

ForkAndExecResult ForkAndExecImpl(UniqueFunction<void()> inChild) {
  try {
    return Run(inChild);
  } catch (const std::system_error& error) {
    ZELT_LOG(kLogError, kCategory) << "Failed to run a child process: " << error.what();
    return {.status = -1, .standardOutput = {}, .standardError = {}};
  }
}

}  // namespace zelt
