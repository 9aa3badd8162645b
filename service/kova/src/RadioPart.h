#pragma once

#include <cstdint>

namespace zelt {

// The parts of the radio that a message can be addressed to. The numbers are the radio's; some
// messages carry one of their own, which may be any.
enum class RadioPart : std::uint32_t {
  Itself = 0,
  Situation = 1,  // emergencies, video tags, date and time, location
  Networks = 2,   // WLAN, hotspot, LTE and the cloud behind them
};

}  // namespace zelt
