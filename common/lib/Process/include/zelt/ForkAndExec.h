#pragma once

#include "zelt/UniqueFunction.h"

#include <string>

namespace zelt {

struct ForkAndExecResult {
  int status = 0;              // as waitpid(2) gives it; -1 (and logged) when it could not be had
  std::string standardOutput;  // the last 64 KiB of what the child wrote
  std::string standardError;
};

// Forks, calls `inChild` in the child, waits until the child has ended.
//
// Blocks the calling thread; any thread may call it. The child starts with an empty signal mask,
// default signal handlers, standard input from /dev/null, and no file descriptor open but the
// standard three. `inChild` should end in exec; it may only use what is safe after fork(2). If it
// returns or throws, or something fails before it, the child ends with status 127 and the failed
// step and its errno as the last line of its standard error. The child's outputs are drained while
// it runs, however much it writes; a grandchild that keeps them open does not delay the return. The
// child is killed if this process dies first.
ForkAndExecResult ForkAndExecImpl(UniqueFunction<void()> inChild);

}  // namespace zelt
