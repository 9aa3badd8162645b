#pragma once

#include "Frame.h"
#include "Load.h"

#include <cstddef>
#include <cstdint>
#include <memory>

// What the radio speaks with the system that is measured.
namespace bench {

namespace opcode {
inline constexpr std::uint16_t kRelayedUp = 0xB4A2;
inline constexpr std::uint16_t kRelayedDown = 0xB4A3;
inline constexpr std::uint16_t kPublished = 0xB48A;
inline constexpr std::uint16_t kFileAccess = 0x048D;
inline constexpr std::uint16_t kTransferData = 0x048E;
inline constexpr std::uint16_t kFileHandleOpen = 0x049E;
inline constexpr std::uint16_t kResponse = 0x8000;
}  // namespace opcode

struct Incoming {
  Header header;
  std::uint16_t opcode = 0;  // or the number of a link-control frame
  View body;                 // lives until the next call
  std::size_t size = 0;      // of the whole body: of a relayed message the end may be missing
};

class Wire {
 public:
  virtual ~Wire() = default;
  // Reads the first whole message of `in` and returns how many bytes it took; 0 when none is
  // there. `out` gets what has to be answered at once. Throws when it makes no sense.
  virtual std::size_t Read(View in, Incoming& message, Bytes& out) = 0;
  // `number` tells messages under way apart where the wire needs that.
  virtual void Append(Header header, std::uint16_t opcode, View body, unsigned number,
                      Bytes& out) = 0;
};

// The radio link. Of relayed messages every 64th is checked as a whole, so that the radio costs
// little beside what is measured.
std::unique_ptr<Wire> MakeLinkWire();

// The bare bridge's: a length, and whether the message is to be published.
inline constexpr std::size_t kRawHeader = 4;
inline constexpr std::uint32_t kRawPublish = 1U << 31U;
std::unique_ptr<Wire> MakeRawWire();

// MQTT 3.1.1 with QoS 1, as one end that publishes under one topic and reads another.
class MqttWire : public Wire {
 public:
  explicit MqttWire(Bytes topic) : topic_(std::move(topic)) {}
  static Bytes Connect(View name, View subscription);
  std::size_t Read(View in, Incoming& message, Bytes& out) override;
  void Append(Header header, std::uint16_t opcode, View body, unsigned number, Bytes& out) override;

 private:
  Bytes topic_;
};

}  // namespace bench
