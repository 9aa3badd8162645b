#pragma once

#include "zelt/Mutex.h"
#include "zelt/ThreadAnnotations.h"
#include "zelt/UniqueFunction.h"

#include <atomic>
#include <thread>
#include <utility>

namespace zelt {

// A callback that one thread calls and any thread may revoke: what an AsyncCallbackHandle closes.
//
// Shared by the caller and the handle. Calls are serialised. Revoke() waits for a call that is
// running on another thread, and returns at once when it is called from inside the callback. What
// the callback has captured is gone when Revoke() returns or, revoked from inside, when the call
// ends; it is destroyed with no lock held, since it may own whoever takes this lock again.
template <class... Args>
class RevocableCallback {
 public:
  explicit RevocableCallback(UniqueFunction<void(Args...)> callback)
      : callback_(std::move(callback)) {}

  // Calls the callback, unless it has been revoked. True if it was called.
  bool operator()(Args... args) {
    UniqueFunction<void(Args...)> revoked;  // outlives the lock
    const Lock lock(mutex_);
    if (revoked_.load(std::memory_order_relaxed)) {
      return false;
    }
    running_on_.store(std::this_thread::get_id(), std::memory_order_relaxed);
    const struct Reset {
      RevocableCallback& self;
      UniqueFunction<void(Args...)>& revoked;
      ~Reset() {
        self.running_on_.store(std::thread::id(), std::memory_order_relaxed);
        if (self.revoked_from_inside_) {
          revoked = std::exchange(self.callback_, nullptr);
        }
      }
    } reset{*this, revoked};
    callback_(std::forward<Args>(args)...);
    return true;
  }

  void Revoke() {
    revoked_.store(true, std::memory_order_relaxed);
    if (running_on_.load(std::memory_order_relaxed) == std::this_thread::get_id()) {
      revoked_from_inside_ = true;  // the call that is below holds the lock
      return;
    }
    UniqueFunction<void(Args...)> revoked;  // outlives the lock
    const Lock lock(mutex_);
    revoked = std::exchange(callback_, nullptr);
  }

 private:
  Mutex mutex_;  // held while the callback runs
  std::atomic<std::thread::id> running_on_{std::thread::id()};
  std::atomic<bool> revoked_{false};
  bool revoked_from_inside_ = false;  // written and read by the thread that holds mutex_
  UniqueFunction<void(Args...)> callback_ ZELT_GUARDED_BY(mutex_);
};

}  // namespace zelt
