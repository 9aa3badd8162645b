#include "JsonObject.h"

#include "Words.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <sstream>

namespace zelt::cli {
namespace {

// How many bytes the UTF-8 character has that `text` begins with; 0 when it begins with none.
std::size_t CharacterSize(std::string_view text) {
  struct Form {
    unsigned char mask;  // these bits of the first byte
    unsigned char lead;  // are these
    char32_t least;      // what is less has a shorter form
  };
  static constexpr std::array kForms = {Form{0x80, 0x00, 0}, Form{0xE0, 0xC0, 0x80},
                                        Form{0xF0, 0xE0, 0x800}, Form{0xF8, 0xF0, 0x10000}};
  const auto byte = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const auto* const form = std::ranges::find_if(
      kForms, [&](const Form& candidate) { return (byte(0) & candidate.mask) == candidate.lead; });
  const auto size = static_cast<std::size_t>(form - kForms.begin()) + 1;
  if (form == kForms.end() || size > text.size()) {
    return 0;
  }
  char32_t code = byte(0) & ~form->mask & 0xFFU;
  for (std::size_t i = 1; i < size; ++i) {
    if ((byte(i) & 0xC0U) != 0x80) {
      return 0;
    }
    code = (code << 6U) | (byte(i) & 0x3FU);
  }
  const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
  return code < form->least || code > 0x10FFFF || surrogate ? 0 : size;
}

}  // namespace

std::string JsonObject::Quote(std::string_view text) {
  std::string quoted = "\"";
  for (std::size_t size = 0; !text.empty(); text.remove_prefix(std::max<std::size_t>(size, 1))) {
    const auto byte = static_cast<unsigned char>(text.front());
    size = CharacterSize(text);
    if (size == 0) {
      quoted += "\\ufffd";
    } else if (byte < 0x20) {
      quoted.append("\\u00").append(ToHex(text.substr(0, 1)));
    } else {
      quoted.append(byte == '"' || byte == '\\' ? "\\" : "").append(text.substr(0, size));
    }
  }
  return quoted + '"';
}

std::string JsonObject::Array(const std::vector<std::string>& json_values) {
  return "[" + Join(json_values, ",") + "]";
}

JsonObject& JsonObject::AddRaw(std::string_view key, std::string_view json) {
  members_.append(members_.empty() ? "" : ",").append(Quote(key)).append(":").append(json);
  return *this;
}

JsonObject& JsonObject::Add(std::string_view key, std::string_view text) {
  return AddRaw(key, Quote(text));
}

JsonObject& JsonObject::Add(std::string_view key, bool value) {
  return AddRaw(key, value ? "true" : "false");
}

JsonObject& JsonObject::Add(std::string_view key, double value) {
  std::ostringstream text;
  text << value;
  return AddRaw(key, text.str());
}

JsonObject& JsonObject::Add(std::string_view key, std::int64_t value) {
  return AddRaw(key, std::to_string(value));
}

}  // namespace zelt::cli
