#include "Text.h"

#include "CliError.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <sstream>
#include <utility>

namespace zelt::cli {
namespace {

constexpr std::string_view kHexDigits = "0123456789abcdef";

std::string Lower(std::string_view text) {
  std::string lower(text);
  std::ranges::transform(lower, lower.begin(),
                         [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return lower;
}

// How many characters must be put in, taken out or replaced.
std::size_t Distance(std::string_view from, std::string_view to) {
  std::vector<std::size_t> row(to.size() + 1);
  for (std::size_t j = 0; j < row.size(); ++j) {
    row[j] = j;
  }
  for (std::size_t i = 0; i < from.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i + 1);
    for (std::size_t j = 0; j < to.size(); ++j) {
      const std::size_t replaced = diagonal + (from[i] == to[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
    }
  }
  return row.back();
}

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

std::string_view LastPart(std::string_view name) {
  return name.substr(name.find_last_of(".:") + 1);  // npos + 1 is 0
}

}  // namespace

std::string Join(const std::vector<std::string>& parts, std::string_view separator) {
  std::string text;
  for (const std::string& part : parts) {
    text.append(text.empty() ? "" : separator).append(part);
  }
  return text;
}

std::vector<std::string> Nearest(std::string_view word, const std::vector<std::string>& candidates,
                                 std::size_t most) {
  const std::string wanted = Lower(LastPart(word));
  std::vector<std::pair<std::size_t, std::string>> ranked;
  for (const std::string& candidate : candidates) {
    const std::string name = Lower(LastPart(candidate));
    const bool part = wanted.size() > 2 && name.contains(wanted);
    const std::size_t distance = part ? 1 : Distance(wanted, name);
    if (distance <= std::max<std::size_t>(2, wanted.size() / 3)) {
      ranked.emplace_back(distance, candidate);
    }
  }
  std::ranges::sort(ranked);
  const auto repeated = std::ranges::unique(ranked);
  ranked.erase(repeated.begin(), repeated.end());
  ranked.resize(std::min(ranked.size(), most));
  std::vector<std::string> names;
  names.reserve(ranked.size());
  for (auto& [distance, name] : ranked) {
    names.push_back(std::move(name));
  }
  return names;
}

std::string DidYouMean(std::string_view word, const std::vector<std::string>& candidates) {
  const auto near = Nearest(word, candidates);
  return near.empty() ? "" : "did you mean " + Join(near, " or ") + "?";
}

std::string ToHex(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    text += kHexDigits[byte >> 4U];
    text += kHexDigits[byte & 0xFU];
  }
  return text;
}

std::string FromHex(std::string_view text) {
  if (text.starts_with("0x") || text.starts_with("0X")) {
    text.remove_prefix(2);
  }
  std::string digits = Lower(text);
  std::erase_if(digits, [](char c) { return c == ' ' || c == ':'; });
  if (const auto bad = digits.find_first_not_of(kHexDigits); bad != std::string::npos) {
    throw CliError(Exit::Usage, std::string("\"") + digits[bad] + "\" is no hexadecimal digit",
                   "give whole bytes, such as 0401 or \"04 01\"");
  }
  if (digits.size() % 2 != 0) {
    throw CliError(Exit::Usage,
                   std::to_string(digits.size()) + " hexadecimal digits are no whole bytes",
                   "put a 0 in front of the byte that has one digit");
  }
  std::string bytes;
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    bytes += static_cast<char>(kHexDigits.find(digits[i]) * 16 + kHexDigits.find(digits[i + 1]));
  }
  return bytes;
}

std::string JsonObject::Quote(std::string_view text) {
  std::string quoted = "\"";
  for (std::size_t size = 0; !text.empty(); text.remove_prefix(std::max<std::size_t>(size, 1))) {
    const auto byte = static_cast<unsigned char>(text.front());
    size = CharacterSize(text);
    if (size == 0) {
      quoted += "\\ufffd";
    } else if (byte < 0x20) {
      quoted.append("\\u00") += kHexDigits[byte >> 4U];
      quoted += kHexDigits[byte & 0xFU];
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
