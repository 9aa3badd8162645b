#include "Processes.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <ranges>
#include <system_error>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace testbed {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kTick{10};  // between two looks at what no signal tells
constexpr std::chrono::seconds kLongestStop{10};

[[noreturn]] void Execute(const Processes::Words& command) {
  std::vector<char*> words;
  // execvp does not write to them.
  std::ranges::transform(command, std::back_inserter(words),
                         [](const std::string& word) { return const_cast<char*>(word.c_str()); });
  words.push_back(nullptr);
  execvp(words[0], words.data());
  const int error = errno;
  dprintf(STDERR_FILENO, "%s: %s\n", words[0], std::strerror(error));
  _exit(error == ENOENT ? 127 : 126);
}

}  // namespace

Processes::Processes() {
  sigemptyset(&signals_);
  for (const int signal : {SIGCHLD, SIGINT, SIGQUIT, SIGTERM, SIGHUP}) {
    sigaddset(&signals_, signal);
  }
  sigprocmask(SIG_BLOCK, &signals_, &earlier_signals_);
  prctl(PR_SET_CHILD_SUBREAPER, 1);
}

// Returns twice, as fork does.
pid_t Processes::Fork() {
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid < 0) {
    throw std::system_error(errno, std::generic_category(), "cannot start a process");
  }
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
      _exit(127);  // it has ended before that
    }
    sigprocmask(SIG_SETMASK, &earlier_signals_, nullptr);
    return pid;
  }
  started_[pid].reset();
  order_.push_back(pid);
  return pid;
}

pid_t Processes::Start(const Words& command, const std::filesystem::path& log,
                       const Variables& variables) {
  const pid_t pid = Fork();
  if (pid == 0) {
    setpgid(0, 0);
    const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const int output = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (nothing < 0 || output < 0 || dup2(nothing, STDIN_FILENO) < 0 ||
        dup2(output, STDOUT_FILENO) < 0 || dup2(output, STDERR_FILENO) < 0) {
      _exit(126);
    }
    for (const auto& [name, value] : variables) {
      setenv(name.c_str(), value.c_str(), 1);
    }
    Execute(command);
  }
  return pid;
}

pid_t Processes::StartCommand(const Words& command) {
  const pid_t pid = Fork();
  if (pid == 0) {
    Execute(command);
  }
  return pid;
}

void Processes::Reap() {
  int status = 0;
  for (pid_t pid = 0; (pid = waitpid(-1, &status, WNOHANG)) > 0;) {
    if (const auto found = started_.find(pid); found != started_.end()) {
      found->second = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    }
  }
}

std::optional<Interrupted> Processes::Wait(milliseconds longest) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(longest);
  const timespec time{.tv_sec = seconds.count(),
                      .tv_nsec = std::chrono::nanoseconds(longest - seconds).count()};
  siginfo_t info{};
  const int signal = sigtimedwait(&signals_, &info, &time);
  Reap();
  if (signal <= 0 || signal == SIGCHLD) {
    return std::nullopt;
  }
  return Interrupted{.signal = signal, .from_terminal = info.si_code == SI_KERNEL};
}

bool Processes::WaitFor(const std::function<bool()>& done, std::chrono::seconds longest) {
  const auto deadline = steady_clock::now() + longest;
  while (!done()) {
    if (steady_clock::now() >= deadline) {
      return false;
    }
    if (const auto interrupted = Wait(kTick)) {
      throw Interrupted(*interrupted);
    }
  }
  return true;
}

void Processes::Stop(pid_t pid, int signal) {
  const auto deadline = steady_clock::now() + kLongestStop;
  if (!Status(pid)) {
    kill(pid, signal);
    kill(pid, SIGCONT);  // also one that was halted
  }
  while (!Status(pid)) {
    if (in_a_hurry_ || steady_clock::now() >= deadline) {
      kill(pid, SIGKILL);
    }
    in_a_hurry_ = Wait(kTick).has_value() || in_a_hurry_;
  }
}

void Processes::StopAll() {
  for (const pid_t pid : order_ | std::views::reverse) {
    Stop(pid);
  }
  KillOrphans();
}

void Processes::KillOrphans() {
  const auto deadline = steady_clock::now() + kLongestStop;
  for (bool found = true; found && steady_clock::now() < deadline; Wait(kTick)) {
    Reap();
    found = false;
    // They have become children of this process, as theirs will.
    std::ifstream children("/proc/thread-self/children");
    for (pid_t pid = 0; children >> pid;) {
      if (!started_.contains(pid)) {
        kill(pid, SIGKILL);
        found = true;
      }
    }
  }
}

}  // namespace testbed
