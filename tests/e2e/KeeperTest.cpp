// The link comes back without a hand, unless somebody has stopped it on purpose.

#include "Stack.h"

#include <gtest/gtest.h>

#include <csignal>

namespace e2e {
namespace {

TEST(Keeper, BringsTheLinkBackAndLeavesItAloneWhenItWasStopped) {
  Stack stack;
  const std::string port = (stack.Root() / "dev/ttyS2").string();  // the same for every radio
  const auto tool = [&stack](const std::vector<std::string>& arguments) {
    const ToolResult result = stack.Tool(arguments);
    EXPECT_EQ(result.status, 0) << result.output;
    return result.output;
  };
  // What the keeper says once it has heard all that Kova has told so far. What it sent to Kova
  // because of that, Kova has taken.
  const auto settled = [&] {
    tool({"link", "status"});
    std::string said = tool({"link", "keep", "status"});
    tool({"link", "status"});
    return said;
  };
  const auto keeper = stack.Run("zelt-keeper", {});
  keeper->WaitForLine("Keeping the link");  // before there is a Kova
  const auto watch = stack.Run("zeltcli", {"subscribe", "zelt.KeepLinkStatus"});
  const auto link_is = [&stack](const char* state) {
    stack.kova->WaitForLine(std::string("RtConnection status: ") + state);
    stack.kova->Mark();
  };
  const auto link_is_up = [&] {
    link_is("CONNECTED");
    watch->WaitForLine(R"({"state":"ON","attempts":0})");  // for a second, so that it counts
    watch->Mark();
  };
  stack.StartConfig();
  stack.StartRadio({"--pty", port});
  stack.StartKova();
  link_is_up();

  stack.radio->Halt();  // there, but silent
  link_is("CONNECTION_IS_LOST");
  stack.radio->Signal(SIGCONT);
  link_is_up();
  for (int times = 0; times < 3; ++times) {
    stack.radio.reset();
    link_is("CONNECTION_IS_LOST");
    stack.kova->WaitForLine("Radio protocol start failed");  // the port is gone
    stack.StartRadio({"--pty", port});
    link_is_up();
  }
  stack.kova->Signal(SIGTERM);  // which stops the link, but not on purpose
  EXPECT_EQ(stack.kova->Wait(), 0);
  stack.StartKova();
  link_is_up();

  tool({"link", "down"});
  watch->WaitForLine(R"("state":"HELD")");
  stack.kova->Signal(SIGKILL);
  stack.kova->Wait();
  stack.StartKova();
  stack.kova->WaitForLine("RtConnection status: DISCONNECTED");  // told to the keeper
  EXPECT_TRUE(settled().starts_with("held: "));
  EXPECT_TRUE(stack.kova->Lines("Start RadioProtocol").empty());
  tool({"link", "keep", "on"});
  link_is_up();

  tool({"link", "down"});
  tool({"link", "up"});  // by hand, as without a keeper
  EXPECT_TRUE(settled().starts_with("on: "));
  EXPECT_TRUE(tool({"link", "keep", "off"}).starts_with("off: "));
  stack.kova->Mark();
  stack.radio.reset();
  link_is("CONNECTION_IS_LOST");
  EXPECT_TRUE(settled().starts_with("off: "));
  EXPECT_TRUE(stack.kova->Lines("Start RadioProtocol").empty());
  keeper->Signal(SIGTERM);
  EXPECT_EQ(keeper->Wait(), 0);
}

}  // namespace
}  // namespace e2e
