#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace orka::codec {

using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<const std::uint8_t>;

// Appends big-endian values.
class ByteWriter {
 public:
  explicit ByteWriter(Bytes& out) : out_(out) {}

  template <std::unsigned_integral T>
  void Put(T value) {
    for (std::size_t shift = sizeof(T) * 8; shift > 0; shift -= 8) {
      out_.push_back(static_cast<std::uint8_t>(value >> (shift - 8)));
    }
  }
  void PutBytes(ByteView bytes) { out_.insert(out_.end(), bytes.begin(), bytes.end()); }

  // Writes a 16-bit length, then the bytes. False, and nothing is written, when they are too many.
  bool PutCounted(ByteView bytes) {
    if (bytes.size() > UINT16_MAX) {
      return false;
    }
    Put(static_cast<std::uint16_t>(bytes.size()));
    PutBytes(bytes);
    return true;
  }
  bool PutCounted(std::string_view text) {
    return PutCounted(ByteView(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
  }

 private:
  Bytes& out_;
};

// Takes big-endian values. Past the end everything reads as zero and Ok() is false.
class ByteReader {
 public:
  explicit ByteReader(ByteView bytes) : bytes_(bytes) {}

  template <std::unsigned_integral T>
  T Take() {
    T value = 0;
    for (const std::uint8_t byte : TakeBytes(sizeof(T))) {
      value = static_cast<T>((static_cast<std::uint64_t>(value) << 8U) | byte);
    }
    return value;
  }
  ByteView TakeBytes(std::size_t count) {
    if (count > bytes_.size()) {
      ok_ = false;
      bytes_ = {};
      return {};
    }
    const ByteView taken = bytes_.first(count);
    bytes_ = bytes_.subspan(count);
    return taken;
  }
  ByteView TakeCounted() { return TakeBytes(Take<std::uint16_t>()); }
  std::string TakeText() {
    const ByteView text = TakeCounted();
    return {text.begin(), text.end()};
  }
  ByteView TakeRest() { return TakeBytes(bytes_.size()); }

  bool Ok() const { return ok_; }
  bool AtEnd() const { return ok_ && bytes_.empty(); }

 private:
  ByteView bytes_;
  bool ok_ = true;
};

}  // namespace orka::codec
