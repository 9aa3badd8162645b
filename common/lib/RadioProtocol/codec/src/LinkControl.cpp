#include "orka/codec/LinkControl.h"

#include <algorithm>
#include <string_view>

namespace orka::codec {
namespace {

constexpr std::size_t kMaxText = 255;
constexpr std::uint8_t kFlagCamera = 1;
constexpr std::uint8_t kFlagTethered = 2;
constexpr std::uint8_t kFlagInService = 1;

Bytes Begin(LinkControl code) {
  Bytes out;
  ByteWriter(out).Put(static_cast<std::uint16_t>(code));
  return out;
}

void PutText(ByteWriter& writer, std::string_view text) {
  writer.PutCounted(text.substr(0, kMaxText));
}

}  // namespace

Bytes Encode(LinkControl code) {
  return Begin(code);
}

Bytes Encode(const Hello& hello) {
  Bytes out = Begin(LinkControl::Hello);
  ByteWriter writer(out);
  writer.Put(hello.protocol_version);
  const unsigned flags = (hello.identify_as_camera ? kFlagCamera : 0U) |
                         (hello.use_tethered_connection ? kFlagTethered : 0U);
  writer.Put(static_cast<std::uint8_t>(flags));
  PutText(writer, hello.version);
  PutText(writer, hello.product_id);
  return out;
}

Bytes Encode(const HelloAnswer& answer) {
  Bytes out = Begin(LinkControl::HelloAnswer);
  ByteWriter writer(out);
  writer.Put(answer.protocol_version);
  writer.Put(answer.in_service ? kFlagInService : std::uint8_t{0});
  writer.Put(answer.max_transfer_size);
  PutText(writer, answer.name);
  const std::size_t count = std::min<std::size_t>(answer.descriptors.size(), UINT8_MAX);
  writer.Put(static_cast<std::uint8_t>(count));
  for (std::size_t i = 0; i < count; ++i) {
    writer.Put(answer.descriptors[i].first);
    writer.Put(answer.descriptors[i].second);
  }
  return out;
}

std::optional<LinkControl> LinkControlCode(ByteView payload) {
  const auto number = ByteReader(payload).Take<std::uint16_t>();  // 0 when it is too short
  for (const LinkControl code : {LinkControl::Hello, LinkControl::HelloAnswer,
                                 LinkControl::KeepAlive, LinkControl::Goodbye}) {
    if (number == static_cast<std::uint16_t>(code)) {
      return code;
    }
  }
  return std::nullopt;
}

std::optional<Hello> DecodeHello(ByteView payload) {
  if (LinkControlCode(payload) != LinkControl::Hello) {
    return std::nullopt;
  }
  ByteReader reader(payload.subspan(sizeof(LinkControl)));
  Hello hello;
  hello.protocol_version = reader.Take<std::uint16_t>();
  if (reader.Ok() && hello.protocol_version != kProtocolVersion) {
    return hello;
  }
  const auto flags = reader.Take<std::uint8_t>();
  hello.identify_as_camera = (flags & kFlagCamera) != 0;
  hello.use_tethered_connection = (flags & kFlagTethered) != 0;
  hello.version = reader.TakeText();
  hello.product_id = reader.TakeText();
  return reader.Ok() ? std::optional(hello) : std::nullopt;
}

std::optional<HelloAnswer> DecodeHelloAnswer(ByteView payload) {
  if (LinkControlCode(payload) != LinkControl::HelloAnswer) {
    return std::nullopt;
  }
  ByteReader reader(payload.subspan(sizeof(LinkControl)));
  HelloAnswer answer;
  answer.protocol_version = reader.Take<std::uint16_t>();
  if (reader.Ok() && answer.protocol_version != kProtocolVersion) {
    return answer;
  }
  answer.in_service = (reader.Take<std::uint8_t>() & kFlagInService) != 0;
  answer.max_transfer_size = reader.Take<std::uint16_t>();
  answer.name = reader.TakeText();
  for (std::size_t left = reader.Take<std::uint8_t>(); left > 0 && reader.Ok(); --left) {
    const auto attribute = reader.Take<std::uint8_t>();
    const auto value = reader.Take<std::uint8_t>();
    answer.descriptors.emplace_back(attribute, value);
  }
  return reader.Ok() ? std::optional(answer) : std::nullopt;
}

}  // namespace orka::codec
