#pragma once

#include "zelt/MicroserviceIF.h"
#include "zelt/ServiceModel.h"

#include <gsl/span>

#include <functional>
#include <memory>
#include <string_view>

namespace zelt {

// Runs one service from the start of its process to its end.
class ServiceRunner {
 public:
  using Factory = std::function<std::shared_ptr<MicroserviceIF>(std::shared_ptr<ServiceModel>)>;

  // Owns the process: call it once, from main, before any thread is started.
  //
  //   connect, own the name -> wait until every dependency is ready -> factory -> DoRun
  //   SIGTERM, SIGINT       -> wait until every shutdown dependency is gone (at most 5 s) -> DoDie
  //   a second signal       -> ends the process at once, as that signal does by default
  //   the bus is lost       -> logged, DoDie, status 1, for a supervisor to restart
  //
  // A signal is heard whatever the service and its callbacks are at. DoDie has the time that it
  // takes; 1.5 s after DoRun has returned, the process is gone, with status 1 if it had to be
  // forced. While it waits for dependencies, the log names those that are missing, and a signal
  // ends it with status 0. Returns the exit status of the process: 0 after a stop that was asked
  // for, 1 when there is no bus, the name is taken, a dependency's name is malformed, or the
  // factory, DoRun or DoDie threw; the reason is logged.
  //
  // Standard descriptors that are closed are opened on /dev/null. Writing to a reader that has gone
  // (SIGPIPE) does not end the process, and a SIGCHLD that was ignored is not.
  static int RunService(const Factory& factory, std::string_view name,
                        gsl::span<const std::string_view> dependencies,
                        gsl::span<const std::string_view> shutdownDependencies);
};

}  // namespace zelt
