#pragma once

#include <cstdint>

namespace zelt {

inline constexpr std::uint32_t kIpcLogCategory = 0x8015;

}  // namespace zelt
