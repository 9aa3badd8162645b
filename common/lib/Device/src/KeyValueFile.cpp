#include "KeyValueFile.h"

#include "zelt/RegularFile.h"

#include <sstream>

namespace zelt {
namespace {

constexpr std::size_t kMaxSize = std::size_t{64} * 1024;
constexpr std::string_view kBlanks = " \t\r";

std::string Trim(std::string_view text) {
  const auto first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) {
    return {};
  }
  return std::string(text.substr(first, text.find_last_not_of(kBlanks) - first + 1));
}

std::string_view WithoutComment(std::string_view line) {
  for (auto at = line.find('#'); at != std::string_view::npos; at = line.find('#', at + 1)) {
    if (at == 0 || kBlanks.contains(line[at - 1])) {
      return line.substr(0, at);
    }
  }
  return line;
}

}  // namespace

std::map<std::string, std::string> ReadKeyValueFile(std::string_view path) {
  std::map<std::string, std::string> values;
  std::string line;
  std::istringstream file(ReadSmallFile(std::string(path), kMaxSize));
  while (std::getline(file, line)) {
    const std::string_view content = WithoutComment(line);
    if (const auto equals = content.find('='); equals != std::string_view::npos) {
      values.insert_or_assign(Trim(content.substr(0, equals)), Trim(content.substr(equals + 1)));
    }
  }
  return values;
}

}  // namespace zelt
