#pragma once

#include <cstdint>

namespace zelt {

inline constexpr std::uint32_t kDeviceLogCategory = 0x8007;

}  // namespace zelt
