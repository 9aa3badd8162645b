#pragma once

#include "orka/codec/Bytes.h"
#include "orka/codec/Frame.h"
#include "orka/qrx.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

// The payloads of link-control frames, and the times that both sides keep.
namespace orka::codec {

inline constexpr std::uint16_t kProtocolVersion = 1;

// The first 16 bits of a link-control payload.
enum class LinkControl : std::uint16_t {
  Hello = 1,        // camera to radio: begins a session, also in the middle of another
  HelloAnswer = 2,  // radio to camera
  KeepAlive = 3,    // both ways, no body
  Goodbye = 4,      // both ways, no body: the sender has no session, or leaves it now
};

inline constexpr std::chrono::milliseconds kKeepAliveAfter{800};       // nothing was sent
inline constexpr std::chrono::milliseconds kHelloRepeatedAfter{1000};  // while there is no answer

// Returns after how long without a good frame a side is lost: 2.5 s and what the longest frame
// takes on this line, since nothing else can come while it does. `byte_time` is that of one byte; 0
// where nobody knows, as on TCP.
constexpr std::chrono::nanoseconds LostAfter(std::chrono::nanoseconds byte_time) {
  return std::chrono::milliseconds(2500) +
         byte_time * static_cast<std::int64_t>(kMaxEncodedFrame + 1);
}

struct Hello {
  std::uint16_t protocol_version = kProtocolVersion;
  bool identify_as_camera = false;
  bool use_tethered_connection = false;
  std::string version;
  std::string product_id;

  friend bool operator==(const Hello&, const Hello&) = default;
};

struct HelloAnswer {
  std::uint16_t protocol_version = kProtocolVersion;
  bool in_service = false;
  std::uint16_t max_transfer_size = 0;
  std::string name;
  qrx::DeviceDescriptors descriptors;

  friend bool operator==(const HelloAnswer&, const HelloAnswer&) = default;
};

// Texts are cut to 255 bytes and descriptors to 255 pairs.
Bytes Encode(const Hello& hello);
Bytes Encode(const HelloAnswer& answer);
Bytes Encode(LinkControl code);  // one without a body

// Tells which one it is; nothing when the payload is too short, or has a number that is not named
// here, which may come from a newer peer and is to be ignored.
std::optional<LinkControl> LinkControlCode(ByteView payload);

// Return nothing when the payload is something else. Bytes after the last field are ignored: a
// newer peer may say more. Of a peer of another protocol version, only that version is read.
std::optional<Hello> DecodeHello(ByteView payload);
std::optional<HelloAnswer> DecodeHelloAnswer(ByteView payload);

}  // namespace orka::codec
