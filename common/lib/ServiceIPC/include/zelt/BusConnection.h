#pragma once

#include "zelt/AsyncCallbackHandle.h"
#include "zelt/ServiceIPC.h"
#include "zelt/UniqueFunction.h"

#include <chrono>
#include <cstdint>
#include <future>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace zelt {

// The connection of one process to the bus, with the IPC thread that serves it: what ServiceModel
// is made of. Services and tools use ServiceModel instead.
//
// Any thread may call any operation, and may let go of the last reference. That ends it, within a
// second unless a callback holds the IPC thread up: what was accepted is handed over and
// acknowledgements are read for 0.5 s at most, then the name is given up and the thread ends.
// Callbacks run on the IPC thread, one at a time. Handles may outlive the connection.
class BusConnection : public ServiceIPC {
 public:
  using Seconds = std::chrono::duration<double>;

  struct StateReply {
    Outcome outcome = Outcome::Disconnected;  // Delivered when `state` is good
    std::uint32_t state = 0;                  // 0 also when nobody owns the name
    std::string error;                        // for a human; empty on success
  };

  // What this connection has sent since it was opened, responses and requests included. Of what was
  // accepted, each message is counted once more when its end is known.
  struct Counters {
    std::uint64_t accepted = 0;
    std::uint64_t published = 0;
    std::uint64_t refused = 0;  // at once, publications included
    std::uint64_t delivered = 0;
    std::uint64_t not_taken = 0;
    std::uint64_t busy = 0;
    std::uint64_t no_such_service = 0;  // it left before it got the message
    std::uint64_t not_permitted = 0;
    std::uint64_t timed_out = 0;     // the receiver was given up
    std::uint64_t disconnected = 0;  // this connection ended first
    std::uint64_t invalid = 0;
  };

  // Connects to ZELT_BUS_ADDRESS, else to DBUS_SYSTEM_BUS_ADDRESS, else to the system bus, and owns
  // the name of `service` (or of a tool, "zeltcli-" and digits), or none when it is empty. Throws
  // std::runtime_error when the bus does not answer within 2 s, or the name is malformed, taken or
  // not permitted. Where nobody listens, a service waits for that time and everybody else is told
  // at once.
  static std::shared_ptr<BusConnection> Open(std::string_view service);

  // As ServiceModel has them.
  virtual AsyncCallbackHandle AddTimer(std::string_view name, UniqueFunction<void()> callback,
                                       Seconds interval, bool periodic) = 0;
  virtual void SetState(std::uint32_t state) = 0;
  virtual AsyncCallbackHandle WatchState(std::string_view service,
                                         UniqueFunction<void(std::uint32_t)> callback) = 0;

  // Asks for the state of a service. Never throws and never stays unanswered for longer than
  // `timeout`, 24 h at most. On the IPC thread, only the own state can be asked for; anything else
  // is Invalid at once.
  virtual std::future<StateReply> QueryState(std::string_view service, Seconds timeout) = 0;

  // Every service and tool that owns its name, in alphabetical order.
  virtual std::vector<std::string> ListNames() = 0;

  // Calls `callback` once, when the bus is gone. It does not come back.
  virtual AsyncCallbackHandle WatchDisconnect(UniqueFunction<void()> callback) = 0;

  // Waits until everything that was accepted so far has been handed over and acknowledged, those
  // who were given up left aside, for 0.5 s at most. Returns at once on the IPC thread.
  virtual void Flush() = 0;

  virtual Counters GetCounters() const = 0;
};

}  // namespace zelt
