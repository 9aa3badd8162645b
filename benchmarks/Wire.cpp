#include "Wire.h"

#include <cstring>
#include <stdexcept>

namespace bench {
namespace {

// Header, opcode, and a relayed message as far as its mark.
constexpr std::size_t kBeginning = 32;

class LinkWire : public Wire {
 public:
  std::size_t Read(View in, Incoming& message, Bytes& /*out*/) override {
    const std::size_t end = in.find('\0');
    if (end == View::npos) {
      return 0;
    }
    const View encoded = in.substr(0, end);
    message = {};
    if (encoded.empty()) {
      message.header.kind = FrameKind::LinkControl;  // delimiters in a row say nothing
      return 1;
    }
    DecodeBeginning(encoded, kBeginning, frame_);
    const bool relayed = frame_.size() >= kBeginning &&
                         Get16(frame_, kHeaderSize) == opcode::kRelayedUp &&
                         ++relayed_ % kRing != 0;
    if (!relayed && !DecodeFrame(encoded, frame_)) {
      throw std::runtime_error("a frame is damaged");
    }
    message.header = {static_cast<FrameKind>(frame_[2]),
                      static_cast<std::uint16_t>(Get16(frame_, 8))};
    message.opcode = static_cast<std::uint16_t>(Get16(frame_, kHeaderSize));
    message.body = View(frame_).substr(kHeaderSize + 2);
    message.size = Get16(frame_, 10) - 2;
    return end + 1;
  }

  void Append(Header header, std::uint16_t opcode, View body, unsigned /*number*/,
              Bytes& out) override {
    payload_.clear();
    Put16(payload_, opcode);
    payload_ += body;
    AppendFrame(header, payload_, out);
  }

 private:
  Bytes frame_;
  Bytes payload_;
  unsigned relayed_ = 0;
};

class RawWire : public Wire {
 public:
  std::size_t Read(View in, Incoming& message, Bytes& /*out*/) override {
    if (in.size() < kRawHeader) {
      return 0;
    }
    const std::size_t size = Get32(in, 0);
    if (in.size() - kRawHeader < size) {
      return 0;
    }
    message = {{FrameKind::Broadcast, 0}, opcode::kRelayedUp, in.substr(kRawHeader, size), size};
    return kRawHeader + size;
  }

  void Append(Header /*header*/, std::uint16_t opcode, View body, unsigned /*number*/,
              Bytes& out) override {
    const auto size = static_cast<std::uint32_t>(body.size());
    Put32(out, opcode == opcode::kPublished ? size | kRawPublish : size);
    out += body;
  }
};

// Types of MQTT packets, with the flags that they have here.
constexpr unsigned kConnect = 0x10;
constexpr unsigned kPublish = 0x32;  // QoS 1
constexpr unsigned kPubAck = 0x40;
constexpr unsigned kSubscribe = 0x82;

void AppendPacket(unsigned type, std::size_t size, Bytes& out) {
  out += static_cast<char>(type);
  AppendVarint(out, size);
}

void AppendCounted(View text, Bytes& out) {
  Put16(out, static_cast<unsigned>(text.size()));
  out += text;
}

}  // namespace

std::unique_ptr<Wire> MakeLinkWire() {
  return std::make_unique<LinkWire>();
}

std::unique_ptr<Wire> MakeRawWire() {
  return std::make_unique<RawWire>();
}

Bytes MqttWire::Connect(View name, View subscription) {
  Bytes out;
  AppendPacket(kConnect, 12 + name.size(), out);
  AppendCounted("MQTT", out);
  out += View("\x04\x02\x00\x00", 4);  // version 3.1.1, clean session, no keep-alive
  AppendCounted(name, out);
  AppendPacket(kSubscribe, 5 + subscription.size(), out);
  Put16(out, 1);
  AppendCounted(subscription, out);
  out += '\x01';  // QoS 1
  return out;
}

std::size_t MqttWire::Read(View in, Incoming& message, Bytes& out) {
  std::size_t size = 0;
  std::size_t at = 1;
  for (unsigned shift = 0;; shift += 7) {
    if (at >= in.size()) {
      return 0;
    }
    const auto byte = static_cast<unsigned char>(in[at++]);
    size |= static_cast<std::size_t>(byte & 127U) << shift;
    if (byte < 128) {
      break;
    }
  }
  if (in.size() - at < size) {
    return 0;
  }
  const View packet = in.substr(at, size);
  message = {};
  message.header.kind = FrameKind::LinkControl;  // acknowledgements
  if ((static_cast<unsigned char>(in.front()) & 0xF0U) == (kPublish & 0xF0U)) {
    const std::size_t topic = Get16(packet, 0);
    AppendPacket(kPubAck, 2, out);
    out += packet.substr(2 + topic, 2);
    message = {{FrameKind::Broadcast, 0}, opcode::kRelayedUp, packet.substr(4 + topic), 0};
    message.size = message.body.size();
  }
  return at + size;
}

void MqttWire::Append(Header /*header*/, std::uint16_t /*opcode*/, View body, unsigned number,
                      Bytes& out) {
  AppendPacket(kPublish, 4 + topic_.size() + body.size(), out);
  AppendCounted(topic_, out);
  Put16(out, number % kRing + 1);
  out += body;
}

}  // namespace bench
