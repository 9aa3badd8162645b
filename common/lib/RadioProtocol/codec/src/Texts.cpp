#include "orka/codec/Texts.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/stubs/common.h>

#include <algorithm>

namespace orka::codec {
namespace {

// U+F780 to U+F7FF begin with these two, and nothing else does.
constexpr char kLead = '\xEF';
constexpr char kLow = '\x9E';   // bytes 80 to BF
constexpr char kHigh = '\x9F';  // bytes C0 to FF
constexpr std::size_t kEscapeSize = 3;

bool IsEscape(std::string_view text) {
  return text.size() >= kEscapeSize && text[0] == kLead && (text[1] == kLow || text[1] == kHigh);
}

// How many bytes at the front are one code point as protobuf's parser sees it; 0: none.
std::size_t CodePointSize(std::string_view text) {
  for (std::size_t size = 1; size <= std::min<std::size_t>(4, text.size()); ++size) {
    if (google::protobuf::internal::IsStructurallyValidUTF8(&text.front(),
                                                            static_cast<int>(size))) {
      return size;
    }
  }
  return 0;
}

using Path = decltype(TextField::path);
using ConvertText = std::string (*)(std::string_view text);

class Rewriter {
 public:
  Rewriter(std::string_view message, ConvertText convert) : message_(message), convert_(convert) {}

  // Appends `body` to `out` with its texts converted. `path` leads to it, and has `depth` numbers.
  bool Rewrite(std::string_view body, Path path, std::size_t depth, std::string& out);

  unsigned FirstChanged() const { return first_changed_; }

 private:
  // What the field at `path` is: a text, or something that may hold one.
  bool IsText(const Path& path) const {
    return std::ranges::any_of(kTextFields, [&](const TextField& field) {
      return field.message == message_ && field.path == path;
    });
  }
  bool LeadsToText(const Path& path, std::size_t depth) const {
    return std::ranges::any_of(kTextFields, [&](const TextField& field) {
      return field.message == message_ && depth < path.size() &&
             std::equal(path.begin(), path.begin() + static_cast<std::ptrdiff_t>(depth),
                        field.path.begin());
    });
  }

  std::string_view message_;
  ConvertText convert_;
  unsigned first_changed_ = 0;
};

void AppendVarint(std::uint32_t number, std::string& out) {
  for (; number > 0x7F; number >>= 7U) {
    out += static_cast<char>(number | 0x80U);
  }
  out += static_cast<char>(number);
}

constexpr std::uint32_t kCounted = 2;  // the kind of field that a text or a message is

// Takes the value of a field of this kind; of a counted one only its `size`.
bool TakeValue(google::protobuf::io::CodedInputStream& in, std::uint32_t kind,
               std::uint32_t& size) {
  std::uint64_t number = 0;
  switch (kind) {
    case 0:
      return in.ReadVarint64(&number);
    case 1:
      return in.Skip(8);
    case kCounted:
      return in.ReadVarint32(&size);
    case 5:
      return in.Skip(4);
    default:
      return false;
  }
}

bool Rewriter::Rewrite(std::string_view body, Path path, std::size_t depth, std::string& out) {
  google::protobuf::io::CodedInputStream in(reinterpret_cast<const std::uint8_t*>(body.data()),
                                            static_cast<int>(body.size()));
  const auto at = [&in] { return static_cast<std::size_t>(in.CurrentPosition()); };
  std::size_t copied = 0;
  while (const std::uint32_t tag = in.ReadTag()) {
    const std::uint32_t kind = tag & 7U;
    std::uint32_t size = 0;
    if (!TakeValue(in, kind, size) || size > body.size() - at()) {
      return false;
    }
    path[depth] = static_cast<std::uint8_t>(std::min<std::uint32_t>(tag >> 3U, UINT8_MAX));
    const bool is_text = kind == kCounted && IsText(path);
    if (is_text || (kind == kCounted && LeadsToText(path, depth + 1))) {
      const std::string_view field = body.substr(at(), size);
      std::string inner;
      if (is_text) {
        inner = convert_(field);
        first_changed_ = first_changed_ == 0 && inner != field ? path[0] : first_changed_;
      } else if (!Rewrite(field, path, depth + 1, inner)) {
        return false;
      }
      AppendVarint(tag, out);
      AppendVarint(static_cast<std::uint32_t>(inner.size()), out);
      out += inner;
      in.Skip(static_cast<int>(size));
    } else {
      in.Skip(static_cast<int>(size));
      out.append(body.substr(copied, at() - copied));
    }
    copied = at();
  }
  return in.ConsumedEntireMessage();
}

bool RewriteTexts(std::string_view message, ByteView body, ConvertText convert, Bytes& out,
                  unsigned& first_changed) {
  Rewriter rewriter(message, convert);
  std::string text;
  const bool is_message =
      rewriter.Rewrite({reinterpret_cast<const char*>(body.data()), body.size()}, {}, 0, text);
  out.assign(text.begin(), text.end());
  first_changed = rewriter.FirstChanged();
  return is_message;
}

}  // namespace

std::string EscapeText(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    std::size_t size = CodePointSize(text);
    if (size != 0 && !IsEscape(text)) {
      result.append(text.substr(0, size));
    } else {
      const auto byte = static_cast<unsigned char>(text.front());
      result.append({kLead, byte < 0xC0 ? kLow : kHigh, static_cast<char>(0x80U | (byte & 0x3FU))});
      size = 1;
    }
    text.remove_prefix(size);
  }
  return result;
}

std::string UnescapeText(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const bool escape = IsEscape(text);
    result += escape ? static_cast<char>((text[1] == kLow ? 0x80U : 0xC0U) |
                                         (static_cast<unsigned char>(text[2]) & 0x3FU))
                     : text.front();
    text.remove_prefix(escape ? kEscapeSize : 1);
  }
  return result;
}

bool EscapeTexts(std::string_view message, ByteView body, Bytes& out, unsigned& told) {
  return RewriteTexts(message, body, &EscapeText, out, told);
}

bool UnescapeTexts(std::string_view message, ByteView body, Bytes& out) {
  unsigned ignored = 0;
  return RewriteTexts(message, body, &UnescapeText, out, ignored);
}

bool MayHoldEscapes(ByteView body) {
  const std::string_view text(reinterpret_cast<const char*>(body.data()), body.size());
  return text.contains(std::string_view("\xEF\x9E")) || text.contains(std::string_view("\xEF\x9F"));
}

}  // namespace orka::codec
