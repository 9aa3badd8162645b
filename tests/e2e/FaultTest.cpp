// A radio that misbehaves, a peer that hangs, a link that goes: every fault of the simulator's plan
// is used here, and the simulator is asked whether it really fired.

#include "Stack.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <ostream>
#include <string>
#include <vector>

namespace e2e {
namespace {

enum class Outcome {
  Succeeds,   // the transfer completes
  Fails,      // the requester is told that it failed; the link is up
  LosesLink,  // the same, and the link is lost
};

struct FaultCase {
  const char* name;
  const char* fault;
  Outcome outcome;
};

constexpr FaultCase kFaults[] = {
    {"AcknowledgementLost", "drop message=TransferDataResponse after=2 count=1", Outcome::Fails},
    {"ChunkLost", "drop direction=in message=TransferDataRequest after=2 count=1", Outcome::Fails},
    {"AcknowledgementTwice", "duplicate message=TransferDataResponse", Outcome::Succeeds},
    {"AcknowledgementLate", "delay message=TransferDataResponse after=1 count=1 delay_ms=700",
     Outcome::Succeeds},
    {"AcknowledgementTooLate", "delay message=TransferDataResponse after=1 count=1 delay_ms=5600",
     Outcome::Fails},
    {"AcknowledgementCorrupted", "corrupt message=TransferDataResponse after=1 count=1",
     Outcome::Fails},
    {"AcknowledgementTruncated", "truncate message=TransferDataResponse after=1 count=1",
     Outcome::Fails},
    {"HalfFrameThenSilence", "half-frame message=TransferDataResponse after=1 count=1",
     Outcome::LosesLink},
    {"WrongChunkNumber", "wrong-chunk message=TransferDataResponse after=1 count=1",
     Outcome::Fails},
    {"WrongNameGranted", "wrong-name count=1", Outcome::Fails},
    {"WrongSizeGranted", "wrong-size count=1", Outcome::Fails},
    {"AccessRefused", "refuse-access count=1", Outcome::Fails},
    {"ChunkRefused", "refuse-chunk chunk=2 count=1", Outcome::Fails},
    {"WrongTransaction", "wrong-transaction message=TransferDataResponse", Outcome::Succeeds},
    {"RebootInTheMiddle", "reboot direction=in message=TransferDataRequest after=2 count=1",
     Outcome::LosesLink},
    {"SilentInTheMiddle", "silent message=TransferDataResponse after=1 count=1",
     Outcome::LosesLink},
};

void PrintTo(const FaultCase& fault, std::ostream* stream) {
  *stream << fault.fault;
}

class Fault : public testing::TestWithParam<FaultCase> {};

TEST_P(Fault, TransferHasExactlyOneAnswerAndTheServiceLives) {
  const FaultCase& fault = GetParam();
  Stack stack;
  stack.StartAll({"--fault", fault.fault, "--max-transfer-size", "1024", "--restart-ms", "100"});
  stack.LinkUp();
  const std::string image(5000, 'k');
  WriteFile(stack.Folder() / "image", image);
  const auto push = [&stack] {
    return stack.Tool({"firmware", "push", (stack.Folder() / "image").string(), "--as", "fw"});
  };

  const ToolResult result = push();
  EXPECT_EQ(result.status == 0, fault.outcome == Outcome::Succeeds) << result.output;
  EXPECT_EQ(stack.kova->Count("Sending TransferFirmwareResponse"), 1U);
  const std::string report = stack.Radio({"faults"});
  EXPECT_FALSE(report.contains("fired 0")) << report;

  // The cause gone, the same transfer works; a lost link wants a stop before the start.
  stack.Radio({"fault", "clear"});
  if (fault.outcome == Outcome::LosesLink) {
    stack.kova->WaitForLine("RtConnection status: CONNECTION_IS_LOST");
    stack.Tool({"send", "Kova", "Kova.RtConnectionAction", R"({"action":"START"})"});
    stack.kova->WaitForLine("Radio protocol current connection status CONNECTION_IS_LOST");
    EXPECT_EQ(stack.Tool({"link", "down"}).status, 0);
    stack.kova->Mark();
    stack.LinkUp();
  }
  const ToolResult again = push();
  EXPECT_EQ(again.status, 0) << again.output << stack.kova->Output();
  EXPECT_EQ(ReadFile(stack.Folder() / "store/fw"), image);
}

INSTANTIATE_TEST_SUITE_P(Plan, Fault, testing::ValuesIn(kFaults),
                         [](const auto& test) { return std::string(test.param.name); });

TEST(Link, AnswersInAnotherOrderReachTheirOwnAskers) {
  Stack stack;
  stack.StartAll({"--fault", "reorder message=RtVersionResponse count=1"});
  stack.LinkUp();
  const auto version = stack.ToolInBackground({"version"});
  stack.radio->WaitForLine("<- RtVersionRequest");
  const ToolResult hardware = stack.Tool({"hardware-id"});
  EXPECT_EQ(hardware.status, 0) << hardware.output;
  EXPECT_EQ(version->Wait(), 0) << version->Output();
  EXPECT_TRUE(stack.Radio({"faults"}).contains("fired 1"));
}

TEST(Link, InjectionDoesNotTakeAnAnswerOfAnotherTransaction) {
  Stack stack;
  stack.StartAll({"--fault", "wrong-transaction message=RtVersionResponse count=1"});
  stack.LinkUp();
  EXPECT_NE(stack.Tool({"inject", "0401"}).status, 0);
  EXPECT_TRUE(stack.Radio({"faults"}).contains("fired 1"));
  EXPECT_EQ(stack.Tool({"inject", "0401"}).status, 0);
}

TEST(Link, SlowLineIsSlowButNotLost) {
  Stack stack;
  stack.StartAll({"--bps", "19200", "--max-transfer-size", "4096"});
  stack.LinkUp();
  WriteFile(stack.Folder() / "image", std::string(6000, 'k'));
  const ToolResult result = stack.Tool({"firmware", "push", (stack.Folder() / "image").string()});
  EXPECT_EQ(result.status, 0) << result.output;
  EXPECT_FALSE(stack.kova->Has("CONNECTION_IS_LOST"));
}

TEST(Link, NobodyListensIsAFailedHandshakeAndAStoppedRadioIsALostLink) {
  Stack stack;
  stack.StartAll();
  ASSERT_EQ(stack.Tool({"socket", "set", "127.0.0.1", "1"}).status, 0);
  EXPECT_NE(stack.Tool({"link", "up"}).status, 0);
  stack.kova->WaitForLine("RtConnection status: HANDSHAKE_FAILED");
  EXPECT_EQ(stack.Tool({"link", "down"}).status, 0);
  stack.LinkUp();
  stack.radio->Signal(SIGSTOP);  // there, but silent
  stack.kova->WaitForLine("RtConnection status: CONNECTION_IS_LOST");
  stack.radio->Signal(SIGCONT);
  EXPECT_EQ(stack.Tool({"link", "down"}).status, 0);
  stack.kova->Mark();
  stack.LinkUp();
  stack.radio->Signal(SIGKILL);
  stack.kova->WaitForLine("RtConnection status: CONNECTION_IS_LOST");
}

TEST(Link, SerialLineCarriesAnImageAndHealsFromDamage) {
  Stack stack;
  stack.StartBus();
  stack.StartConfig();
  const auto tty = stack.Folder() / "tty";
  stack.StartRadio(
      {"--pty", tty.string(), "--fault", "corrupt message=HardwareIdResponse count=1"});
  stack.StartKovaOnSerial(tty);
  ASSERT_EQ(stack.Tool({"link", "up"}).status, 0) << stack.kova->Output();
  EXPECT_TRUE(stack.kova->Has("Attempting to start radio via UART"));
  EXPECT_NE(stack.Tool({"hardware-id", "--timeout", "1"}).status, 0);
  EXPECT_EQ(stack.Tool({"hardware-id"}).status, 0);
  const std::string image(100'000, 's');
  WriteFile(stack.Folder() / "image", image);
  const auto push =
      stack.Tool({"firmware", "push", (stack.Folder() / "image").string(), "--as", "fw"});
  EXPECT_EQ(push.status, 0) << push.output;
  EXPECT_EQ(ReadFile(stack.Folder() / "store/fw"), image);
  stack.radio->Signal(SIGKILL);
  stack.kova->WaitForLine("RtConnection status: CONNECTION_IS_LOST");
}

TEST(Peers, HungServiceHoldsNobodyElseUp) {
  Stack stack;
  stack.StartAll();
  stack.LinkUp();
  const auto hung = stack.ToolInBackground({"listen", "--as", "Collaboration"});
  hung->WaitForLine("listening");
  hung->Signal(SIGSTOP);
  stack.Radio({"notify", "EmergencyBroadcast", R"({"state":"RAISED"})"});
  stack.kova->WaitForLine("Failed to send");
  EXPECT_EQ(stack.Tool({"version"}).status, 0);
}

TEST(Peers, ConfigRestartedChangesNothingForKova) {
  Stack stack;
  stack.StartAll();
  stack.LinkUp();
  stack.config->Signal(SIGKILL);
  stack.config->Wait();
  EXPECT_EQ(stack.Tool({"version"}).status, 0);
  stack.StartConfig();
  EXPECT_EQ(stack.Tool({"version"}).status, 0);
}

TEST(Files, OnlyTheAnswerToTheLatestWriteRequestReachesTheRadio) {
  Stack stack;
  stack.StartAll();
  stack.LinkUp();
  for (const char* request :
       {R"({"fileName":"a","requestId":1})", R"({"fileName":"b","requestId":2})"}) {
    stack.Radio({"notify", "FileAccessWriteRequest", request});
  }
  for (const char* response : {R"({"requestId":1})", R"({"requestId":2})", R"({"requestId":2})"}) {
    EXPECT_EQ(stack.Tool({"send", "Kova", "Kova.FileAccessWriteResponse", response}).status, 0);
  }
  stack.kova->WaitForLine("Received response for a previous request - ignoring response");
  stack.kova->WaitForLine("No pending 'File Access Write' request - ignoring response");
  stack.radio->WaitForLine("<- FileAccessWriteResponse");
  EXPECT_EQ(stack.radio->Count("<- FileAccessWriteResponse"), 1U);
}

TEST(Files, UnansweredRequestsFailAfterTheirTime) {
  Stack stack;
  stack.StartAll();
  stack.LinkUp();
  stack.Radio({"notify", "FileAccessWriteRequest", R"({"fileName":"w","requestId":1})"});
  stack.Radio({"notify", "FileAccessCreateRequest", R"({"fileName":"c","requestId":2})"});
  stack.Radio({"notify", "FileHandleOpenRequest", R"({"fileName":"h","handleId":3})"});
  EXPECT_TRUE(stack.radio->WaitForLine("<- FileAccessWriteResponse").contains("19"));
  EXPECT_TRUE(stack.radio->WaitForLine("<- FileAccessCreateResponse").contains("8"));
  EXPECT_TRUE(stack.radio->WaitForLine("<- FileHandleOpenResponse").contains("17925276"));
}

}  // namespace
}  // namespace e2e
