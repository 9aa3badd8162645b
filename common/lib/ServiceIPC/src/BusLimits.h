#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace zelt {

inline constexpr const char* kObjectPath = "/zelt/ServiceIPC";
inline constexpr const char* kInterface = "zelt.ServiceIPC1";
inline constexpr const char* kBusItself = "org.freedesktop.DBus";
inline constexpr std::uint32_t kStateReady = 5;

inline constexpr std::size_t kMaxPayload = std::size_t{16} << 20U;
inline constexpr std::size_t kMaxTypeName = 255;
inline constexpr std::size_t kMaxSendsUnderWay = 1024;
inline constexpr std::size_t kMaxBytesUnderWay = std::size_t{64} << 20U;

// What waits in this process because the bus does not read.
inline constexpr std::size_t kMaxQueuedMessages = 1024;
inline constexpr std::size_t kMaxQueuedBytes = std::size_t{64} << 20U;

// The bus counts a call until it is answered, however long ago the caller gave it up, and refuses
// all calls of a connection that has too many of these: 128 on the system bus. So that a peer that
// hangs does not use them up, one receiver gets only so many.
inline constexpr std::size_t kMaxUnanswered = 64;  // messages that one receiver has not answered
inline constexpr std::size_t kMaxTimedOut = 4;     // of these, timed out since its last answer

// Of the lines that peers can provoke, those written in one second.
inline constexpr std::size_t kMaxComplaints = 10;
inline constexpr std::chrono::seconds kComplaintTime{1};

inline constexpr std::chrono::seconds kDeliveryTime{1};
inline constexpr std::chrono::hours kLongestAnswerTime{24};

}  // namespace zelt
