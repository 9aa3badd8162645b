#include "zelt/ForkAndExec.h"

#include "zelt/FileDescriptor.h"
#include "zelt/LogClient.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <system_error>
#include <utility>

namespace zelt {
namespace {

constexpr std::uint32_t kCategory = 0x800A;
constexpr std::size_t kKept = std::size_t{64} * 1024;
constexpr int kCannotRun = 127;  // as shells have it

// One output of the child: the pipe, and the last of what came through it.
class Output {
 public:
  Output() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
      ThrowErrno("pipe2");
    }
    read_ = FileDescriptor(ends[0]);
    // Above the standard three, so that in the child no dup2 overwrites it.
    write_ =
        FileDescriptor(fcntl(FileDescriptor(ends[1]).Get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    capacity_ = fcntl(read_.Get(), F_GETPIPE_SZ);
    if (write_.Get() < 0 || capacity_ < 0 || fcntl(read_.Get(), F_SETFL, O_NONBLOCK) != 0) {
      ThrowErrno("fcntl");
    }
  }

  int ReadEnd() const { return read_.Get(); }  // negative once all has been read
  int WriteEnd() const { return write_.Get(); }
  void CloseWriteEnd() { write_.Close(); }

  // Reads all that lies in the pipe, but no more than fits into it at a time, so that a writer that
  // never rests cannot hold the reader up.
  void Drain() {
    std::array<char, kKept> buffer;  // NOLINT(cppcoreguidelines-pro-type-member-init)
    for (ssize_t left = capacity_; left > 0 && read_.Get() >= 0;) {
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

  std::string Take() { return std::move(text_); }

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
    inChild();
  } catch (...) {
    Fail(STDERR_FILENO, "an exception");
  }
  Fail(STDERR_FILENO, "exec");
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
  const FileDescriptor ended(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
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
