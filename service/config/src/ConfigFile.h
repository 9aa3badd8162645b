#pragma once

#include "zelt/ConfigReaderIF.h"

#include <cstddef>
#include <string>
#include <vector>

namespace zelt {

// What a configuration file says, and all that is wrong with it.
struct ParsedConfig {
  ConfigRecord record{};  // to be used only when there are no problems
  // One line each, "file:line: key: what", in file order: the first 20, and how many more there
  // are.
  std::vector<std::string> problems;
  std::size_t problem_count = 0;
};

// Reads and checks a configuration file (config.toml beside this service is the annotated sample).
// A file that cannot be read is a problem like any other; so is one that is no regular file, is
// larger than 1 MiB, or nests deeper than a configuration can.
ParsedConfig ReadConfigFile(const std::string& path);

// "working mode "Connected", 2 officers, current officer "4711", ...", for a human.
std::string Summary(const ConfigRecord& record);

}  // namespace zelt
