// What takes as long as the real time-outs do.

#include "Stack.h"

#include <gtest/gtest.h>

namespace e2e {
namespace {

TEST(Link, RadioThatNeverAnswersTheHelloGivesHandshakeFailed) {
  Stack stack;
  stack.StartConfig();
  stack.StartRadio({"--fault", "no-handshake"});
  stack.StartKova();
  ASSERT_EQ(stack.Tool({"socket", "set", "127.0.0.1", stack.RadioPort()}).status, 0);
  const ToolResult up = stack.Tool({"link", "up", "--timeout", "60"});
  EXPECT_EQ(up.status, 1) << up.output;
  EXPECT_TRUE(up.output.contains("HANDSHAKE_FAILED"));
  EXPECT_FALSE(stack.Radio({"faults"}).contains("fired 0"));
}

}  // namespace
}  // namespace e2e
