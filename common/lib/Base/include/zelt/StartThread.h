#pragma once

#include <pthread.h>

#include <csignal>
#include <thread>
#include <utility>

namespace zelt {

// Starts a thread that takes no signals: they stay with the thread that waits for them. The
// caller's own mask is as before when this returns or throws. Throws std::system_error when there
// can be no further thread.
template <class Function>
std::thread StartThread(Function&& function) {
  class BlockedSignals {
   public:
    BlockedSignals() {
      sigset_t all;
      sigfillset(&all);
      pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    BlockedSignals(const BlockedSignals&) = delete;
    BlockedSignals& operator=(const BlockedSignals&) = delete;
    ~BlockedSignals() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

   private:
    sigset_t before_{};
  };
  const BlockedSignals blocked;
  return std::thread(std::forward<Function>(function));
}

}  // namespace zelt
