#pragma once

#include "zelt/Busy.h"
#include "zelt/FreeMemory.h"
#include "zelt/Mutex.h"
#include "zelt/ThreadAnnotations.h"

#include <algorithm>
#include <cstddef>
#include <limits>
#include <list>
#include <map>
#include <string>
#include <string_view>
#include <utility>

namespace zelt {

// What waits in a queue, or how much may.
struct QueueLoad {
  std::size_t number = 0;
  std::size_t bytes = 0;

  // Tells whether one more element of `size` bytes keeps within `limit`.
  bool HasRoom(const QueueLoad& limit, std::size_t size) const {
    return number < limit.number && bytes <= limit.bytes && size <= limit.bytes - bytes;
  }
};

// A first-in, first-out queue between threads, with a bound for those who can try again later.
//
// Each element has a size and a source, as its pusher says. Push() refuses what would bring the
// queue above its limit, and what would bring a source of which something waits already above a
// quarter of the limit, so that one source leaves room for the others. PushAlways() and Close()
// never refuse; what they push counts as well.
//
// Any thread may call any operation. The lock is held only to link one element in or out, and to
// keep count. Elements still queued when the queue is destroyed are destroyed with it, without the
// lock held; nobody may be inside Pop() at that time.
template <class T>
class ConcurrentQueue {
 public:
  static constexpr std::size_t kSources = 4;  // that fill the queue only together

  // Without a limit, nothing is refused until Close().
  ConcurrentQueue() : ConcurrentQueue({kNoLimit, kNoLimit}) {}
  explicit ConcurrentQueue(const QueueLoad& limit) : limit_(limit) {}
  ConcurrentQueue(const ConcurrentQueue&) = delete;
  ConcurrentQueue& operator=(const ConcurrentQueue&) = delete;

  // Appends `value` and wakes all waiters. Throws Busy when it is refused; `value` is then
  // destroyed, without the lock held, and nothing else has changed.
  void Push(T value, std::string_view source, std::size_t bytes) {
    Append(std::move(value), source, bytes, Door::Bounded);
  }

  // Appends without regard to the limit: what must not be lost, and what is bounded elsewhere.
  void PushAlways(T value, std::string_view source = {}, std::size_t bytes = 0) {
    Append(std::move(value), source, bytes, Door::Open);
  }

  // Appends `last`, and lets Push() refuse everything from then on, since it would not be taken.
  void Close(T last) { Append(std::move(last), {}, 0, Door::Closing); }

  // Takes the oldest element; waits while there is none. When a backlog of kBacklog bytes or more
  // is over, gives its memory back before it waits.
  T Pop() {
    std::list<Item> node;
    {
      Lock lock(mutex_);
      if (items_.empty() && std::exchange(highest_, 0) >= kBacklog) {
        lock.Unlock();
        GiveBackFreeMemory();
        lock.Relock();
      }
      while (items_.empty()) {
        condition_.Wait(lock);
      }
      node.splice(node.begin(), items_, items_.begin());
      const Item& item = node.front();
      all_ = {all_.number - 1, all_.bytes - item.bytes};
      QueueLoad& source = item.source->second;
      source = {source.number - 1, source.bytes - item.bytes};
      if (source.number == 0) {
        sources_.erase(item.source);
      }
    }
    return std::move(node.front().value);
  }

  std::size_t Size() const {
    const Lock lock(mutex_);
    return all_.number;
  }

  // Returns what waits of one source.
  QueueLoad Waiting(std::string_view source) const {
    const Lock lock(mutex_);
    const auto found = sources_.find(source);
    return found == sources_.end() ? QueueLoad() : found->second;
  }

 private:
  static constexpr std::size_t kNoLimit = std::numeric_limits<std::size_t>::max();
  static constexpr std::size_t kBacklog = std::size_t{1} << 20U;

  using Sources = std::map<std::string, QueueLoad, std::less<>>;
  struct Item {
    T value;
    std::size_t bytes;
    typename Sources::iterator source;
  };
  enum class Door : unsigned char { Bounded, Open, Closing };

  void Append(T value, std::string_view source_name, std::size_t bytes, Door door) {
    std::list<Item> node;  // allocate outside the lock
    node.push_back({std::move(value), bytes, {}});
    {
      const Lock lock(mutex_);
      if (door == Door::Bounded) {
        Admit(source_name, bytes);
      }
      auto source = sources_.find(source_name);
      if (source == sources_.end()) {
        source = sources_.emplace(source_name, QueueLoad()).first;
      }
      node.front().source = source;
      source->second = {source->second.number + 1, source->second.bytes + bytes};
      all_ = {all_.number + 1, all_.bytes + bytes};
      highest_ = std::max(highest_, all_.bytes);
      closed_ = closed_ || door == Door::Closing;
      items_.splice(items_.end(), node);
    }
    condition_.NotifyAll();
  }

  // Throws Busy unless there is room.
  void Admit(std::string_view source_name, std::size_t bytes) const ZELT_REQUIRES(mutex_) {
    if (closed_) {
      throw Busy("nothing more is taken");
    }
    if (!all_.HasRoom(limit_, bytes)) {
      throw Busy("too much waits: " + Text(all_));
    }
    const QueueLoad share = {limit_.number / kSources, limit_.bytes / kSources};
    const auto source = sources_.find(source_name);
    if (source != sources_.end() && !source->second.HasRoom(share, bytes)) {
      throw Busy("too much of this source waits: " + Text(source->second));
    }
  }

  static std::string Text(const QueueLoad& load) {
    return std::to_string(load.number) + " with " + std::to_string(load.bytes) + " bytes";
  }

  const QueueLoad limit_;
  mutable Mutex mutex_;
  Condition condition_;

  std::list<Item> items_ ZELT_GUARDED_BY(mutex_);
  QueueLoad all_ ZELT_GUARDED_BY(mutex_);
  Sources sources_ ZELT_GUARDED_BY(mutex_);  // those of which something waits
  // Bytes that waited at a time since the last backlog.
  std::size_t highest_ ZELT_GUARDED_BY(mutex_) = 0;
  bool closed_ ZELT_GUARDED_BY(mutex_) = false;
};

}  // namespace zelt
