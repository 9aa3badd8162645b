#pragma once

#include "zelt/ConfigReaderIF.h"

#include <string>
#include <vector>

namespace zelt {

// What a configuration file says, and all that is wrong with it.
struct ParsedConfig {
  ConfigRecord record{};              // to be used only when there are no problems
  std::vector<std::string> problems;  // one line each, "file:line: key: what", in file order
};

// Reads and checks a configuration file (config.toml beside this service is the annotated sample).
// A file that cannot be read is a problem like any other.
ParsedConfig ReadConfigFile(const std::string& path);

// "working mode "Connected", 2 officers, current officer "4711", ...", for a human.
std::string Summary(const ConfigRecord& record);

}  // namespace zelt
