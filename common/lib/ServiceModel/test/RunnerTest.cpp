#include "zelt/FileDescriptor.h"
#include "zelt/ServiceModel.h"
#include "zelt/fake/TestBus.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <condition_variable>
#include <mutex>

namespace zelt {
namespace {

using service_state::State;
using testing::HasSubstr;
using namespace std::chrono_literals;

class RunnerTest : public testing::Test {
 protected:
  void Start(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), KOVA_TEST_SERVICE);
    service_ = std::make_unique<fake::ChildProcess>(arguments, bus_.Folder() / "service.log");
  }
  // From now on, notes the states that the service goes through.
  void Watch() {
    model_ = ServiceModel::Create("zeltcli-1");
    watch_ = model_->WatchServiceState("Tested", [this](State state) {
      const std::lock_guard lock(mutex_);
      states_.push_back(state);
      changed_.notify_all();
    });
  }
  bool WaitForState(State state, int times = 1) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, 60s,
                             [&] { return std::ranges::count(states_, state) >= times; });
  }

  fake::TestBus bus_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<State> states_;  // guarded by mutex_
  std::unique_ptr<fake::ChildProcess> service_;
  std::shared_ptr<ServiceModel> model_;
  AsyncCallbackHandle watch_;
};

TEST_F(RunnerTest, WaitsForDependencyRunsAndStops) {
  Watch();
  Start({"serve", "Config"});
  EXPECT_TRUE(service_->WaitForOutput("Tested waits for: Config (NOT_RUNNING)"));
  EXPECT_TRUE(WaitForState(State::WaitingForDependencies));
  const auto config = ServiceModel::Create("Config");
  config->SetMyServiceState(State::Starting);
  EXPECT_TRUE(service_->WaitForOutput("Tested waits for: Config (STARTING)"));
  EXPECT_THAT(service_->Output(), testing::Not(HasSubstr("running")));
  config->SetMyServiceState(State::Ready);
  EXPECT_TRUE(WaitForState(State::Ready));
  service_->Signal(SIGTERM);
  EXPECT_EQ(service_->Wait(), 0);
  EXPECT_TRUE(WaitForState(State::Stopped));
  EXPECT_THAT(service_->Output(), HasSubstr("dying"));
  EXPECT_EQ(model_->GetServiceState("Tested", 1s), State::NotRunning);
  EXPECT_TRUE(WaitForState(State::NotRunning, 2));
  const std::lock_guard lock(mutex_);
  EXPECT_THAT(states_,
              testing::ElementsAre(State::NotRunning, State::Starting,
                                   State::WaitingForDependencies, State::Initializing, State::Ready,
                                   State::Stopping, State::Stopped, State::NotRunning))
      << "every one of them";
}

TEST_F(RunnerTest, SignalBeforeDoRunStopsTheService) {
  Start({"serve", "Config"});
  EXPECT_TRUE(service_->WaitForOutput("waits for"));
  service_->Signal(SIGINT);
  EXPECT_EQ(service_->Wait(), 0);
  EXPECT_THAT(service_->Output(), testing::Not(HasSubstr("running")));
  Start({"signal-in-factory"});
  EXPECT_EQ(service_->Wait(), 0);
  EXPECT_THAT(service_->Output(), HasSubstr("dying"));
}

TEST_F(RunnerTest, DependencyThatNobodyCanBeIsRefused) {
  Start({"serve", "Config", "no service"});
  EXPECT_EQ(service_->Wait(), 1);
  EXPECT_THAT(service_->Output(), HasSubstr("Tested: its dependency \"no service\" is no name of"));
}

TEST_F(RunnerTest, SecondSignalEndsAServiceThatDoesNotStop) {
  Start({"stuck"});
  EXPECT_TRUE(service_->WaitForOutput("running"));
  service_->Signal(SIGTERM);
  EXPECT_TRUE(service_->WaitForOutput("dying"));
  service_->Signal(SIGTERM);
  EXPECT_EQ(service_->Wait(), 128 + SIGTERM);
}

TEST_F(RunnerTest, StopsOnlyWhenShutdownDependenciesAreGone) {
  Watch();
  const auto config = ServiceModel::Create("Config");
  config->SetMyServiceState(State::Ready);
  auto audio = ServiceModel::Create("Audio");
  audio->SetMyServiceState(State::Ready);
  Start({"serve", "Config", "Audio"});
  EXPECT_TRUE(WaitForState(State::Ready));
  service_->Signal(SIGTERM);
  EXPECT_TRUE(WaitForState(State::Stopping));
  EXPECT_THAT(service_->Output(), testing::Not(HasSubstr("dying")));
  audio.reset();
  EXPECT_EQ(service_->Wait(), 0);
}

TEST_F(RunnerTest, LostBusStopsTheServiceWithFailure) {
  const auto config = ServiceModel::Create("Config");
  config->SetMyServiceState(State::Ready);
  const auto audio = ServiceModel::Create("Audio");
  Start({"serve", "Config", "Audio"});
  EXPECT_TRUE(service_->WaitForOutput("running"));
  bus_.Kill();
  EXPECT_EQ(service_->Wait(), 1);
  EXPECT_THAT(service_->Output(), HasSubstr("Lost the connection to the bus at "));
  EXPECT_THAT(service_->Output(), HasSubstr("dying"));
  EXPECT_THAT(service_->Output(), testing::Not(HasSubstr("still run"))) << "who could tell?";
}

