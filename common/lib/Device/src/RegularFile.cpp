#include "zelt/RegularFile.h"

#include "zelt/FileDescriptor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <expected>
#include <stdexcept>

namespace zelt {
namespace {

constexpr std::size_t kMaxTomlSize = std::size_t{1024} * 1024;
constexpr std::ptrdiff_t kMaxDots = 32;

std::unexpected<std::string> SystemError() {
  return std::unexpected<std::string>(std::strerror(errno));
}

// Looks before it opens, since opening some devices does something, and again at what it has
// opened. Else says why not.
std::expected<FileDescriptor, std::string> Open(const std::string& path, int flags) {
  const std::unexpected<std::string> irregular("is no regular file");
  struct stat status{};
  if (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
    return irregular;
  }
  FileDescriptor file(open(path.c_str(), flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666));
  if (!file || fstat(file.Get(), &status) != 0) {
    return SystemError();
  }
  if (!S_ISREG(status.st_mode)) {
    return irregular;
  }
  return file;
}

std::expected<std::string, std::string> Read(const std::string& path, std::size_t limit) {
  const auto file = Open(path, O_RDONLY);
  if (!file) {
    return std::unexpected(file.error());
  }
  // One byte more, to see the end. The size that the file tells is no help: it may grow.
  std::string content(limit + 1, '\0');
  std::size_t size = 0;
  for (ssize_t part = 1; part != 0 && size <= limit; size += static_cast<std::size_t>(part)) {
    part = read(file->Get(), &content[size], content.size() - size);
    if (part < 0) {
      return SystemError();
    }
  }
  if (size > limit) {
    return std::unexpected("is larger than " + std::to_string(limit) + " bytes");
  }
  content.resize(size);
  return content;
}

}  // namespace

std::ifstream OpenRegularFile(const std::string& path) {
  std::ifstream stream;
  if (const auto file = Open(path, O_RDONLY)) {
    // A stream opens by name only; by this one it gets the very file that was looked at.
    stream.open("/proc/self/fd/" + std::to_string(file->Get()), std::ios::in | std::ios::binary);
  }
  return stream;
}

bool WriteRegularFile(const std::string& path, std::string_view content) {
  const auto file = Open(path, O_WRONLY | O_CREAT);
  if (!file || ftruncate(file->Get(), 0) != 0) {
    return false;
  }
  while (!content.empty()) {
    const ssize_t written = write(file->Get(), content.data(), content.size());
    if (written < 0) {
      return false;
    }
    content.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

std::string ReadSmallFile(const std::string& path, std::size_t limit) {
  auto content = Read(path, limit);
  if (!content) {
    throw std::runtime_error(path + ": cannot be read: " + content.error());
  }
  return std::move(*content);
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
