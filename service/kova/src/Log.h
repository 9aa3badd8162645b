#pragma once

#include "zelt/LogClient.h"

#include <cstdint>

namespace zelt {

// The platform's log categories that this service uses.
inline constexpr std::uint32_t kConfigurationLog = 0x8007;
inline constexpr std::uint32_t kContextLog = 0x800A;
inline constexpr std::uint32_t kConfigReaderLog = 0x8010;
inline constexpr std::uint32_t kIpcLog = 0x8016;
inline constexpr std::uint32_t kServiceLog = 0x8027;

}  // namespace zelt

// One line of the context or a handler, under the name of the function that it stands in.
#define KOVA_LOG(level) ZELT_LOG(level, ::zelt::kContextLog)
