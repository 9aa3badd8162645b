#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace zelt {

// Names and numbers of the bus contract. docs/ipc.md has all of them.

inline constexpr const char* kObjectPath = "/zelt/ServiceIPC";
inline constexpr const char* kInterface = "zelt.ServiceIPC1";
inline constexpr const char* kBusyError = "zelt.Error.Busy";
inline constexpr std::uint32_t kStateReady = 5;

inline constexpr std::size_t kMaxPayload = std::size_t{16} << 20U;
inline constexpr std::size_t kMaxTypeName = 255;

// What was accepted for one receiver, or for all subscribers, and is not acknowledged or written.
inline constexpr std::size_t kMaxMailboxBytes = std::size_t{8} << 20U;
inline constexpr std::size_t kMaxMailboxMessages = 1024;
inline constexpr std::size_t kMaxBytesInAll = std::size_t{64} << 20U;
inline constexpr std::size_t kMaxNameless = 16;  // receivers without a name

// The bus counts a call until it is answered or the receiver dies, and refuses all calls of a
// connection that has too many of these: 128 on a system bus. What is left below that is for
// matches and look-ups.
inline constexpr std::size_t kMaxCalls = 96;
inline constexpr std::size_t kMaxCallsOfOne = 16;
inline constexpr std::size_t kMaxCallsOfNameless = 2;
inline constexpr std::size_t kScarceCalls = 32;  // when no more are left, each receiver has one

inline constexpr std::chrono::seconds kGiveUpTime{5};    // without an acknowledgement
inline constexpr std::chrono::seconds kDeliveryTime{1};  // of a request
inline constexpr std::chrono::hours kLongestAnswerTime{24};
inline constexpr std::size_t kMaxRequests = 1024;

// At the end of a connection.
inline constexpr std::chrono::milliseconds kDrainTime{500};
inline constexpr std::chrono::milliseconds kReleaseTime{250};

// Of the lines that others can provoke, so many are written in this time about one subject.
inline constexpr std::size_t kMaxLines = 5;
inline constexpr std::chrono::seconds kLineTime{1};
inline constexpr std::size_t kMaxSubjects = 16;

}  // namespace zelt
