#pragma once

#include <stdexcept>

namespace zelt {

// Thrown by a message callback that has no room for the message now: the sender is told to try
// again later, and the message does not count as taken. The text names the bound, for the log.
class Busy : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace zelt
