#include "zelt/ServiceState.h"

#include <array>

namespace zelt::service_state {

std::string GetServiceStateString(State state) {
  static constexpr std::array kNames = {
      "NOT_RUNNING",  "STOPPED", "STARTING", "WAITING_FOR_DEPENDENCIES",
      "INITIALIZING", "READY",   "STOPPING", "FAILED",
  };
  static_assert(kNames.size() == static_cast<std::size_t>(State::Failed) + 1);
  const auto number = static_cast<std::uint32_t>(state);
  if (number < kNames.size()) {
    return kNames[number];
  }
  return "UNKNOWN (" + std::to_string(number) + ")";
}

}  // namespace zelt::service_state
