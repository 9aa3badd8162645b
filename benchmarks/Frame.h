#pragma once

#include "Load.h"

#include <cstddef>
#include <cstdint>
#include <optional>

// Frames of the radio link, made and read as fast as plain code does it: COBS over runs, one
// checksum, one buffer. Its own, so that what is measured is not what measures. The layout stands
// in docs/radio-link.md.
namespace bench {

enum class FrameKind : std::uint8_t { Request, Response, Broadcast, LinkControl };

struct Header {
  FrameKind kind = FrameKind::Request;
  std::uint16_t transaction = 0;
};

inline constexpr std::size_t kHeaderSize = 12;

// Big-endian.
void Put16(Bytes& out, unsigned value);
void Put32(Bytes& out, std::uint32_t value);
unsigned Get16(View bytes, std::size_t at);
std::uint32_t Get32(View bytes, std::size_t at);

// Appends a whole frame. `payload` begins with opcode or number.
void AppendFrame(Header header, View payload, Bytes& out);

// The first bytes of a frame's header and payload, as many as `out` may have; not checked.
void DecodeBeginning(View encoded, std::size_t count, Bytes& out);

// Header and payload of a frame without its delimiter. False when anything is wrong with it.
bool DecodeFrame(View encoded, Bytes& out);

}  // namespace bench
