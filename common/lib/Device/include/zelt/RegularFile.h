#pragma once

#include <fstream>
#include <string>
#include <string_view>

namespace zelt {

// Both take regular files only (a link is followed), also when the path is exchanged meanwhile: a
// FIFO, a device or a directory is neither waited for nor set off. Any thread.

// Opens a file for reading, in binary mode. A stream that is not open when it cannot.
std::ifstream OpenRegularFile(const std::string& path);

// Makes `content` the whole of a file, which is created when there is none. False when it cannot;
// the file may then be cut short.
bool WriteRegularFile(const std::string& path, std::string_view content);

}  // namespace zelt
