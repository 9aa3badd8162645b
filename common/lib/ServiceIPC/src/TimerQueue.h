#pragma once

#include "zelt/AsyncCallbackHandle.h"
#include "zelt/Mutex.h"
#include "zelt/RevocableCallback.h"
#include "zelt/ThreadAnnotations.h"
#include "zelt/UniqueFunction.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace zelt {

// The timers of one IPC thread, by deadline and, for equal deadlines, in the order of setting.
//
// Any thread may add timers and close their handles; one thread runs those that are due. Shared by
// the handles, so that they may outlive the loop. It knows no clock: the caller tells the time.
class TimerQueue : public std::enable_shared_from_this<TimerQueue> {
 public:
  // Whole microseconds, as the event loop counts: a timer never runs early by a rounded fraction.
  using Time = std::chrono::time_point<std::chrono::steady_clock, std::chrono::microseconds>;
  using Seconds = std::chrono::duration<double>;

  static Time Now() {
    return std::chrono::floor<std::chrono::microseconds>(std::chrono::steady_clock::now());
  }

  // Returns the handle, and whether somebody must wake the loop because this is now the first to
  // run. (A closed timer leaves the loop armed: it wakes in vain, once, which costs less than
  // disarming.)
  std::pair<AsyncCallbackHandle, bool> Add(std::string_view name, UniqueFunction<void()> callback,
                                           Time now, Seconds interval, bool periodic);

  // Tells when the loop must wake next.
  std::optional<Time> NextWake() const;

  // Runs what is due at `now`. What the callbacks themselves set runs in a later call.
  void RunDue(Time now);

 private:
  struct Entry {
    Entry(std::string_view timer_name, UniqueFunction<void()> function)
        : name(timer_name), callback(std::move(function)) {}

    const std::string name;
    RevocableCallback<> callback;
    // guarded by mutex_ of the queue
    Time deadline;
    std::uint64_t sequence = 0;
    std::chrono::microseconds period{};  // 0: fires once
  };
  using Key = std::pair<Time, std::uint64_t>;

  void Insert(const std::shared_ptr<Entry>& entry, Time deadline) ZELT_REQUIRES(mutex_);
  void Remove(const std::shared_ptr<Entry>& entry);

  mutable Mutex mutex_;
  std::map<Key, std::shared_ptr<Entry>> waiting_ ZELT_GUARDED_BY(mutex_);
  std::uint64_t sequence_ ZELT_GUARDED_BY(mutex_) = 0;
  std::optional<Time> armed_ ZELT_GUARDED_BY(mutex_);
};

}  // namespace zelt
