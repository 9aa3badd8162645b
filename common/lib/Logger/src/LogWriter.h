#pragma once

#include "LogEntry.h"
#include "LogLimits.h"
#include "LogOutputs.h"
#include "LogQueue.h"
#include "zelt/Mutex.h"
#include "zelt/ThreadAnnotations.h"

#include <semaphore.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace zelt {

// Takes lines from any thread and writes them on one of its own, which begins with the first line.
//
// Whoever logs copies the line under a lock that is never held for longer than that, and wakes the
// thread if it sleeps. After each batch the thread pauses for a moment, in which only a queue that
// fills up wakes it: many lines cost few wake-ups.
class LogWriter {
 public:
  // Returns this process's; in a child after fork(2) it is a new one. Never destroyed: threads and
  // statics may log until the very end.
  static LogWriter& Get();
  // Returns it if there is one already, else nullptr.
  static LogWriter* Existing();

  LogWriter(const LogWriter&) = delete;
  LogWriter& operator=(const LogWriter&) = delete;
  ~LogWriter() = delete;

  // `entry` without its time.
  void Log(LogEntry entry, std::string_view text);
  void SetIdentifier(std::string_view identifier);

  // Waits until what has been logged is written, also how many lines were held back; 0.5 s at most.
  void Flush();
  // Does the same in a handler of a fatal signal: takes no lock, and does not wait for a reader.
  void FlushInSignalHandler();

 private:
  LogWriter();

  void Start() ZELT_REQUIRES(mutex_);
  [[noreturn]] void Run();
  void StaysAwake() ZELT_REQUIRES(mutex_);
  void ReportHeldBack(LogLimits::Clock::time_point now) ZELT_REQUIRES(mutex_);
  void Push(const LogEntry& entry, std::string_view text) ZELT_REQUIRES(mutex_);
  void SleepUntil(LogLimits::Clock::time_point time);
  void WaitUntilDone(bool also_for_reader);

  LogOutputs outputs_;  // of the thread, but for IsWaiting
  sem_t wake_up_;

  Mutex mutex_;
  LogQueue queue_ ZELT_GUARDED_BY(mutex_);
  LogLimits limits_ ZELT_GUARDED_BY(mutex_);
  std::string identifier_ ZELT_GUARDED_BY(mutex_);
  bool is_started_ ZELT_GUARDED_BY(mutex_) = false;
  // When the thread has to be woken: for a report before this time, and for more bytes than these.
  LogLimits::Clock::time_point sleeps_until_ ZELT_GUARDED_BY(mutex_);
  std::size_t sleeps_up_to_ ZELT_GUARDED_BY(mutex_) = 0;

  // Lines that came in, and those that are written or gone for good. Any thread.
  std::atomic<std::uint64_t> pushed_ = 0;
  std::atomic<std::uint64_t> done_ = 0;
  std::atomic<pid_t> thread_ = 0;
};

}  // namespace zelt
