// The service as a process: options, start, stop, and what others see of it.

#include "Stack.h"

#include <gtest/gtest.h>

#include <csignal>

namespace e2e {
namespace {

TEST(Lifecycle, QueryOptionsAnswerInTheirOrderWithoutABus) {
  Stack stack;
  stack.bus.Kill();
  const auto ask = [&stack](const std::vector<std::string>& options) {
    const auto kova = stack.Run("kova", options);
    const int status = kova->Wait();
    return std::pair(status, kova->Output());
  };
  EXPECT_EQ(ask({"--list-deps"}), std::pair(0, std::string("Config\n")));
  EXPECT_EQ(ask({"--get-state", "x", "--list-deps"}), std::pair(0, std::string("Config\n")));
  EXPECT_EQ(ask({"--list-shutdown-deps"}), std::pair(0, std::string()));
  const auto [status, text] = ask({"--get-state"});
  EXPECT_EQ(status, 1);
  EXPECT_EQ(text.find("Error: "), 0U) << text;
}

TEST(Lifecycle, WaitsForConfigRunsWhatIsQueuedOnTermAndEndsWithZero) {
  Stack stack;
  stack.kova = stack.Run("kova", {});
  stack.kova->WaitForLine("Config");  // says what it waits for
  EXPECT_FALSE(stack.kova->Output().contains("Kova service READY!"));
  stack.StartConfig();
  stack.kova->WaitForLine("Kova service running..........");
  const auto state = stack.Run("kova", {"--get-state"});
  EXPECT_EQ(state->Wait(), 0);
  EXPECT_EQ(state->Output(), "READY\n");
  EXPECT_EQ(ReadFile(stack.Root() / "var/lib/zelt/collaboration_test_key").size(), 40U);

  const auto watcher = stack.Run("zeltcli", {"subscribe", "Kova.RTConnectionStatus"});
  watcher->WaitForLine("DISCONNECTED");  // the current state, at once
  watcher->Mark();
  stack.kova->Signal(SIGTERM);
  EXPECT_EQ(stack.kova->Wait(), 0);
  EXPECT_TRUE(stack.kova->Output().contains("Kova service SHUTDOWN complete"));
  watcher->WaitForLine("DISCONNECTED");  // published by the stop

  const auto absent = stack.Run("kova", {"--get-state"});
  EXPECT_EQ(absent->Wait(), 0);
  EXPECT_EQ(absent->Output(), "NOT_RUNNING\n");
}

TEST(Lifecycle, SecondInstanceAndLostBusEndWithOne) {
  Stack stack;
  stack.StartConfig();
  stack.StartKova();
  const auto second = stack.Run("kova", {});
  EXPECT_EQ(second->Wait(), 1) << second->Output();
  stack.bus.Kill();
  EXPECT_EQ(stack.kova->Wait(), 1);
  EXPECT_EQ(stack.config->Wait(), 1);
}

}  // namespace
}  // namespace e2e
