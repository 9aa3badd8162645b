#include "Frame.h"

#include <zlib.h>

#include <algorithm>
#include <cstring>

namespace bench {
namespace {

constexpr std::size_t kLongestGroup = 254;

std::uint32_t Checksum(View bytes) {
  return static_cast<std::uint32_t>(
      crc32(0, reinterpret_cast<const Bytef*>(bytes.data()), static_cast<uInt>(bytes.size())));
}

// One group after the other: find its end, copy it whole.
char* EncodeCobs(View in, char* out) {
  while (true) {
    const std::size_t most = std::min(in.size(), kLongestGroup);
    const auto* zero = static_cast<const char*>(std::memchr(in.data(), 0, most));
    const std::size_t length = zero != nullptr ? static_cast<std::size_t>(zero - in.data()) : most;
    *out++ = static_cast<char>(length + 1);
    std::memcpy(out, in.data(), length);
    out += length;
    in.remove_prefix(length);
    if (zero != nullptr) {
      in.remove_prefix(1);
    } else if (in.empty()) {
      return out;
    }
  }
}

// At most `most` decoded bytes and one group more; nullptr when a group reaches past the end.
char* DecodeCobs(View in, char* out, std::size_t most) {
  const char* const enough = out + most;
  while (!in.empty() && out < enough) {
    const std::size_t length = static_cast<unsigned char>(in.front()) - 1U;
    in.remove_prefix(1);
    if (length > in.size()) {
      return nullptr;
    }
    std::memcpy(out, in.data(), length);
    out += length;
    in.remove_prefix(length);
    if (length != kLongestGroup && !in.empty()) {
      *out++ = 0;
    }
  }
  return out;
}

}  // namespace

void Put16(Bytes& out, unsigned value) {
  out += static_cast<char>(value >> 8U);
  out += static_cast<char>(value);
}

void Put32(Bytes& out, std::uint32_t value) {
  Put16(out, value >> 16U);
  Put16(out, value & 0xFFFFU);
}

unsigned Get16(View bytes, std::size_t at) {
  return static_cast<unsigned char>(bytes.at(at)) * 256U +
         static_cast<unsigned char>(bytes.at(at + 1));
}

std::uint32_t Get32(View bytes, std::size_t at) {
  return Get16(bytes, at) << 16U | Get16(bytes, at + 2);
}

void AppendFrame(Header header, View payload, Bytes& out) {
  static Bytes plain;  // one thread
  plain.assign(kHeaderSize, '\0');
  plain[2] = static_cast<char>(header.kind);
  plain[8] = static_cast<char>(header.transaction >> 8U);
  plain[9] = static_cast<char>(header.transaction);
  plain[10] = static_cast<char>(payload.size() >> 8U);
  plain[11] = static_cast<char>(payload.size());
  plain += payload;
  Put32(plain, Checksum(plain));
  const std::size_t begin = out.size();
  out.resize_and_overwrite(begin + plain.size() + plain.size() / kLongestGroup + 2,
                           [begin](char* bytes, std::size_t) {
                             char* const end = EncodeCobs(plain, bytes + begin);
                             *end = 0;
                             return static_cast<std::size_t>(end + 1 - bytes);
                           });
}

void DecodeBeginning(View encoded, std::size_t count, Bytes& out) {
  out.resize(count + kLongestGroup + 1);
  const char* const end = DecodeCobs(encoded, out.data(), count);
  out.resize(end == nullptr ? 0 : std::min(count, static_cast<std::size_t>(end - out.data())));
}

bool DecodeFrame(View encoded, Bytes& out) {
  out.resize(encoded.size());
  const char* const end = DecodeCobs(encoded, out.data(), encoded.size());
  if (end == nullptr || end < out.data() + kHeaderSize + 4) {
    return false;
  }
  out.resize(static_cast<std::size_t>(end - out.data()));
  const View checked = View(out).substr(0, out.size() - 4);
  if (Get32(out, checked.size()) != Checksum(checked) ||
      Get16(out, 10) != checked.size() - kHeaderSize) {
    return false;
  }
  out.resize(checked.size());
  return true;
}

}  // namespace bench
