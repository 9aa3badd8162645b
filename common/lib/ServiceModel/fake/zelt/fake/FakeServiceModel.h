#pragma once

#include "zelt/RevocableCallback.h"
#include "zelt/ServiceModel.h"
#include "zelt/fake/FakeServiceIPC.h"

#include <algorithm>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace zelt::fake {

// The platform of a test: a clock that only the test turns, and a fake bus without other services.
//
// Owned by a shared_ptr; handles may outlive it. Any thread may call any operation. Advance runs
// callbacks on the calling thread, which plays the IPC thread.
class FakeServiceModel : public ServiceModel,
                         public std::enable_shared_from_this<FakeServiceModel> {
 public:
  struct Timer {
    std::string name;
    Seconds interval{};
    bool periodic = false;
    bool is_open = true;  // false once its handle is closed; a one-shot timer that fired stays open
  };

  FakeServiceIPC& Ipc() { return *ipc_; }

  // Turns the clock: fires what falls due on the way, by deadline and, for equal deadlines, in the
  // order in which they were set, including timers that the callbacks themselves set.
  void Advance(Seconds by) {
    std::unique_lock lock(mutex_);
    const Seconds end = now_ + by;
    while (!pending_.empty() && pending_.begin()->first.first <= end) {
      const auto next = pending_.begin()->second;
      now_ = std::max(now_, next->key.first);
      pending_.erase(pending_.begin());
      if (next->timer.periodic) {
        Schedule(next, std::max(next->timer.interval, kShortestPeriod));
      }
      lock.unlock();
      next->callback();
      lock.lock();
    }
    now_ = end;
  }

  // Every timer that was ever added, in order.
  std::vector<Timer> Timers() const {
    const std::lock_guard lock(mutex_);
    std::vector<Timer> result;
    std::ranges::transform(entries_, std::back_inserter(result),
                           [](const auto& entry) { return entry->timer; });
    return result;
  }
  // The names of those that wait to fire, in the order in which they will.
  std::vector<std::string> PendingTimers() const {
    const std::lock_guard lock(mutex_);
    std::vector<std::string> names;
    std::ranges::transform(pending_, std::back_inserter(names),
                           [](const auto& item) { return item.second->timer.name; });
    return names;
  }

  // Every state that the code under test set for itself, in order.
  std::vector<service_state::State> States() const {
    const std::lock_guard lock(mutex_);
    return states_;
  }

  std::shared_ptr<ServiceIPC> GetServiceIPC() override { return ipc_; }

  AsyncCallbackHandle AddTimer(std::string_view name, UniqueFunction<void()> callback,
                               Seconds interval, bool periodic) override {
    const Timer timer{std::string(name), interval, periodic};
    auto entry = std::make_shared<Entry>(timer, std::move(callback));
    {
      const std::lock_guard lock(mutex_);
      entries_.push_back(entry);
      Schedule(entry, std::max(interval, Seconds(0)));
    }
    return AsyncCallbackHandle([weak = weak_from_this(), entry] {
      if (const auto self = weak.lock()) {
        const std::lock_guard lock(self->mutex_);
        entry->timer.is_open = false;
        self->pending_.erase(entry->key);
      }
      entry->callback.Revoke();
    });
  }

  void SetMyServiceState(service_state::State state) override {
    const std::lock_guard lock(mutex_);
    states_.push_back(state);
  }

  // Somebody watches, and asks every second.
  AsyncCallbackHandle AddWatchdog(UniqueFunction<void(AliveFunction alive)> ask) override {
    return FakeServiceModel::AddTimer(
        "Watchdog",
        [this, ask = std::move(ask)]() mutable {
          ask([this] {
            const std::lock_guard lock(mutex_);
            ++times_alive_;
          });
        },
        Seconds(1), true);
  }
  int TimesAlive() const {
    const std::lock_guard lock(mutex_);
    return times_alive_;
  }

  // There are no other services.
  service_state::State GetServiceState(std::string_view, Seconds) override {
    return service_state::State::NotRunning;
  }
  AsyncCallbackHandle WatchServiceState(std::string_view,
                                        UniqueFunction<void(service_state::State)>) override {
    return {};
  }
  std::vector<ServiceInfo> ListServices(Seconds) override { return {}; }

 private:
  static constexpr Seconds kShortestPeriod{0.001};

  using Key = std::pair<Seconds, std::size_t>;  // the deadline, and the order of setting
  struct Entry {
    Entry(Timer what, UniqueFunction<void()> function)
        : timer(std::move(what)), callback(std::move(function)) {}

    Timer timer;
    Key key;
    RevocableCallback<> callback;
  };

  void Schedule(const std::shared_ptr<Entry>& entry, Seconds delay) {
    entry->key = {now_ + delay, ++sequence_};
    pending_[entry->key] = entry;
  }

  std::shared_ptr<FakeServiceIPC> ipc_ = std::make_shared<FakeServiceIPC>();
  mutable std::mutex mutex_;
  int times_alive_ = 0;

  // guarded by mutex_
  Seconds now_{};
  std::size_t sequence_ = 0;
  std::vector<std::shared_ptr<Entry>> entries_;
  std::map<Key, std::shared_ptr<Entry>> pending_;
  std::vector<service_state::State> states_;
};

}  // namespace zelt::fake
