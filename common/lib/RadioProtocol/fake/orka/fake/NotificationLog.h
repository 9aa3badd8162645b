#pragma once

#include "orka/RadioProtocol.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <utility>
#include <vector>

namespace orka::fake {

// Keeps what a RadioProtocol notifies. It must outlive the last notification.
class NotificationLog {
 public:
  RadioProtocol::NotificationCallback Callback() {
    return [this](NotifyMessage kind, RadioNotificationData data) {
      const std::lock_guard lock(mutex_);
      all_.emplace_back(kind, std::move(data));
      changed_.notify_all();
    };
  }

  // Waits for `count` notifications, for a while, and returns the kinds of those that came.
  std::vector<NotifyMessage> Await(std::size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kLong, [&] { return all_.size() >= count; });
    std::vector<NotifyMessage> kinds;
    kinds.reserve(all_.size());
    for (const auto& [kind, data] : all_) {
      kinds.push_back(kind);
    }
    return kinds;
  }

  // Waits until `count` of this kind have come. False when they have not.
  bool AwaitKind(NotifyMessage kind, std::size_t count = 1) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kLong, [&] {
      return static_cast<std::size_t>(std::ranges::count(
                 all_, kind, [](const auto& one) { return one.first; })) >= count;
    });
  }

  // What came with the notifications of one kind.
  std::vector<RadioNotificationData> Data(NotifyMessage kind) {
    const std::lock_guard lock(mutex_);
    std::vector<RadioNotificationData> found;
    for (const auto& [which, data] : all_) {
      if (which == kind) {
        found.push_back(data);
      }
    }
    return found;
  }

  void Clear() {
    const std::lock_guard lock(mutex_);
    all_.clear();
  }

 private:
  static constexpr std::chrono::seconds kLong{20};

  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::pair<NotifyMessage, RadioNotificationData>> all_;  // guarded by mutex_
};

}  // namespace orka::fake
