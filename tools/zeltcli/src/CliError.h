#pragma once

#include <stdexcept>
#include <string>
#include <utility>

namespace zelt::cli {

// The exit statuses are part of the tool's contract (docs/zeltcli.md).
enum class Exit : int {
  Ok = 0,
  Failed = 1,        // it was answered, and the answer is no
  Usage = 2,         // wrong command line, type, JSON or file
  NoBus = 3,         // not reached, or lost on the way
  NoService = 4,     // nobody owns the service's name
  NotTaken = 5,      // the service is there and does not take this message, or not now
  NotPermitted = 6,  // the bus policy forbids it
  TimedOut = 7,      // no answer in time
};

// What ends a command: what was wrong, and what to try.
class CliError : public std::runtime_error {
 public:
  CliError(Exit exit_status, const std::string& what, std::string what_to_try = {})
      : std::runtime_error(what), exit(exit_status), hint(std::move(what_to_try)) {}

  const Exit exit;
  const std::string hint;
};

}  // namespace zelt::cli
