#pragma once

#include <cstdint>
#include <string>

namespace zelt::service_state {

// How far a service has come. It is published on the bus, so the numbers are part of the contract.
enum class State : std::uint32_t {
  NotRunning = 0,              // nobody owns the service's name; never reported by a service
  Stopped = 1,                 // has finished its work and is about to exit
  Starting = 2,                // the process is up
  WaitingForDependencies = 3,  // some service that it needs is not ready
  Initializing = 4,            // its own start-up work is running
  Ready = 5,                   // serves
  Stopping = 6,                // told to stop, finishing what is queued
  Failed = 7,                  // gave up; the reason is in its log
};

// "READY", "STOPPED", ...; a value outside the enumeration gives "UNKNOWN (n)".
std::string GetServiceStateString(State state);

}  // namespace zelt::service_state