TEST_F(RunnerTest, CallbackThatHoldsTheIpcThreadHoldsNoSignalAndNoExitUp) {
  Start({"hold-ipc"});
  EXPECT_TRUE(service_->WaitForOutput("running"));
  service_->Signal(SIGTERM);
  EXPECT_TRUE(service_->WaitForOutput("dying"));
  EXPECT_EQ(service_->Wait(), 1);
  EXPECT_THAT(service_->Output(), HasSubstr("Tested does not come to its end, ending at once"));
}

TEST_F(RunnerTest, ProcessIsSetRightWhoeverStartedIt) {
  service_ = std::make_unique<fake::ChildProcess>(
      std::vector<std::string>{"sh", "-c", "trap '' CHLD; exec \"$0\" process 2>&-",
                               KOVA_TEST_SERVICE},
      bus_.Folder() / "service.log");
  EXPECT_TRUE(service_->WaitForOutput("standard error is \"/dev/null\""));
  EXPECT_TRUE(service_->WaitForOutput("a child ends with 7"));
  EXPECT_TRUE(service_->WaitForOutput("a pipe without a reader gives " + std::to_string(EPIPE)));
  service_->Signal(SIGTERM);
  EXPECT_EQ(service_->Wait(), 0);
}

TEST_F(RunnerTest, ExceptionsEndTheProcessWithFailure) {
  const struct {
    std::string mode, error;
    bool needs_signal;
  } kCases[] = {
      {"factory-throws", "Failed to create service Tested: cannot create", false},
      {"run-throws", "Failed to run service Tested: cannot run", false},
      {"run-throws-late", "Failed to run service Tested: cannot go on", true},
      {"die-throws", "Failed to stop service Tested: exception of unknown type", true},
  };
  for (const auto& [mode, error, needs_signal] : kCases) {
    Watch();
    Start({mode});
    if (needs_signal) {
      EXPECT_TRUE(service_->WaitForOutput("running"));
      service_->Signal(SIGTERM);
    }
    EXPECT_EQ(service_->Wait(), 1) << mode;
    EXPECT_THAT(service_->Output(), HasSubstr(error));
    EXPECT_TRUE(WaitForState(State::Failed)) << mode;
    watch_.Close();
    model_.reset();
    states_.clear();
  }
}

TEST_F(RunnerTest, SupervisorIsToldWhenTheServiceIsReadyGoesOnAndStops) {
  const FileDescriptor supervisor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  const std::string path = bus_.Folder() / "notify";
  path.copy(static_cast<char*>(address.sun_path), sizeof address.sun_path - 1);
  ASSERT_EQ(bind(supervisor.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  const auto next = [&] {
    std::array<char, 200> text{};
    pollfd readable{supervisor.Get(), POLLIN, 0};
    const bool comes = poll(&readable, 1, 60'000) == 1;
    const auto size = comes ? recv(supervisor.Get(), text.data(), text.size(), 0) : 0;
    return std::string(text.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
  };
  setenv("NOTIFY_SOCKET", path.c_str(), 1);
  setenv("WATCHDOG_USEC", "3000", 1);
  Start({"serve"});
  unsetenv("NOTIFY_SOCKET");
  unsetenv("WATCHDOG_USEC");
  EXPECT_EQ(next(), "STATUS=STARTING");
  EXPECT_EQ(next(), "STATUS=INITIALIZING");
  EXPECT_EQ(next(), "STATUS=READY\nREADY=1");
  EXPECT_EQ(next(), "WATCHDOG=1");
  EXPECT_EQ(next(), "WATCHDOG=1");
  service_->Signal(SIGTERM);
  std::string text = next();
  while (text == "WATCHDOG=1") {
    text = next();
  }
  EXPECT_EQ(text, "STATUS=STOPPING\nSTOPPING=1");
  EXPECT_EQ(service_->Wait(), 0);
}

TEST_F(RunnerTest, HungServiceDoesNotTellItsState) {
  Start({"serve"});
  EXPECT_TRUE(service_->WaitForOutput("running"));
  const auto model = ServiceModel::Create();
  service_->Halt();
  EXPECT_THROW(model->GetServiceState("Tested", 0.05s), std::runtime_error);
  const auto hung = model->ListServices(0.05s);
  ASSERT_EQ(hung.size(), 1U);
  EXPECT_FALSE(hung[0].answered);
  service_->Signal(SIGCONT);
  EXPECT_EQ(model->ListServices(10s).at(0).state, State::Ready);
  // NOLINTNEXTLINE(clang-analyzer-optin.core.EnumCastOutOfRange): a newer service may tell it
  EXPECT_EQ(GetServiceStateString(static_cast<State>(8)), "UNKNOWN (8)");
}

}  // namespace
}  // namespace zelt
