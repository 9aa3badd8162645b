#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace zelt::fake {

// One process that a test starts, with its standard output and error in a file and nothing to read;
// killed with it. What is waited for has 60 s.
class ChildProcess {
 public:
  ChildProcess(std::vector<std::string> command, std::filesystem::path output)
      : output_(std::move(output)) {
    std::vector<char*> arguments;
    std::ranges::transform(command, std::back_inserter(arguments),
                           [](std::string& word) { return word.data(); });
    arguments.push_back(nullptr);
    const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const int file =
        open(output_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600);
    if (nothing < 0 || file < 0) {
      throw std::runtime_error("cannot create " + output_.string());
    }
    pid_ = fork();
    if (pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      dup2(nothing, STDIN_FILENO);
      dup2(file, STDOUT_FILENO);
      dup2(file, STDERR_FILENO);
      execvp(arguments[0], arguments.data());
      _exit(127);
    }
    close(file);
    close(nothing);
    if (pid_ < 0) {
      throw std::runtime_error("cannot fork");
    }
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess() {
    Signal(SIGKILL);
    Wait();
  }

  void Signal(int signal) const {
    if (!status_) {
      kill(pid_, signal);
    }
  }

  // Halts it, as a process that hangs; Signal(SIGCONT) lets it go on.
  void Halt() const {
    int status = 0;
    Signal(SIGSTOP);
    waitpid(pid_, &status, WUNTRACED);  // until then, its threads may still do something
  }

  // Waits for its end: the exit status, or 128 + signal. One that does not end is killed: -1.
  int Wait() {
    int status = 0;
    pollfd end{static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)), POLLIN, 0};
    const bool hangs = !status_ && end.fd >= 0 && poll(&end, 1, kDeadlineMilliseconds) == 0;
    close(end.fd);
    if (hangs) {
      Signal(SIGKILL);
    }
    if (!status_ && waitpid(pid_, &status, 0) == pid_) {
      const int exit = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
      status_ = hangs ? -1 : exit;
    }
    return status_.value_or(-1);
  }

  std::string Output() const {
    std::ostringstream text;
    text << std::ifstream(output_).rdbuf();
    return text.str();
  }

  // True once `part` stands in the output; false when it does not come, at once if the process has
  // ended without it.
  bool WaitForOutput(const std::string& part) const {
    return Comes([&] { return Output().contains(part); });
  }

  // The first whole line with `part` since the last Mark(); throws when it does not come.
  std::string WaitForLine(const std::string& part) const {
    std::vector<std::string> lines;
    if (!Comes([&] { return !(lines = Lines(part)).empty(); })) {
      throw std::runtime_error("no line with \"" + part + "\" in:\n" + Output());
    }
    return lines.front();
  }

  // All of them so far.
  std::vector<std::string> Lines(const std::string& part) const {
    std::istringstream output(Output().substr(mark_));
    std::vector<std::string> lines;
    for (std::string line; std::getline(output, line) && !output.eof();) {
      if (line.contains(part)) {
        lines.push_back(line);
      }
    }
    return lines;
  }

  // Lines from before this call no longer count.
  void Mark() { mark_ = Output().size(); }

 private:
  static constexpr int kDeadlineMilliseconds = 60'000;

  // Looks whenever the output has grown, and for the last time when the process has ended.
  template <class Condition>
  bool Comes(Condition condition) const {
    using std::chrono::milliseconds;
    const auto deadline = std::chrono::steady_clock::now() + milliseconds(kDeadlineMilliseconds);
    pollfd changes[] = {
        {inotify_init1(IN_CLOEXEC | IN_NONBLOCK), POLLIN, 0},
        {static_cast<int>(syscall(SYS_pidfd_open, status_ ? -1 : pid_, 0)), POLLIN, 0}};
    inotify_add_watch(changes[0].fd, output_.c_str(), IN_MODIFY);
    bool has_ended = status_.has_value();
    bool come = false;
    auto left = milliseconds(1);
    while (!(come = condition()) && !has_ended && left.count() > 0) {
      left = std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now());
      poll(changes, 2, std::max(0, static_cast<int>(left.count())));
      has_ended = changes[1].revents != 0;
      char events[4096];  // which they are does not matter
      while (read(changes[0].fd, events, sizeof events) > 0) {
      }
    }
    close(changes[0].fd);
    close(changes[1].fd);
    return come;
  }

  std::filesystem::path output_;
  pid_t pid_ = -1;
  std::optional<int> status_;
  std::size_t mark_ = 0;
};

}  // namespace zelt::fake
