#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace zelt::cli {

// Puts `separator` between the parts.
std::string Join(const std::vector<std::string>& parts, std::string_view separator);

// Returns the candidates that look most like `word`, the nearest first; none that is far off. Case
// does not count, nor does what stands before the last '.' or ':'.
std::vector<std::string> Nearest(std::string_view word, const std::vector<std::string>& candidates,
                                 std::size_t most = 3);

// Returns "did you mean A or B?", or nothing when nothing is near.
std::string DidYouMean(std::string_view word, const std::vector<std::string>& candidates);

// Write bytes as hexadecimal digits, and read them. FromHex takes blanks, ':' and "0x" in front;
// it throws CliError when something else stands there or a digit is missing.
std::string ToHex(std::string_view bytes);
std::string FromHex(std::string_view text);

}  // namespace zelt::cli
