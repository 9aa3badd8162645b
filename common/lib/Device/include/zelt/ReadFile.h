#pragma once

#include <cstddef>
#include <string>

namespace zelt {

// The content of a regular file of at most `limit` bytes. Nothing that lies under the name can hold
// the caller up: no FIFO, no device, no file without an end. Throws std::runtime_error with the
// path and what is wrong. Any thread.
std::string ReadSmallFile(const std::string& path, std::size_t limit);

// The same for a TOML file of at most 1 MiB that is to be parsed. Also refuses a line with more
// than 32 dots outside of comments that fill a line: each dot of a key is a table in a table, and a
// parser that calls itself for each of them runs out of stack.
std::string ReadTomlFile(const std::string& path);

}  // namespace zelt
