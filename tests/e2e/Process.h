#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <cstddef>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace e2e {

// A child process whose output is collected line by line; killed when the object goes.
// What is waited for has a deadline of 60 s; missing it throws with everything the child wrote.
class Process {
 public:
  using Environment = std::map<std::string, std::string>;

  Process(std::vector<std::string> command, const Environment& environment);
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  ~Process();

  // The first line after `Mark()` (else after the start) that contains `text`.
  std::string WaitForLine(std::string_view text);
  // Lines from before this call no longer count.
  void Mark();
  bool Has(std::string_view text) const;
  std::size_t Count(std::string_view text) const;
  std::string Output() const;

  void Signal(int number) const;
  // The exit status, or 128 + signal.
  int Wait();
  pid_t Pid() const { return pid_; }

 private:
  void Read(int fd);

  pid_t pid_ = -1;
  int exit_status_ = -1;  // once waited for
  bool waited_ = false;
  mutable std::mutex mutex_;
  std::condition_variable condition_;
  std::vector<std::string> lines_;  // guarded by mutex_
  std::size_t mark_ = 0;            // guarded by mutex_
  bool closed_ = false;             // guarded by mutex_
  std::thread reader_;
};

}  // namespace e2e
