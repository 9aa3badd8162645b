#pragma once

#include <cstdint>

namespace orka::pel {

// The header of every link frame, in wire order; big-endian on the wire.
struct BaseMessage {
  std::uint16_t address = 0;      // the link's address, start's second argument
  std::uint8_t kind = 0;          // FrameKind
  std::uint8_t flags = 0;         // reserved, 0
  std::uint16_t source = 0;       // part of the sender
  std::uint16_t destination = 0;  // part of the receiver: the send selector
  std::uint16_t transaction = 0;  // a response carries that of its request
  std::uint16_t length = 0;       // bytes after the header

  friend bool operator==(const BaseMessage&, const BaseMessage&) = default;
};

enum class FrameKind : std::uint8_t {
  Request = 0,
  Response = 1,
  Broadcast = 2,
  LinkControl = 3,  // handshake and keep-alive
};

}  // namespace orka::pel
