// The keeper against the real Kova and a simulated radio: zelt-testbed --no-link -- keeper-example
#include "Kova.pb.h"
#include "zelt/ServiceModel.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>

#include <sys/wait.h>
#include <unistd.h>

namespace {

// A service that hears how the link is.
class Watcher {
 public:
  Watcher() {
    link_ = model_->GetServiceIPC()->SubscribeImpl(
        "Kova.RTConnectionStatus", "Kova", [this](const auto&, std::string_view payload) {
          Kova::RTConnectionStatus status;
          const std::lock_guard lock(mutex_);
          if (status.ParseFromArray(payload.data(), static_cast<int>(payload.size()))) {
            state_ = status.status();
            changed_.notify_all();
          }
        });
  }

  bool WaitFor(Kova::RtConnectionState state) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(60), [&] { return state_ == state; });
  }

 private:
  std::shared_ptr<zelt::ServiceModel> model_ = zelt::ServiceModel::Create("Watcher");
  std::mutex mutex_;
  std::condition_variable changed_;
  Kova::RtConnectionState state_ = Kova::DISCONNECTED;
  zelt::AsyncCallbackHandle link_;  // closed first
};

// A program of the path, for as long as this lives.
class Program {
 public:
  explicit Program(const char* name) : pid_(fork()) {
    if (pid_ == 0) {
      execlp(name, name, nullptr);
      _exit(127);
    }
  }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;
  ~Program() {
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
  }

 private:
  pid_t pid_;
};

void Radio(const std::string& command) {
  const std::string line = "radiosim ctl \"$RADIO_CONTROL\" " + command;
  ASSERT_EQ(std::system(line.c_str()), 0);  // NOLINT(cert-env33-c): a line of the test's own
}

TEST(Keeper, BringsTheLinkUpAndBack) {
  const Program keeper("zelt-keeper");
  Watcher watcher;
  ASSERT_TRUE(watcher.WaitFor(Kova::CONNECTED));
  Radio("silent on");
  EXPECT_TRUE(watcher.WaitFor(Kova::CONNECTION_IS_LOST));
  Radio("silent off");
  EXPECT_TRUE(watcher.WaitFor(Kova::CONNECTED));
}

}  // namespace
