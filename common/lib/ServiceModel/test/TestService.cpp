// A service for RunnerTest: TestService MODE [DEPENDENCY [SHUTDOWN_DEPENDENCY]]
#include "zelt/ServiceRunner.h"

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <future>
#include <iostream>
#include <latch>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

class TestService : public zelt::MicroserviceIF {
 public:
  TestService(std::shared_ptr<zelt::ServiceModel> model, std::string mode)
      : MicroserviceIF(std::move(model)), mode_(std::move(mode)) {}

  void DoRun() override {
    std::cout << "running" << std::endl;
    if (mode_ == "run-throws") {
      throw std::runtime_error("cannot run");
    }
    if (mode_ == "hold-ipc") {
      std::latch held(1);
      hold_ = Model()->AddTimer(
          "hold",
          [&held] {
            held.count_down();
            std::promise<void>().get_future().wait();  // for ever
          },
          std::chrono::seconds(0), false);
      held.wait();
    }
    if (mode_ == "process") {
      TellProcess();
    }
    SetMyServiceState(zelt::service_state::State::Ready);
    const auto watchdog = Model()->AddWatchdog([](auto alive) { alive(); });
    stop_.get_future().wait();
    if (mode_ == "run-throws-late") {
      throw std::runtime_error("cannot go on");
    }
  }

  void DoDie() override {
    std::cout << "dying" << std::endl;
    if (mode_ == "die-throws") {
      throw "cannot die";
    }
    if (mode_ != "stuck") {
      stop_.set_value();
    }
    if (mode_ == "stuck" || mode_ == "run-throws-late") {
      std::promise<void> never;
      never.get_future().wait();
    }
  }

 private:
  // What the runner has set right about the process, whoever started it.
  static void TellProcess() {
    std::cout << "standard error is " << std::filesystem::read_symlink("/proc/self/fd/2") << '\n';
    const pid_t child = fork();
    if (child == 0) {
      _exit(7);
    }
    int status = 0;
    std::cout << "a child ends with "
              << (waitpid(child, &status, 0) == child ? WEXITSTATUS(status) : -1) << '\n';
    std::array<int, 2> ends{};
    std::cout << "a pipe without a reader gives "
              << (pipe(ends.data()) == 0 && close(ends[0]) == 0 && write(ends[1], "x", 1) < 0
                      ? errno
                      : 0)
              << std::endl;
  }

  const std::string mode_;
  std::promise<void> stop_;
  zelt::AsyncCallbackHandle hold_;
};

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argv[1];
  const std::vector<std::string_view> rest(argv + 2, argv + argc);
  const gsl::span<const std::string_view> names(rest);
  return zelt::ServiceRunner::RunService(
      [&mode](std::shared_ptr<zelt::ServiceModel> model) {
        if (mode == "factory-throws") {
          throw std::runtime_error("cannot create");
        }
        if (mode == "signal-in-factory") {
          kill(getpid(), SIGTERM);
        }
        return std::make_shared<TestService>(std::move(model), mode);
      },
      "Tested", names.first(std::min<std::size_t>(names.size(), 1)),
      names.size() > 1 ? names.subspan(1) : names.first(0));
}
