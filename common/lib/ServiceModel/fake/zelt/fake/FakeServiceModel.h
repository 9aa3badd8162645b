#pragma once

#include "zelt/RevocableCallback.h"
#include "zelt/ServiceModel.h"
#include "zelt/fake/FakeServiceIPC.h"

#include <algorithm>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace zelt::fake {

// The platform of a test: a clock that only the test turns, a fake bus, and the states of services
// as the test says.
//
// Any thread may call any operation. Advance and SetServiceState run callbacks on the calling
// thread, which plays the IPC thread.
class FakeServiceModel : public ServiceModel {
 public:
  struct Timer {
    std::string name;
    Seconds interval{};
    bool periodic = false;
    bool is_open = true;  // false once its handle is closed; a one-shot timer that fired stays open
    int fired = 0;
  };

  FakeServiceIPC& Ipc() { return *ipc_; }

  // Turns the clock: fires what falls due on the way, by deadline and, for equal deadlines, in the
  // order in which they were set, including timers that the callbacks themselves set.
  void Advance(Seconds by) {
    std::unique_lock lock(mutex_);
    const Seconds end = now_ + by;
    while (const auto next = Earliest(end)) {
      now_ = std::max(now_, next->deadline);
      next->pending = next->timer.periodic;
      next->deadline += std::max(next->timer.interval, kShortestPeriod);
      next->sequence = ++sequence_;
      ++next->timer.fired;
      const auto callback = next->callback;
      lock.unlock();
      (*callback)();
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
    std::vector<std::shared_ptr<Entry>> pending;
    std::ranges::copy_if(entries_, std::back_inserter(pending), &Entry::pending);
    std::ranges::sort(pending, {}, [](const auto& entry) { return entry->Key(); });
    std::vector<std::string> names;
    std::ranges::transform(pending, std::back_inserter(names),
                           [](const auto& entry) { return entry->timer.name; });
    return names;
  }

  // Every state that the code under test set for itself, in order.
  std::vector<service_state::State> States() const {
    const std::lock_guard lock(mutex_);
    return states_;
  }

  // What GetServiceState and the watches tell about `service`; NotRunning before the first call.
  void SetServiceState(std::string_view service, service_state::State state) {
    std::vector<std::shared_ptr<Watch>> called;
    {
      const std::lock_guard lock(mutex_);
      const auto known = std::ranges::find(services_, service, &ServiceInfo::name);
      if (known == services_.end()) {
        services_.push_back({std::string(service), state, true});
      } else {
        known->state = state;
      }
      std::ranges::copy_if(watches_, std::back_inserter(called),
                           [service](const auto& watch) { return watch->service == service; });
    }
    for (const auto& watch : called) {
      watch->callback(state);
    }
  }
  std::shared_ptr<ServiceIPC> GetServiceIPC() override { return ipc_; }

  AsyncCallbackHandle AddTimer(std::string_view name, UniqueFunction<void()> callback,
                               Seconds interval, bool periodic) override {
    auto entry = std::make_shared<Entry>();
    entry->timer = {std::string(name), interval, periodic};
    entry->callback = std::make_shared<RevocableCallback<>>(std::move(callback));
    {
      const std::lock_guard lock(mutex_);
      entry->deadline = now_ + std::max(interval, Seconds(0));
      entry->sequence = ++sequence_;
      entries_.push_back(entry);
    }
    return AsyncCallbackHandle([entry, mutex = mutex_owner_] {
      {
        const std::lock_guard lock(*mutex);
        entry->timer.is_open = false;
        entry->pending = false;
      }
      entry->callback->Revoke();
    });
  }

  service_state::State GetServiceState(std::string_view service, Seconds) override {
    const std::lock_guard lock(mutex_);
    const auto known = std::ranges::find(services_, service, &ServiceInfo::name);
    return known == services_.end() ? service_state::State::NotRunning : known->state;
  }

  void SetMyServiceState(service_state::State state) override {
    const std::lock_guard lock(mutex_);
    states_.push_back(state);
  }

  AsyncCallbackHandle WatchServiceState(
      std::string_view service, UniqueFunction<void(service_state::State)> callback) override {
    auto watch = std::make_shared<Watch>(std::string(service), std::move(callback));
    {
      const std::lock_guard lock(mutex_);
      watches_.push_back(watch);
    }
    watch->callback(GetServiceState(service, Seconds(0)));
    return AsyncCallbackHandle([watch] { watch->callback.Revoke(); });
  }

  std::vector<ServiceInfo> ListServices(Seconds) override {
    const std::lock_guard lock(mutex_);
    return services_;
  }

 private:
  static constexpr Seconds kShortestPeriod{0.001};

  struct Entry {
    Timer timer;
    Seconds deadline{};
    std::size_t sequence = 0;
    bool pending = true;
    std::shared_ptr<RevocableCallback<>> callback;

    std::pair<Seconds, std::size_t> Key() const { return {deadline, sequence}; }
  };
  struct Watch {
    Watch(std::string name, UniqueFunction<void(service_state::State)> function)
        : service(std::move(name)), callback(std::move(function)) {}
    std::string service;
    RevocableCallback<service_state::State> callback;
  };

  std::shared_ptr<Entry> Earliest(Seconds end) const {
    std::shared_ptr<Entry> earliest;
    for (const auto& entry : entries_) {
      if (entry->pending && entry->deadline <= end &&
          (!earliest || entry->Key() < earliest->Key())) {
        earliest = entry;
      }
    }
    return earliest;
  }

  std::shared_ptr<FakeServiceIPC> ipc_ = std::make_shared<FakeServiceIPC>();
  std::shared_ptr<std::mutex> mutex_owner_ = std::make_shared<std::mutex>();  // handles may outlive
  std::mutex& mutex_ = *mutex_owner_;

  // guarded by mutex_
  Seconds now_{};
  std::size_t sequence_ = 0;
  std::vector<std::shared_ptr<Entry>> entries_;
  std::vector<service_state::State> states_;
  std::vector<ServiceInfo> services_;
  std::vector<std::shared_ptr<Watch>> watches_;
};

}  // namespace zelt::fake
