// What takes as long as the real time-outs do.

#include "Stack.h"

#include <gtest/gtest.h>

namespace e2e {
namespace {

TEST(Link, RadioThatNeverAnswersTheHelloGivesHandshakeFailed) {
  Stack stack;
  stack.StartAll({"--fault", "no-handshake"});
  ASSERT_EQ(stack.Tool({"socket", "set", "127.0.0.1", stack.RadioPort()}).status, 0);
  const auto up = stack.ToolInBackground({"link", "up", "--timeout", "60"});
  EXPECT_NE(up->Wait(), 0) << up->Output();
  stack.kova->WaitForLine("RtConnection status: HANDSHAKE_FAILED");
  EXPECT_FALSE(stack.Radio({"faults"}).contains("fired 0"));
}

}  // namespace
}  // namespace e2e
