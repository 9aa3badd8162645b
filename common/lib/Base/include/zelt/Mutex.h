#pragma once

#include "zelt/ThreadAnnotations.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace zelt {

// std::mutex, std::unique_lock and std::condition_variable under names that clang's thread-safety
// analysis knows; at run time they are nothing else. A member is tied to its mutex by
// ZELT_GUARDED_BY. Any thread may call any operation, except those of Lock: it belongs to one
// thread.
class ZELT_CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

 private:
  friend class Lock;
  std::mutex mutex_;
};

// Holds `mutex` as long as it lives, except between Unlock() and Relock(). Locking a mutex that the
// same thread holds is an error, found by the analysis where it can see it.
class ZELT_SCOPED_CAPABILITY Lock {
 public:
  explicit Lock(Mutex& mutex) ZELT_ACQUIRE(mutex) : lock_(mutex.mutex_) {}
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;
  ~Lock() ZELT_RELEASE() = default;

  void Unlock() ZELT_RELEASE() { lock_.unlock(); }
  void Relock() ZELT_ACQUIRE() { lock_.lock(); }

 private:
  friend class Condition;
  std::unique_lock<std::mutex> lock_;
};

// Lets a thread wait until another has changed what the mutex guards. A wait lets go of the lock
// and has it again when it returns. It may return for no reason, so wait in a loop; there is no
// wait with a predicate, since the analysis does not see that a lambda is called under the lock.
//
//   Lock lock(mutex_);
//   while (items_.empty()) {
//     filled_.Wait(lock);
//   }
class Condition {
 public:
  Condition() = default;
  Condition(const Condition&) = delete;
  Condition& operator=(const Condition&) = delete;

  void Wait(Lock& lock) { condition_.wait(lock.lock_); }

  // Waits no longer than until `deadline`; false when that was reached.
  template <class Clock, class Duration>
  bool WaitUntil(Lock& lock, const std::chrono::time_point<Clock, Duration>& deadline) {
    return condition_.wait_until(lock.lock_, deadline) == std::cv_status::no_timeout;
  }

  void NotifyOne() { condition_.notify_one(); }
  void NotifyAll() { condition_.notify_all(); }

 private:
  std::condition_variable condition_;
};

}  // namespace zelt
