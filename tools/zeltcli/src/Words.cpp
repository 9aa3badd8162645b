#include "Words.h"

#include "CliError.h"

#include <algorithm>
#include <cctype>
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

}  // namespace zelt::cli
