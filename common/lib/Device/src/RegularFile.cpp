#include "zelt/RegularFile.h"

#include "zelt/FileDescriptor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zelt {
namespace {

// Looks before it opens, since opening some devices does something, and again at what it has
// opened.
FileDescriptor Open(const std::string& path, int flags) {
  struct stat status{};
  if (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
    return {};
  }
  FileDescriptor file(open(path.c_str(), flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666));
  if (file && (fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode))) {
    file.Close();
  }
  return file;
}

}  // namespace

std::ifstream OpenRegularFile(const std::string& path) {
  std::ifstream stream;
  if (const FileDescriptor file = Open(path, O_RDONLY)) {
    // A stream opens by name only; by this one it gets the very file that was looked at.
    stream.open("/proc/self/fd/" + std::to_string(file.Get()), std::ios::in | std::ios::binary);
  }
  return stream;
}

bool WriteRegularFile(const std::string& path, std::string_view content) {
  const FileDescriptor file = Open(path, O_WRONLY | O_CREAT);
  if (!file || ftruncate(file.Get(), 0) != 0) {
    return false;
  }
  while (!content.empty()) {
    const ssize_t written = write(file.Get(), content.data(), content.size());
    if (written < 0) {
      return false;
    }
    content.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

}  // namespace zelt
