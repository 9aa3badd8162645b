#pragma once

#include <map>
#include <string>
#include <string_view>

namespace zelt {

// Returns the values of a file of "KEY=VALUE" lines, blanks around both cut off; the last of equal
// keys wins. "#" starts a comment at the start of a line and after a blank. Throws
// std::runtime_error with path and reason when it cannot be read, is no regular file or has more
// than 64 KiB.
std::map<std::string, std::string> ReadKeyValueFile(std::string_view path);

}  // namespace zelt
