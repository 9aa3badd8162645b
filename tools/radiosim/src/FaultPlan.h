#pragma once

#include "orka/qrx.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <expected>
#include <list>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace radiosim {

enum class FaultKind : std::uint8_t {
  Drop,
  Duplicate,
  Delay,
  Reorder,           // sent after the next frame
  Corrupt,           // one bit is wrong
  Truncate,          // the end is missing
  HalfFrame,         // the beginning is sent, then nothing more
  WrongTransaction,  // of a response
  WrongChunk,        // number in a TransferDataResponse
  WrongName,         // in a FileAccessResponse
  WrongSize,         // in a FileAccessResponse
  RefuseAccess,
  RefuseChunk,
  Reboot,
  Silent,       // nothing is sent until the camera connects anew
  NoHandshake,  // the hello is not answered
};

// What is done wrong, to which frames, and how often.
struct FaultRule {
  FaultKind kind = FaultKind::Drop;
  bool incoming = false;  // frames of the camera; else those of the radio
  std::string message;    // a name of the message table or of a link-control frame; empty: every
                          // message, no link control
  std::optional<std::uint16_t> chunk;  // only frames of this chunk
  std::uint32_t after = 0;             // leaves so many matching frames alone first
  std::uint32_t count = 0;             // times; 0: without end
  double probability = 1;
  std::chrono::milliseconds delay{500};
  std::uint8_t result = 1;  // of a refusal

  std::uint64_t matched = 0;
  std::uint64_t fired = 0;
};

// The faults that a radio is to show. The same plan and seed on the same traffic do the same.
// A rule is written in words:  KIND [message=NAME] [direction=in|out] [chunk=N] [after=N]
// [count=N] [probability=P] [delay_ms=N] [result=N]
class FaultPlan {
 public:
  explicit FaultPlan(std::uint64_t seed = 1) : random_(seed) {}

  void Seed(std::uint64_t seed) { random_.seed(seed); }

  // Adds a rule, or tells which word makes no sense.
  std::expected<void, std::string> Add(std::string_view words);

  // Reads a TOML file: `seed`, `bits_per_second`, and one [[fault]] table a rule, with `kind` and
  // the keys above. Tells file, line and what was wrong.
  std::expected<void, std::string> Load(const std::string& path);

  void Clear() { rules_.clear(); }

  // The speed of the line; 0: as fast as it goes.
  std::uint32_t BitsPerSecond() const { return bits_per_second_; }
  void SetBitsPerSecond(std::uint32_t speed) { bits_per_second_ = speed; }

  // Returns the rules that fire for this frame, in the order of the plan; each is counted. Refusals
  // are not among them.
  std::vector<const FaultRule*> Fire(bool incoming, std::string_view message, bool is_response,
                                     bool is_link_control, std::optional<std::uint16_t> chunk);

  // To be asked before the radio does what would be answered by `message`: the result with which it
  // refuses, or nothing.
  std::optional<orka::qrx::Result> Refuse(std::string_view message,
                                          std::optional<std::uint16_t> chunk);

  // Draws a number below `limit` from the plan's own generator.
  std::size_t Random(std::size_t limit);

  // Tells in one line a rule how often it matched and fired.
  std::string Report() const;

 private:
  bool Fires(FaultRule& rule);

  std::list<FaultRule> rules_;
  std::uint32_t bits_per_second_ = 0;
  std::mt19937_64 random_;
};

}  // namespace radiosim
