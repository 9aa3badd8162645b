#include "Process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <stdexcept>

namespace e2e {
namespace {

constexpr std::chrono::seconds kDeadline(60);

}  // namespace

Process::Process(std::vector<std::string> command, const Environment& environment) {
  std::array<int, 2> pipe_ends{};
  if (pipe2(pipe_ends.data(), O_CLOEXEC) != 0) {
    throw std::runtime_error("pipe2");
  }
  std::vector<char*> argv;
  for (std::string& word : command) {
    argv.push_back(word.data());
  }
  argv.push_back(nullptr);
  pid_ = fork();
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
    dup2(pipe_ends[1], STDOUT_FILENO);
    dup2(pipe_ends[1], STDERR_FILENO);
    for (const auto& [name, value] : environment) {
      setenv(name.c_str(), value.c_str(), 1);
    }
    execvp(argv[0], argv.data());
    _exit(127);
  }
  close(pipe_ends[1]);
  if (pid_ < 0) {
    close(pipe_ends[0]);
    throw std::runtime_error("fork");
  }
  reader_ = std::thread([this, fd = pipe_ends[0]] { Read(fd); });
}

Process::~Process() {
  if (!waited_) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  reader_.join();
}

void Process::Read(int fd) {
  std::string rest;
  std::array<char, 4096> buffer{};
  // A grandchild may keep the pipe open after the child; what it writes is still collected.
  for (ssize_t n = 0; (n = read(fd, buffer.data(), buffer.size())) > 0;) {
    rest.append(buffer.data(), static_cast<std::size_t>(n));
    for (std::size_t end = 0; (end = rest.find('\n')) != std::string::npos;) {
      const std::lock_guard lock(mutex_);
      lines_.push_back(rest.substr(0, end));
      rest.erase(0, end + 1);
      condition_.notify_all();
    }
  }
  close(fd);
  const std::lock_guard lock(mutex_);
  if (!rest.empty()) {
    lines_.push_back(rest);
  }
  closed_ = true;
  condition_.notify_all();
}

std::string Process::WaitForLine(std::string_view text) {
  std::unique_lock lock(mutex_);
  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  for (std::size_t i = mark_;;) {
    for (; i < lines_.size(); ++i) {
      if (lines_[i].find(text) != std::string::npos) {
        return lines_[i];
      }
    }
    if (closed_ || condition_.wait_until(lock, deadline) == std::cv_status::timeout) {
      lock.unlock();
      throw std::runtime_error("no line with \"" + std::string(text) + "\" in:\n" + Output());
    }
  }
}

void Process::Mark() {
  const std::lock_guard lock(mutex_);
  mark_ = lines_.size();
}

bool Process::Has(std::string_view text) const {
  return Count(text) > 0;
}

std::size_t Process::Count(std::string_view text) const {
  const std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(
      std::ranges::count_if(lines_.begin() + static_cast<std::ptrdiff_t>(mark_), lines_.end(),
                            [text](const std::string& line) { return line.contains(text); }));
}

std::string Process::Output() const {
  const std::lock_guard lock(mutex_);
  std::string all;
  for (const std::string& line : lines_) {
    all += line + '\n';
  }
  return all;
}

void Process::Signal(int number) const {
  kill(pid_, number);
}

int Process::Wait() {
  if (!waited_) {
    const int fd = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
    pollfd ended{.fd = fd, .events = POLLIN, .revents = 0};
    const int ready =
        poll(&ended, 1, static_cast<int>(std::chrono::milliseconds(kDeadline).count()));
    close(fd);
    if (ready != 1) {
      throw std::runtime_error("process did not end:\n" + Output());
    }
    int status = 0;
    waitpid(pid_, &status, 0);
    waited_ = true;
    exit_status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    std::unique_lock lock(mutex_);
    condition_.wait_for(lock, kDeadline, [this] { return closed_; });
  }
  return exit_status_;
}

}  // namespace e2e
