#pragma once

#include "orka/codec/Bytes.h"
#include "orka/pel.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>

// How a frame lies on the line, on TCP and on the serial port alike:
//
//   COBS( header, 12 bytes | payload | CRC-32 of header and payload, 4 bytes ) 0x00
//
// All numbers are big-endian. The payload of all but link control begins with a 16-bit opcode.
namespace orka::codec {

inline constexpr std::size_t kHeaderSize = 12;
inline constexpr std::size_t kChecksumSize = 4;
inline constexpr std::size_t kMaxPayload = UINT16_MAX;
inline constexpr std::size_t kMaxFrame = kHeaderSize + kMaxPayload + kChecksumSize;
// One code byte before each 254 bytes, and one at the start. The delimiter is not counted.
inline constexpr std::size_t kMaxEncodedFrame = kMaxFrame + kMaxFrame / 254 + 1;

// Appends a whole frame, delimiter included. `header.length` is ignored: the true one is written.
// `payload` must not be longer than kMaxPayload.
void AppendFrame(const pel::BaseMessage& header, ByteView payload, Bytes& out);

enum class Drop : std::uint8_t { Checksum, Malformed, TooLong };
std::string_view ToString(Drop drop);

// Finds the frames in what comes from the line. It keeps at most kMaxEncodedFrame bytes, whatever
// comes, and begins anew after each zero byte. Not for several threads.
class Deframer {
 public:
  // The payload lives until the call returns. Returning false stops: the rest is thrown away.
  using OnFrame = std::function<bool(const pel::BaseMessage& header, ByteView payload)>;
  using OnDrop = std::function<void(Drop drop, std::size_t bytes)>;

  Deframer(OnFrame on_frame, OnDrop on_drop)
      : on_frame_(std::move(on_frame)), on_drop_(std::move(on_drop)) {}

  // Both callbacks are called from here only.
  void Feed(ByteView bytes);

 private:
  bool Finish();  // at a delimiter; false when on_frame_ wants to stop

  OnFrame on_frame_;
  OnDrop on_drop_;
  Bytes collected_;            // encoded bytes since the last delimiter
  std::size_t discarded_ = 0;  // bytes of a frame that is too long
};

}  // namespace orka::codec
