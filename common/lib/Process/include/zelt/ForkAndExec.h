#pragma once

#include "zelt/UniqueFunction.h"

#include <chrono>
#include <string>

namespace zelt {

struct ForkAndExecResult {
  int status = 0;              // as waitpid(2) gives it; -1 (and logged) when it could not be had
  std::string standardOutput;  // the last 64 KiB of what the child wrote
  std::string standardError;
};

inline constexpr std::chrono::milliseconds kChildTime{10'000};

// Forks, calls `in_child` in the child, waits until the child has ended, at most for `limit`.
//
// Blocks the calling thread; any thread may call it. The child starts with an empty signal mask,
// default signal handlers, standard input from /dev/null, and no file descriptor open but the
// standard three. `in_child` should end in exec; it may only use what is safe after fork(2). If it
// returns or throws, or something fails before it, the child ends with status 127 and the failed
// step and its errno as the last line of its standard error. The child's outputs are drained while
// it runs, however much it writes. The last 20 lines of its standard error are logged. The child is
// killed if this thread ends first.
//
// A child that has not ended in time is killed, and its status tells so. Only the child: what it
// has started may be meant to stay, and is left alone.
//
// Processes that the child leaves behind are not waited for. What they write is read and thrown
// away for as long as this process lives. Their outputs take 1 MiB that is not read, then fail with
// EAGAIN; they are never sent SIGPIPE, not even when this process has ended.
ForkAndExecResult ForkAndExecImpl(UniqueFunction<void()> in_child,
                                  std::chrono::milliseconds limit = kChildTime);

}  // namespace zelt
