#include "zelt/LogClient.h"
#include "zelt/fake/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <thread>

namespace zelt {
namespace {

using ::testing::ElementsAre;
using ::testing::MatchesRegex;

constexpr std::uint32_t kCategory = 0x800A;

std::string LineOf(const std::string& text) {
  testing::internal::CaptureStderr();
  LogClient("a.cpp", "Handle", 7, kLogInfo, kCategory) << text;
  return testing::internal::GetCapturedStderr();
}

TEST(LoggerTest, LineTellsWhenWhoWhereAndWhat) {
  SetLogIdentifier("kova");
  EXPECT_THAT(LineOf("link is up"),
              MatchesRegex("....-..-.. ..:..:..\\.... I kova 0x800A Handle: link is up\n"));
}

TEST(LoggerTest, PeersTextCannotFakeASecondLineOrSteerTheTerminal) {
  using namespace std::string_literals;
  EXPECT_THAT(
      LineOf("a\nE kova\r\t\x1b[2J\x7f\xC2\x9B"
             "2J \xC3\xA9 %s {}\0b"s),
      testing::EndsWith("a\\nE kova\\r\\t\\x1b[2J\\x7f\\xc2\\x9b2J \xC3\xA9 %s {}\\x00b\n"));
}

TEST(LoggerTest, DisabledLineEvaluatesNothing) {
  const fake::LogCapture capture;
  LogClient::SetLevel(kLogWarning);
  int evaluated = 0;
  ZELT_LOG(kLogWarning, kCategory) << "shown " << ++evaluated << true;
  ZELT_LOG(kLogInfo, kCategory) << "hidden " << ++evaluated;
  EXPECT_THAT(capture.Lines(),
              ElementsAre(fake::CapturedLine{kLogWarning, kCategory, "TestBody", "shown 11"}));
  LogClient::SetLevel(99);
  EXPECT_EQ(LogClient::Level(), kLogVerbose);
}

TEST(LoggerTest, LinesOfManyThreadsAllArriveWhole) {
  const fake::LogCapture capture;
  const auto log = [] {
    for (int n = 0; n < 400; ++n) {
      ZELT_LOG_AS("Log", kLogVerbose, kCategory) << "left" << ' ' << "right";
    }
  };
  {
    const std::jthread one(log);
    const std::jthread other(log);
  }
  EXPECT_EQ(capture.Count("left right"), 800U);
}

// The level is read once in a process, so each of these looks at a new one.
TEST(LoggerDeathTest, LevelFromTheEnvironment) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto exit_with_level = [](const char* text) {
    setenv("ZELT_LOG_LEVEL", text, 1);
    const int level = LogClient::Level();
    std::_Exit(level);
  };
  EXPECT_EXIT(exit_with_level("8"), testing::ExitedWithCode(8), "^$");
  for (const char* bad : {"9", "-1", "", "6x", "debug"}) {
    EXPECT_EXIT(exit_with_level(bad), testing::ExitedWithCode(kLogInfo),
                std::string("W .*ZELT_LOG_LEVEL is \"") + bad +
                    "\", expected a number from 0 to 8; using 6");
  }
}

}  // namespace
}  // namespace zelt
