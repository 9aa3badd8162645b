#pragma once

#include "orka/RadioProtocol.h"
#include "orka/codec/Frame.h"

#include <algorithm>
#include <chrono>
#include <cstddef>

// The bounds of a link beside those of its framing and keep-alive. docs/radio-link.md lists them.
namespace orka {

// Returns what a frame counts while it waits for the line: its payload, which begins with the
// opcode, and header, checksum, first code byte and delimiter. What stuffing adds to long ones does
// not count.
constexpr std::size_t FrameCost(std::size_t payload) {
  return codec::kHeaderSize + payload + codec::kChecksumSize + 2;
}

// The largest message as its sender counts it: without the opcode, with the overhead.
inline constexpr std::size_t kLargestMessage =
    codec::kMaxPayload - 2 + RadioProtocol::kSendOverhead;
static_assert(FrameCost(2) <= RadioProtocol::kSendOverhead);

// Returns how much may wait for the line and be offered as room: about a second of a serial line,
// and always the largest message. A byte takes no known time on TCP.
constexpr std::size_t SendRoom(std::chrono::nanoseconds byte_time) {
  constexpr std::size_t kTcp = 256UL * 1024;
  return byte_time.count() == 0
             ? kTcp
             : std::max(kLargestMessage,
                        static_cast<std::size_t>(std::chrono::seconds(1) / byte_time));
}

// What may wait beyond it. Nobody is told of it, so that it stays for what is sent unasked: the
// next chunk of a file, and the answer to a request that nobody took.
inline constexpr std::size_t kSendReserve = 2 * kLargestMessage;

// Returns after how long without taking one byte a line is stuck, and its radio lost. A line is
// also stuck when a frame takes it so much longer than the frame's own time. A serial driver takes
// nothing until most of its buffer, a page, has gone out.
constexpr std::chrono::nanoseconds StuckAfter(std::chrono::nanoseconds byte_time) {
  return std::chrono::seconds(10) + 4096 * byte_time;
}

// File requests of the radio whose numbers are known in a session, the newest ones.
inline constexpr std::size_t kFileRequestsKnown = 1024;

// How long an injected request waits for its response, and how many are known after that, so that a
// late response is not taken for another's.
inline constexpr std::chrono::seconds kInjectionTimeout{2};
inline constexpr std::size_t kInjectionsKnown = 64;

// How long a serial line may take to send what was written when it is closed.
inline constexpr std::chrono::milliseconds kDrainTimeout{100};

}  // namespace orka
