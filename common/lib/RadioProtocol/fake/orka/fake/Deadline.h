#pragma once

#include <unistd.h>

namespace orka::fake {

// Ends the process with SIGALRM when a test takes longer than this: one that hangs is told by its
// own name, and at once. A member of its fixture, the first.
class Deadline {
 public:
  explicit Deadline(unsigned seconds = 60) { ::alarm(seconds); }
  Deadline(const Deadline&) = delete;
  Deadline& operator=(const Deadline&) = delete;
  ~Deadline() { ::alarm(0); }
};

}  // namespace orka::fake
