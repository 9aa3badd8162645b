#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <sys/types.h>
#include <csignal>

namespace testbed {

// SIGINT, SIGQUIT, SIGTERM or SIGHUP has come.
struct Interrupted {
  int signal;
  bool from_terminal;  // which sends it to everybody in the foreground
};

// What this program starts, and what that leaves behind: killed with this process, however it ends,
// except for grandchildren when it is killed itself. Statuses are those of a shell: 128 + N after
// signal N.
//
// One at a time, in a program with one thread: it blocks the signals that it waits for, and reaps
// every child.
class Processes {
 public:
  using Words = std::vector<std::string>;
  using Variables = std::vector<std::pair<std::string, std::string>>;

  Processes();
  Processes(const Processes&) = delete;
  Processes& operator=(const Processes&) = delete;
  ~Processes() { StopAll(); }

  // Starts a program in the background: its output goes to the end of `log`, and Ctrl-C does not
  // reach it. Throws when there is no process to be had; a program that cannot be run ends with 126
  // or 127, and says why.
  pid_t Start(const Words& command, const std::filesystem::path& log, const Variables& variables);
  // The same in the foreground: with this program's terminal, input and output.
  pid_t StartCommand(const Words& command);

  // Nothing while it runs.
  std::optional<int> Status(pid_t pid) const { return started_.at(pid); }

  // Waits for a signal, but not longer than this, and takes note of who has ended.
  std::optional<Interrupted> Wait(std::chrono::milliseconds longest);
  // Waits until `done`, or until the time is over: false. Throws Interrupted.
  bool WaitFor(const std::function<bool()>& done, std::chrono::seconds longest);

  // Asks it to end, and kills it after 10 s; at once when there is a signal meanwhile.
  void Stop(pid_t pid, int signal = SIGTERM);
  // All of them, the youngest first, and what they have left behind.
  void StopAll();
  // Kills what processes that have ended have left behind.
  void KillOrphans();

 private:
  pid_t Fork();
  void Reap();

  sigset_t signals_{};
  sigset_t earlier_signals_{};
  std::map<pid_t, std::optional<int>> started_;
  std::vector<pid_t> order_;
  bool in_a_hurry_ = false;
};

}  // namespace testbed
