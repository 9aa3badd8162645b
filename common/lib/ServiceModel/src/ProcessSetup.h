#pragma once

#include "zelt/FileDescriptor.h"

#include <optional>

namespace zelt {

// What a service sets right about its process, whoever started it: before anything is opened and
// before there is a second thread.
//
// The standard descriptors that are closed become /dev/null, so that no socket becomes standard
// error. A pipe or socket whose reader has gone is an error where it is written, not the end of the
// process. Children can be waited for even if SIGCHLD was ignored. Programs that the process
// executes find these signals as they are by default.
void SetUpProcess();

// SIGTERM and SIGINT, for the one thread that waits for them.
class StopSignals {
 public:
  // Blocks them in the calling thread, and thereby in all that are started later. Throws
  // std::system_error.
  StopSignals();

  // Waits for one of them; nothing when it was cancelled. One thread.
  std::optional<int> Wait();

  // Ends the wait, now or when it begins. Any thread.
  void Cancel();

  // Lets the next one end the process at once, as if it had never been waited for, whatever the
  // process is at. Holds as long as the calling thread runs.
  static void EndProcessByNext();

 private:
  FileDescriptor signals_;  // a signalfd
  FileDescriptor cancel_;   // an eventfd
};

}  // namespace zelt
