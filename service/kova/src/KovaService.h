#pragma once

#include "KovaContext.h"

#include "zelt/MicroserviceIF.h"

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>

namespace zelt {

// The service as the runner drives it: starts the context, runs its tasks, ends them.
//
//   constructed --DoRun--> running --DoDie: stop task queued, link stopped--> stopping
//   stopping --everything queued before the stop task has run--> stopped
class KovaService : public MicroserviceIF {
 public:
  // The number is part of the platform's factory convention and is not used. `context` may be
  // given prepared; else the service makes its own.
  KovaService(std::shared_ptr<ServiceModel> model, int, std::shared_ptr<KovaContext> context = {});

  // Serves until DoDie; what a task throws leaves through here.
  void DoRun() override;
  // Waits until DoRun has reached its task loop, and then until it has left it.
  void DoDie() override;

 private:
  void SetRunning(bool running);

  std::mutex state_mutex_;
  std::condition_variable state_condition_;
  std::atomic<bool> running_{false};  // no wait misses a change: DoRun notifies under the mutex
  std::shared_ptr<KovaContext> context_;
};

}  // namespace zelt
