#pragma once

#include <condition_variable>
#include <cstddef>
#include <list>
#include <mutex>
#include <optional>
#include <utility>

namespace zelt {

// An unbounded first-in, first-out queue between threads.
//
// Any thread may call any operation. Elements still queued when the queue is destroyed are
// destroyed with it, without the lock held; nobody may be inside Pop() at that time.
template <class T>
class ConcurrentQueue {
 public:
  ConcurrentQueue() = default;
  ConcurrentQueue(const ConcurrentQueue&) = delete;
  ConcurrentQueue& operator=(const ConcurrentQueue&) = delete;

  // Appends `value` and wakes all waiters. Never blocks longer than another operation's splice.
  void Push(T value) {
    std::list<T> node;  // allocate outside the lock
    node.push_back(std::move(value));
    {
      const std::lock_guard lock(mutex_);
      items_.splice(items_.end(), node);
    }
    condition_.notify_all();
  }

  // Takes the oldest element; waits while there is none.
  T Pop() {
    std::list<T> node;
    {
      std::unique_lock lock(mutex_);
      condition_.wait(lock, [this] { return !items_.empty(); });
      node.splice(node.begin(), items_, items_.begin());
    }
    return std::move(node.front());
  }

  // Takes the oldest element, or nothing when there is none. Never waits.
  std::optional<T> TryPop() {
    std::list<T> node;
    {
      const std::lock_guard lock(mutex_);
      if (items_.empty()) {
        return std::nullopt;
      }
      node.splice(node.begin(), items_, items_.begin());
    }
    return std::move(node.front());
  }

  std::size_t Size() const {
    const std::lock_guard lock(mutex_);
    return items_.size();
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable condition_;
  std::list<T> items_;  // guarded by mutex_
};

}  // namespace zelt
