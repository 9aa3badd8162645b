#include "zelt/FileSize.h"

#include <sys/stat.h>

namespace zelt {

std::optional<std::uint64_t> GetFileSize(const std::string& path) {
  struct stat status{};
  if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
    return std::nullopt;
  }
  return static_cast<std::uint64_t>(status.st_size);
}

}  // namespace zelt
