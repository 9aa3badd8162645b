#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

namespace zelt {

// What is kept of a line until it is written; its text follows.
struct LogEntry {
  std::timespec time;
  const char* file;
  const char* function;
  std::size_t whole_size;  // of the text, before it was cut
  std::uint32_t size;      // of the text that is here
  int line;
  int level;
  std::uint32_t category;
};

}  // namespace zelt
