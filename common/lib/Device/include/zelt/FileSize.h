#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace zelt {

// Returns the size in bytes of a regular file (a link is followed); nothing when it is no regular
// file or cannot be examined. Never opens the file, so it never blocks on a FIFO. Any thread.
std::optional<std::uint64_t> GetFileSize(const std::string& path);

}  // namespace zelt
