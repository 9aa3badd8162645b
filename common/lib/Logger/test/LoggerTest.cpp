#include "zelt/LogClient.h"
#include "zelt/fake/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace zelt {
namespace {

using ::testing::ElementsAre;
using ::testing::MatchesRegex;

constexpr std::uint32_t kCategory = 0x800A;

TEST(LoggerTest, LineTellsWhenAndWhereAndItsTextCannotFakeAnotherOrSteerTheTerminal) {
  using namespace std::string_literals;
  SetLogIdentifier("kova");
  testing::internal::CaptureStderr();
  LogClient("a.cpp", "Handle", 7, kLogInfo, kCategory) << "a\nE kova\r\t\x1b[2J\x7f\xC2\x9B"
                                                          "2J \xC3\xA9 %s {}\0b"s;
  const auto line = testing::internal::GetCapturedStderr();
  EXPECT_THAT(line, MatchesRegex("....-..-.. ..:..:..\\.... I kova 0x800A Handle: a.*\n"));
  EXPECT_THAT(
      line, testing::EndsWith("a\\nE kova\\r\\t\\x1b[2J\\x7f\\xc2\\x9b2J \xC3\xA9 %s {}\\x00b\n"));
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
