#include "orka/codec/Frame.h"

#include <zlib.h>

#include <algorithm>
#include <optional>

namespace orka::codec {
namespace {

std::uint32_t Checksum(ByteView bytes) {
  return static_cast<std::uint32_t>(
      crc32(crc32(0, nullptr, 0), bytes.data(), static_cast<uInt>(bytes.size())));
}

void AppendCobs(ByteView frame, Bytes& out) {
  std::size_t code_at = out.size();
  out.push_back(1);
  for (const std::uint8_t byte : frame) {
    if (out[code_at] == 0xFF) {
      code_at = out.size();
      out.push_back(1);
    }
    if (byte == 0) {
      code_at = out.size();
      out.push_back(1);
    } else {
      out.push_back(byte);
      ++out[code_at];
    }
  }
}

// Decodes in place. Nothing when a group reaches past the end.
std::optional<ByteView> DecodeCobs(Bytes& encoded) {
  std::size_t read = 0;
  std::size_t written = 0;
  while (read < encoded.size()) {
    const std::size_t group = encoded[read] - 1U;
    ++read;
    if (group > encoded.size() - read) {
      return std::nullopt;
    }
    std::copy_n(encoded.begin() + static_cast<std::ptrdiff_t>(read), group,
                encoded.begin() + static_cast<std::ptrdiff_t>(written));
    read += group;
    written += group;
    if (group != 0xFE && read < encoded.size()) {
      encoded[written++] = 0;
    }
  }
  return ByteView(encoded).first(written);
}

}  // namespace

void AppendFrame(const pel::BaseMessage& header, ByteView payload, Bytes& out) {
  Bytes frame;
  frame.reserve(kHeaderSize + payload.size() + kChecksumSize);
  ByteWriter writer(frame);
  writer.Put(header.address);
  writer.Put(header.kind);
  writer.Put(header.flags);
  writer.Put(header.source);
  writer.Put(header.destination);
  writer.Put(header.transaction);
  writer.Put(static_cast<std::uint16_t>(payload.size()));
  writer.PutBytes(payload);
  writer.Put(Checksum(frame));
  out.reserve(out.size() + frame.size() + frame.size() / 254 + 2);
  AppendCobs(frame, out);
  out.push_back(0);
}

std::string_view ToString(Drop drop) {
  switch (drop) {
    case Drop::Checksum:
      return "wrong checksum";
    case Drop::Malformed:
      return "malformed";
    case Drop::TooLong:
      return "too long";
  }
  return "unknown";
}

void Deframer::Feed(ByteView bytes) {
  while (!bytes.empty()) {
    const auto delimiter = std::ranges::find(bytes, 0);
    const auto count = static_cast<std::size_t>(delimiter - bytes.begin());
    if (discarded_ > 0 || count > kMaxEncodedFrame - collected_.size()) {
      discarded_ += collected_.size() + count;
      collected_.clear();
    } else {
      collected_.insert(collected_.end(), bytes.begin(), delimiter);
    }
    if (delimiter == bytes.end()) {
      return;
    }
    bytes = bytes.subspan(count + 1);
    const bool go_on = Finish();
    collected_.clear();
    discarded_ = 0;
    if (!go_on) {
      return;
    }
  }
}

bool Deframer::Finish() {
  if (discarded_ > 0) {
    on_drop_(Drop::TooLong, discarded_);
    return true;
  }
  if (collected_.empty()) {
    return true;  // delimiters in a row
  }
  const std::size_t bytes = collected_.size();
  const auto frame = DecodeCobs(collected_);
  if (!frame || frame->size() < kHeaderSize + kChecksumSize) {
    on_drop_(Drop::Malformed, bytes);
    return true;
  }
  const ByteView checked = frame->first(frame->size() - kChecksumSize);
  if (ByteReader(frame->last(kChecksumSize)).Take<std::uint32_t>() != Checksum(checked)) {
    on_drop_(Drop::Checksum, bytes);
    return true;
  }
  ByteReader reader(checked);
  pel::BaseMessage header;
  header.address = reader.Take<std::uint16_t>();
  header.kind = reader.Take<std::uint8_t>();
  header.flags = reader.Take<std::uint8_t>();
  header.source = reader.Take<std::uint16_t>();
  header.destination = reader.Take<std::uint16_t>();
  header.transaction = reader.Take<std::uint16_t>();
  header.length = reader.Take<std::uint16_t>();
  const ByteView payload = reader.TakeRest();
  if (header.length != payload.size()) {
    on_drop_(Drop::Malformed, bytes);
    return true;
  }
  return on_frame_(header, payload);
}

}  // namespace orka::codec
