// A radio that misbehaves, a peer that hangs, a link that goes, one of each kind; the simulator is
// asked whether its fault really fired.

#include "Stack.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <ostream>
#include <string>
#include <vector>

namespace e2e {
namespace {

struct FaultCase {
  const char* name;
  const char* fault;
  bool succeeds = false;    // else the requester is told that it failed
  bool loses_link = false;  // as well
};

constexpr FaultCase kFaults[] = {
    {"AcknowledgementLost", "drop message=TransferDataResponse after=2 count=1"},
    {"AcknowledgementTwice", "duplicate message=TransferDataResponse", true},
    {"AcknowledgementCorrupted", "corrupt message=TransferDataResponse after=1 count=1"},
    {"HalfFrameThenSilence", "half-frame message=TransferDataResponse after=1 count=1", false,
     true},
    {"RebootInTheMiddle", "reboot direction=in message=TransferDataRequest after=2 count=1", false,
     true},
};

void PrintTo(const FaultCase& fault, std::ostream* stream) {
  *stream << fault.fault;
}

class Fault : public testing::TestWithParam<FaultCase> {};

TEST_P(Fault, TransferHasExactlyOneAnswerAndTheServiceLives) {
  const FaultCase& fault = GetParam();
  Stack stack;
  stack.StartAll({"--fault", fault.fault, "--max-transfer-size", "1024", "--restart-ms", "100"});
  const auto push = stack.Push(5000);
  EXPECT_EQ(push->Wait(), fault.succeeds ? 0 : 1) << push->Output();
  EXPECT_EQ(stack.kova->Lines("Sending TransferFirmwareResponse").size(), 1U);
  const std::string report = stack.Radio({"faults"});
  EXPECT_FALSE(report.contains("fired 0")) << report;

  // The cause gone, the same transfer works; a lost link wants a stop before the start.
  stack.Radio({"fault", "clear"});
  if (fault.loses_link) {
    stack.kova->WaitForLine("RtConnection status: CONNECTION_IS_LOST");
    stack.Tool({"send", "Kova", "Kova.RtConnectionAction", R"({"action":"START"})"});
    stack.kova->WaitForLine("Radio protocol current connection status CONNECTION_IS_LOST");
    stack.LinkUp();
  }
  const auto again = stack.Push(5001);
  EXPECT_EQ(again->Wait(), 0) << again->Output() << stack.kova->Output();
  EXPECT_TRUE(stack.RadioHasImage());
}

INSTANTIATE_TEST_SUITE_P(Plan, Fault, testing::ValuesIn(kFaults),
                         [](const auto& test) { return std::string(test.param.name); });

TEST(Link, NobodyListensIsAFailedHandshakeAndAStoppedRadioIsALostLink) {
  Stack stack;
  stack.StartAll();
  EXPECT_EQ(stack.Tool({"link", "down"}).status, 0);
  ASSERT_EQ(stack.Tool({"socket", "set", "127.0.0.1", "1"}).status, 0);
  EXPECT_EQ(stack.Tool({"link", "up"}).status, 1);
  stack.kova->WaitForLine("RtConnection status: HANDSHAKE_FAILED");
  stack.LinkUp();
  stack.radio->Halt();  // there, but silent
  stack.kova->WaitForLine("RtConnection status: CONNECTION_IS_LOST");
  stack.radio->Signal(SIGCONT);
  stack.kova->Mark();
  stack.LinkUp();
  stack.radio->Signal(SIGKILL);
  stack.kova->WaitForLine("RtConnection status: CONNECTION_IS_LOST");
}

TEST(Link, SerialLineCarriesAnImageAndHealsFromDamage) {
  Stack stack;
  stack.StartConfig();
  stack.StartRadio({"--pty", (stack.Root() / "dev/ttyS2").string(), "--fault",
                    "corrupt message=HardwareIdResponse count=1"});
  stack.StartKova();
  ASSERT_EQ(stack.Tool({"link", "up"}).status, 0) << stack.kova->Output();
  EXPECT_TRUE(stack.kova->Output().contains("Attempting to start radio via UART"));
  EXPECT_EQ(stack.Tool({"hardware-id", "--timeout", "1"}).status, 7);
  EXPECT_EQ(stack.Tool({"hardware-id"}).status, 0);
  const auto push = stack.Push(100'000);
  EXPECT_EQ(push->Wait(), 0) << push->Output();
  EXPECT_TRUE(stack.RadioHasImage());
  stack.radio->Signal(SIGKILL);
  stack.kova->WaitForLine("RtConnection status: CONNECTION_IS_LOST");
}

TEST(Peers, HungServiceHoldsNobodyElseUp) {
  Stack stack;
  stack.StartAll();
  const auto hung = stack.Run("zeltcli", {"listen", "--as", "Collaboration"});
  hung->WaitForLine("listening");
  hung->Halt();
  stack.Radio({"notify", "EmergencyBroadcast", R"({"state":"RAISED"})"});
  EXPECT_EQ(stack.Tool({"version"}).status, 0);
  stack.kova->WaitForLine("[Collaboration] has acknowledged nothing for 5 s");
  stack.Radio({"notify", "EmergencyBroadcast", R"({"state":"RAISED"})"});
  stack.kova->WaitForLine("Failed to send");
  EXPECT_EQ(stack.Tool({"version"}).status, 0);

  const auto another = stack.Run("zeltcli", {"listen", "--as", "Battery"});
  another->WaitForLine("listening");
  another->Halt();
  stack.Radio({"notify", "BatteryLevelBroadcast", R"({"percent":51})"});
  stack.kova->WaitForLine("Handle BatteryLevel");
  const auto start = std::chrono::steady_clock::now();
  stack.kova->Signal(SIGTERM);
  EXPECT_EQ(stack.kova->Wait(), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4))
      << "half a second for the hung one";
}

TEST(Peers, HungKovaIsATimeOutThatScriptsCanRead) {
  Stack stack;
  stack.StartConfig();
  stack.StartKova();
  stack.kova->Halt();
  for (const char* command : {"status", "up", "down"}) {
    const ToolResult link = stack.Tool({"--json", "link", command});
    EXPECT_EQ(link.status, 7);
    EXPECT_EQ(link.output.find(R"({"ok":false,"exit":7,)"), 0U) << link.output;
  }
  const ToolResult send = stack.Tool({"send", "Kova", "UsbStatus"});
  EXPECT_EQ(send.status, 7);
  EXPECT_TRUE(send.output.contains("did not take Kova.UsbStatus within 1 s")) << send.output;
}

TEST(Peers, ToolWhosePushAnotherToolTakesTheAnswerOfDoesNotWaitForEver) {
  Stack stack;
  stack.StartAll({"--fault", "delay message=TransferDataResponse delay_ms=300",
                  "--max-transfer-size", "1024"});
  const auto push = stack.Push(5000);
  stack.radio->WaitForLine("<- FileAccessRequest");
  EXPECT_EQ(stack.Tool({"datetime", "get"}).status, 0);
  EXPECT_EQ(push->Wait(), 7);
  EXPECT_TRUE(push->Output().contains("another tool asked Kova meanwhile")) << push->Output();
  EXPECT_TRUE(stack.RadioHasImage());
}

TEST(Peers, ConfigRestartedChangesNothingForKova) {
  Stack stack;
  stack.StartAll();
  stack.config.reset();
  EXPECT_EQ(stack.Tool({"version"}).status, 0);
  stack.StartConfig();
  EXPECT_EQ(stack.Tool({"version"}).status, 0);
}

}  // namespace
}  // namespace e2e
