#include "TimerQueue.h"

#include "LogCategory.h"
#include "zelt/RunGuarded.h"

#include <algorithm>

namespace zelt {

namespace {

constexpr TimerQueue::Seconds kLongest = std::chrono::hours(24 * 365 * 10);
constexpr std::chrono::milliseconds kShortestPeriod{1};

std::chrono::microseconds ToMicroseconds(TimerQueue::Seconds interval) {
  if (!(interval > TimerQueue::Seconds(0))) {  // also what is not a number
    return std::chrono::microseconds(0);
  }
  return std::chrono::ceil<std::chrono::microseconds>(std::min(interval, kLongest));
}

}  // namespace

std::pair<AsyncCallbackHandle, bool> TimerQueue::Add(std::string_view name,
                                                     UniqueFunction<void()> callback, Time now,
                                                     Seconds interval, bool periodic) {
  auto entry = std::make_shared<Entry>(name, std::move(callback));
  const auto delay = ToMicroseconds(interval);
  bool wake = false;
  {
    const Lock lock(mutex_);
    if (periodic) {
      entry->period = std::max<std::chrono::microseconds>(delay, kShortestPeriod);
    }
    Insert(entry, now + delay);
    wake = !armed_ || entry->deadline < *armed_;
    if (wake) {
      armed_ = entry->deadline;
    }
  }
  AsyncCallbackHandle handle([queue = weak_from_this(), entry] {
    if (const auto self = queue.lock()) {
      self->Remove(entry);
    }
    entry->callback.Revoke();
  });
  return {std::move(handle), wake};
}

std::optional<TimerQueue::Time> TimerQueue::NextWake() const {
  const Lock lock(mutex_);
  return armed_;
}

void TimerQueue::RunDue(Time now) {
  const std::uint64_t last_sequence = [this] {
    const Lock lock(mutex_);
    return sequence_;
  }();
  for (;;) {
    std::shared_ptr<Entry> entry;
    {
      const Lock lock(mutex_);
      const auto due = std::ranges::find_if(waiting_, [&](const auto& item) {
        return item.first.first > now || item.first.second <= last_sequence;
      });
      if (due == waiting_.end() || due->first.first > now) {
        armed_ = waiting_.empty() ? std::nullopt : std::optional(waiting_.begin()->first.first);
        return;
      }
      entry = due->second;
      waiting_.erase(due);
      if (entry->period.count() > 0) {
        // A loop that was held up for several periods does not catch up in a burst.
        Insert(entry,
               std::max(entry->deadline + entry->period, now + std::chrono::microseconds(1)));
      }
    }
    RunGuarded(
        kIpcLogCategory, [&] { entry->callback(); }, "Timer [", entry->name,
        "] threw an exception");
  }
}

void TimerQueue::Insert(const std::shared_ptr<Entry>& entry, Time deadline) {
  entry->deadline = deadline;
  entry->sequence = ++sequence_;
  waiting_.emplace(Key(entry->deadline, entry->sequence), entry);
}

void TimerQueue::Remove(const std::shared_ptr<Entry>& entry) {
  const Lock lock(mutex_);
  waiting_.erase(Key(entry->deadline, entry->sequence));
}

}  // namespace zelt
