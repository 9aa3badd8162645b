#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zelt::cli {

// `separator` between the parts.
std::string Join(const std::vector<std::string>& parts, std::string_view separator);

// The candidates that look most like `word`, the nearest first; none that is far off. Case and
// everything up to the last '.' count less than the rest.
std::vector<std::string> Nearest(std::string_view word, const std::vector<std::string>& candidates,
                                 std::size_t most = 3);

// "did you mean A or B?"; empty when nothing is near.
std::string DidYouMean(std::string_view word, const std::vector<std::string>& candidates);

// The bytes as hexadecimal digits, and back. FromHex takes blanks, ':' and "0x" in front; throws
// CliError when something else stands there or a digit is missing.
std::string ToHex(std::string_view bytes);
std::string FromHex(std::string_view text);

// One JSON object in the making, in the order of the calls.
class JsonObject {
 public:
  JsonObject& Add(std::string_view key, std::string_view text);
  JsonObject& Add(std::string_view key, const char* text) {
    return Add(key, std::string_view(text));
  }
  JsonObject& Add(std::string_view key, bool value);
  JsonObject& Add(std::string_view key, double value);
  JsonObject& Add(std::string_view key, std::int64_t value);
  JsonObject& AddRaw(std::string_view key, std::string_view json);

  std::string Str() const { return "{" + members_ + "}"; }

  // What is no UTF-8 becomes U+FFFD.
  static std::string Quote(std::string_view text);
  static std::string Array(const std::vector<std::string>& json_values);

 private:
  std::string members_;
};

}  // namespace zelt::cli
