#include "zelt/ReadFile.h"

#include "zelt/FileDescriptor.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string_view>

namespace zelt {
namespace {

constexpr std::size_t kMaxTomlSize = std::size_t{1024} * 1024;
constexpr std::ptrdiff_t kMaxDots = 32;

[[noreturn]] void Refuse(const std::string& path, const std::string& reason) {
  throw std::runtime_error(path + ": cannot be read: " + reason);
}

}  // namespace

std::string ReadSmallFile(const std::string& path, std::size_t limit) {
  const FileDescriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat status{};
  if (!file || fstat(file.Get(), &status) != 0) {
    Refuse(path, std::strerror(errno));
  }
  if (!S_ISREG(status.st_mode)) {
    Refuse(path, "is no regular file");
  }
  // One byte more, to see the end. The size that the file tells is no help: it may grow.
  std::string content(limit + 1, '\0');
  std::size_t size = 0;
  for (ssize_t part = 1; part != 0 && size <= limit; size += static_cast<std::size_t>(part)) {
    part = read(file.Get(), &content[size], content.size() - size);
    if (part < 0) {
      Refuse(path, std::strerror(errno));
    }
  }
  if (size > limit) {
    Refuse(path, "is larger than " + std::to_string(limit) + " bytes");
  }
  content.resize(size);
  return content;
}

std::string ReadTomlFile(const std::string& path) {
  std::string content = ReadSmallFile(path, kMaxTomlSize);
  std::size_t number = 0;
  for (std::string_view rest = content; !rest.empty();) {
    ++number;
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(rest.size(), line.size() + 1));
    const std::size_t start = line.find_first_not_of(" \t");
    const bool is_comment = start != std::string_view::npos && line[start] == '#';
    if (!is_comment && std::ranges::count(line, '.') > kMaxDots) {
      throw std::runtime_error(path + ":" + std::to_string(number) + ": more than " +
                               std::to_string(kMaxDots) + " dots in a line");
    }
  }
  return content;
}

}  // namespace zelt
