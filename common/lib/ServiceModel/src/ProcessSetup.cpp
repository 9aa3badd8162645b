#include "ProcessSetup.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>

namespace zelt {

namespace {

sigset_t TheSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  return signals;
}

}  // namespace

void SetUpProcess() {
  for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
    if (fcntl(descriptor, F_GETFD) < 0 && errno == EBADF) {
      // The lowest free number is this one. Nothing can be done if it fails.
      [[maybe_unused]] const int opened = open("/dev/null", O_RDWR);
    }
  }
  struct sigaction action{};
  action.sa_flags = SA_RESTART;
  action.sa_handler = [](int) {};  // not SIG_IGN, which programs that are executed would inherit
  sigaction(SIGPIPE, &action, nullptr);
  action.sa_handler = SIG_DFL;
  sigaction(SIGCHLD, &action, nullptr);
}

StopSignals::StopSignals() {
  const sigset_t signals = TheSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signals_ = FileDescriptor(signalfd(-1, &signals, SFD_CLOEXEC));
  cancel_ = FileDescriptor(eventfd(0, EFD_CLOEXEC));
  if (!signals_ || !cancel_) {
    ThrowErrno("cannot watch signals");
  }
}

std::optional<int> StopSignals::Wait() {
  std::array<pollfd, 2> either = {pollfd{signals_.Get(), POLLIN, 0},
                                  pollfd{cancel_.Get(), POLLIN, 0}};
  while (poll(either.data(), either.size(), -1) < 0) {  // interrupted
  }
  signalfd_siginfo signal{};
  if ((either[0].revents & POLLIN) == 0 ||
      read(signals_.Get(), &signal, sizeof signal) != sizeof signal) {
    return std::nullopt;
  }
  return static_cast<int>(signal.ssi_signo);
}

void StopSignals::Cancel() {
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = write(cancel_.Get(), &one, sizeof one);
}

void StopSignals::EndProcessByNext() {
  const sigset_t signals = TheSignals();
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

}  // namespace zelt
