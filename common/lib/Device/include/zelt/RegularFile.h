#pragma once

#include <cstddef>
#include <fstream>
#include <string>
#include <string_view>

namespace zelt {

// All take regular files only (a link is followed), also when the path is exchanged meanwhile: a
// FIFO, a device or a directory is neither waited for nor set off. Any thread.

// Opens a file for reading, in binary mode. A stream that is not open when it cannot.
std::ifstream OpenRegularFile(const std::string& path);

// Makes `content` the whole of a file, which is created when there is none. False when it cannot;
// the file may then be cut short.
bool WriteRegularFile(const std::string& path, std::string_view content);

// Returns the content of a file of at most `limit` bytes. Throws std::runtime_error with the path
// and what is wrong.
std::string ReadSmallFile(const std::string& path, std::size_t limit);

// The same for a TOML file of at most 1 MiB that is to be parsed. Also refuses a line with more
// than 32 dots outside of comments that fill a line: each dot of a key is a table in a table, and a
// parser that calls itself for each of them runs out of stack.
std::string ReadTomlFile(const std::string& path);

}  // namespace zelt
