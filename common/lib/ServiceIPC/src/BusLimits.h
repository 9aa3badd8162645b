#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace zelt {

inline constexpr const char* kObjectPath = "/zelt/ServiceIPC";
inline constexpr const char* kInterface = "zelt.ServiceIPC1";
inline constexpr std::uint32_t kStateReady = 5;

inline constexpr std::size_t kMaxPayload = std::size_t{16} << 20U;
inline constexpr std::size_t kMaxTypeName = 255;
inline constexpr std::size_t kMaxSendsUnderWay = 1024;
inline constexpr std::chrono::seconds kDeliveryTime{1};
inline constexpr std::chrono::hours kLongestAnswerTime{24};

}  // namespace zelt
