#pragma once

#include <atomic>
#include <cstdint>

namespace orka {

inline constexpr std::uint32_t kRadioLogCategory = 0x8030;

// What LinkCounters is read from.
struct AtomicCounters {
  std::atomic<std::uint64_t> frames_sent{0};
  std::atomic<std::uint64_t> bytes_sent{0};
  std::atomic<std::uint64_t> frames_received{0};
  std::atomic<std::uint64_t> bytes_received{0};
  std::atomic<std::uint64_t> dropped_checksum{0};
  std::atomic<std::uint64_t> dropped_malformed{0};
  std::atomic<std::uint64_t> dropped_too_long{0};
  std::atomic<std::uint64_t> dropped_unknown_opcode{0};
  std::atomic<std::uint64_t> sends_refused{0};
};

}  // namespace orka
