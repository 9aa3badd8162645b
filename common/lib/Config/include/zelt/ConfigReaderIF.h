#pragma once

#include "zelt/OfficerList.h"
#include "zelt/SharedMemory.h"

#include <array>
#include <cstdint>
#include <string>
#include <type_traits>

namespace zelt {

// When the camera may send through the radio instead of its own network.
enum class TetheredMode : std::uint8_t {
  Automatic = 0,
  Never = 1,
  Always = 2,
};

// The configuration of the camera, as the Config service keeps it in shared memory. Its layout is
// held by the block's (ConfigBlock.h): no padding, so that a new member cannot come unnoticed.
struct ConfigRecord {
  std::array<char, 33> workingMode;  // NUL-terminated, at most 32 characters, e.g. "Connected"
  std::array<std::uint8_t, 3> reserved;
  OfficerList officers;
  TetheredMode tetheredStreaming;
  TetheredMode tetheredUploading;
  std::array<std::uint8_t, 2> reservedAtEnd;
};
static_assert(std::is_trivially_copyable_v<ConfigRecord>);

struct ConfigResult {
  SharedMemoryReadPointer<ConfigRecord> record;
  int error = 0;          // 0 success, else an errno value
  std::string errorText;  // empty on success
};

// Gives access to the configuration record. Made by InterfaceFactory under "ConfigReaderIF".
class ConfigReaderIF {
 public:
  virtual ~ConfigReaderIF() = default;

  // The configuration as it is now. What is published later shows in the next call's result, not in
  // this one, so that values read one after the other belong together. Never throws for a
  // configuration that is missing or not yet published: see ConfigResult. The record stays readable
  // for as long as a copy of the pointer lives. Any thread.
  virtual ConfigResult Get() = 0;
};

}  // namespace zelt
