#pragma once

#include "zelt/AsyncCallbackHandle.h"
#include "zelt/ServiceIPC.h"
#include "zelt/ServiceState.h"
#include "zelt/UniqueFunction.h"

#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace zelt {

// What the platform gives to one process: its IPC, its timers, and the states of services.
//
// Shared by the runner, the service and the libraries it uses. Any thread may call any operation.
class ServiceModel {
 public:
  using Seconds = std::chrono::duration<double>;

  struct ServiceInfo {
    std::string name;
    service_state::State state = service_state::State::NotRunning;
    bool answered = false;  // false: it owns its name but did not tell its state in time
  };

  virtual ~ServiceModel() = default;

  // Connects to the bus (ZELT_BUS_ADDRESS, else the system bus) and owns no name: for queries and
  // tools. Throws std::runtime_error with the address and the reason when there is no bus.
  static std::shared_ptr<ServiceModel> Create();

  // The same, as the service `name`, which waits up to 2 s for a bus that is being started, or as a
  // tool when `name` is "zeltcli-" and a number. Throws std::runtime_error when the name is
  // malformed, taken or not permitted.
  static std::shared_ptr<ServiceModel> Create(std::string_view name);

  virtual std::shared_ptr<ServiceIPC> GetServiceIPC() = 0;

  // Calls `callback` on the IPC thread after `interval` on the monotonic clock, once or, when
  // `periodic`, again and again, until the handle is closed. Equal deadlines fire in the order in
  // which they were set. `name` is for logs only and need not be unique. The callback must return
  // soon. An interval of zero or less fires at once.
  virtual AsyncCallbackHandle AddTimer(std::string_view name, UniqueFunction<void()> callback,
                                       Seconds interval, bool periodic) = 0;

  // Returns the state of any service; NotRunning when nobody owns its name. Throws
  // std::runtime_error when the service does not answer within `timeout` (24 h at most), the bus is
  // gone, or it is called on the IPC thread for another service than the own.
  virtual service_state::State GetServiceState(std::string_view service, Seconds timeout) = 0;

  // Publishes this service's own state; each one is told, however soon the next follows. Does
  // nothing for a model that owns no name. A supervisor that has asked for it (NOTIFY_SOCKET) is
  // told that the service is ready, and that it stops.
  virtual void SetMyServiceState(service_state::State state) = 0;

  // Tells a supervisor that watches this process (WATCHDOG_USEC) that the service goes on, until
  // the handle is closed: three times as often as it demands, calls `ask` on the IPC thread, which
  // has to have `alive` called by the thread whose progress counts, and to return soon. When nobody
  // watches, does nothing and returns a closed handle.
  using AliveFunction = UniqueFunction<void()>;
  virtual AsyncCallbackHandle AddWatchdog(UniqueFunction<void(AliveFunction alive)> ask) = 0;

  // Calls `callback` on the IPC thread with the state of `service`: once soon, then on every
  // change.
  virtual AsyncCallbackHandle WatchServiceState(
      std::string_view service, UniqueFunction<void(service_state::State)> callback) = 0;

  // Returns every service and tool on the bus, by name. Waits for each state no longer than
  // `timeout`; on the IPC thread, no other service has answered.
  virtual std::vector<ServiceInfo> ListServices(Seconds timeout) = 0;
};

}  // namespace zelt
