#pragma once

#include "zelt/AsyncCallbackHandle.h"
#include "zelt/ServiceIPC.h"
#include "zelt/UniqueFunction.h"

#include <chrono>
#include <cstdint>
#include <future>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace zelt {

// The connection of one process to the bus, with the IPC thread that serves it: what ServiceModel
// is made of. Services and tools use ServiceModel instead.
//
// Any thread may call any operation, and may let go of the last reference: the connection then
// sends what is queued, gives up its name and ends its thread. Callbacks run on the IPC thread,
// one at a time. Handles may outlive the connection.
class BusConnection : public ServiceIPC {
 public:
  using Seconds = std::chrono::duration<double>;

  struct StateReply {
    Outcome outcome = Outcome::Disconnected;  // Delivered when `state` is good
    std::uint32_t state = 0;                  // 0 also when nobody owns the name
    std::string error;                        // for a human; empty on success
  };

  // Connects to ZELT_BUS_ADDRESS, else to the system bus, and owns the name of `service`, or none
  // when it is empty. Throws std::runtime_error when there is no bus within 2 s, or the name is
  // malformed, taken or not permitted.
  static std::shared_ptr<BusConnection> Open(std::string_view service);

  // As ServiceModel has them.
  virtual AsyncCallbackHandle AddTimer(std::string_view name, UniqueFunction<void()> callback,
                                       Seconds interval, bool periodic) = 0;
  virtual void SetState(std::uint32_t state) = 0;
  virtual AsyncCallbackHandle WatchState(std::string_view service,
                                         UniqueFunction<void(std::uint32_t)> callback) = 0;

  // Never throws and never stays unanswered for longer than `timeout`, 24 h at most.
  virtual std::future<StateReply> QueryState(std::string_view service, Seconds timeout) = 0;

  // Every service and tool that owns its name, in alphabetical order.
  virtual std::vector<std::string> ListNames() = 0;

  // Calls `callback` once, when the bus is gone. It does not come back.
  virtual AsyncCallbackHandle WatchDisconnect(UniqueFunction<void()> callback) = 0;

  // Calls `callback` for every such signal of the process, which the caller has blocked before any
  // thread was started. Once in the life of a connection. Throws std::runtime_error when a signal
  // cannot be watched.
  virtual AsyncCallbackHandle WatchSignals(std::initializer_list<int> signals,
                                           UniqueFunction<void(int)> callback) = 0;

  // Waits until all that this thread has sent so far was handed to the connection, which writes it
  // at once as far as the bus reads. Takes as long as a callback holds the IPC thread up.
  virtual void Flush() = 0;
};

}  // namespace zelt
