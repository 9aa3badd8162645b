// A service for RunnerTest: TestService MODE [DEPENDENCY [SHUTDOWN_DEPENDENCY]]
#include "zelt/ServiceRunner.h"

#include <unistd.h>

#include <csignal>
#include <future>
#include <iostream>
#include <semaphore>
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
    SetMyServiceState(zelt::service_state::State::Ready);
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
  const std::string mode_;
  std::promise<void> stop_;
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
          std::counting_semaphore turns(0);
          const auto timer =
              model->AddTimer("turn", [&] { turns.release(); }, std::chrono::milliseconds(1), true);
          for (int i = 0; i < 3; ++i) {
            turns.acquire();  // by then, the IPC thread has come to the signal
          }
        }
        return std::make_shared<TestService>(std::move(model), mode);
      },
      "Tested", names.first(std::min<std::size_t>(names.size(), 1)),
      names.size() > 1 ? names.subspan(1) : names.first(0));
}
