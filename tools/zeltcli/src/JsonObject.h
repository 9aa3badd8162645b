#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zelt::cli {

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
