#include "LogLimits.h"
#include "LogOutputs.h"
#include "zelt/LogClient.h"
#include "zelt/fake/LogCapture.h"
#include "zelt/fake/TempFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <iterator>
#include <map>
#include <ostream>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

namespace zelt {
namespace {

using namespace std::string_literals;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::MatchesRegex;

constexpr std::uint32_t kCategory = 0x800A;

void Log(int level, std::string_view text) {
  LogClient("a.cpp", "Handle", 7, level, kCategory) << text;
}

// What one line of this text looks like on standard error.
std::string Written(std::string_view text) {
  testing::internal::CaptureStderr();
  Log(kLogInfo, text);
  FlushLog();
  return testing::internal::GetCapturedStderr();
}

TEST(LoggerTest, LineTellsWhenAndWhereAndItsTextCannotFakeAnotherOrSteerTheTerminal) {
  SetLogIdentifier("ko\nva");
  EXPECT_THAT(Written("a"),
              MatchesRegex("....-..-.. ..:..:..\\.... I ko\\\\nva 0x800A Handle: a\n"));
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"a\nE kova\r\t\x1b[2J\x7f\0b"s, R"(a\nE kova\r\t\x1b[2J\x7f\x00b)"},
      {"\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x93\xB7 %s {}",
       "\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x93\xB7 %s {}"},
      {"C1 \xC2\x9B", R"(C1 \xc2\x9b)"},
      {"alone \xA9, cut \xE2\x82", R"(alone \xa9, cut \xe2\x82)"},
      {"too long \xC0\xAF \xE0\x80\xAF", R"(too long \xc0\xaf \xe0\x80\xaf)"},
      {"surrogate \xED\xA0\x80", R"(surrogate \xed\xa0\x80)"},
      {"too large \xF4\x90\x80\x80 \xFF", R"(too large \xf4\x90\x80\x80 \xff)"}};
  for (const auto& [text, shown] : rows) {
    EXPECT_THAT(Written(text), EndsWith("Handle: " + shown + "\n"));
  }
}

TEST(LoggerTest, LongLineIsCutAndSaysSo) {
  SetLogIdentifier("kova");
  for (const char letter : {'#', '\x01'}) {
    const std::string line = Written(std::string(70000, letter));
    const auto shown = std::ranges::count(line, letter == '#' ? '#' : '\\');
    EXPECT_THAT(line, EndsWith(" [cut, " + std::to_string(70000 - shown) + " bytes more]\n"));
    EXPECT_LE(line.size(), 4096U);
    EXPECT_GT(line.size(), 4000U);
  }
}

TEST(LoggerTest, DisabledLineEvaluatesNothing) {
  const fake::LogCapture capture;
  LogClient::SetLevel(kLogWarning);
  int evaluated = 0;
  const char* const nothing = nullptr;
  ZELT_LOG(kLogWarning, kCategory) << "shown " << ++evaluated << true << 'c' << -1.5 << nothing;
  ZELT_LOG(kLogInfo, kCategory) << "hidden " << ++evaluated;
  EXPECT_THAT(capture.Lines(), ElementsAre(fake::CapturedLine{kLogWarning, kCategory, "TestBody",
                                                              "shown 11c-1.5(null)"}));
  LogClient::SetLevel(99);
  EXPECT_EQ(LogClient::Level(), kLogVerbose);
}

// The level is read once in a process, so each of these looks at a new one.
TEST(LoggerDeathTest, LevelFromTheEnvironment) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto exit_with_level = [](const char* text) {
    setenv("ZELT_LOG_LEVEL", text, 1);
    const int level = LogClient::LevelIsEnabled(LogClient::Level() + 1) ? 99 : LogClient::Level();
    FlushLog();
    std::_Exit(level);
  };
  EXPECT_EXIT(exit_with_level("8"), testing::ExitedWithCode(8), "^$");
  for (const char* bad : {"9", "-1", "", "6x", "debug"}) {
    EXPECT_EXIT(exit_with_level(bad), testing::ExitedWithCode(kLogInfo),
                std::string("W .*ZELT_LOG_LEVEL is \"") + bad +
                    "\", expected a number from 0 to 8; using 6");
  }
}

// Standard error as a pipe that this test reads, or does not.
class PipedLog : public testing::Test {
 protected:
  PipedLog() : standard_error_(dup(STDERR_FILENO)) {
    std::array<int, 2> ends{};
    EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    reader_ = ends[0];
    fcntl(reader_, F_SETPIPE_SZ, 4096);
    FlushLog();
    dup2(ends[1], STDERR_FILENO);
    close(ends[1]);
  }
  ~PipedLog() override {
    FlushLog();
    dup2(standard_error_, STDERR_FILENO);
    close(standard_error_);
    close(reader_);
  }

  // The texts of the lines up to the first with `last` in it, or as many as come in time.
  std::vector<std::string> ReadTo(const std::string& last) {
    std::vector<std::string> texts;
    while (texts.empty() || !texts.back().contains(last)) {
      const std::size_t end = unread_.find('\n');
      if (end != std::string::npos) {
        texts.push_back(unread_.substr(0, end).substr(unread_.find(": ") + 2));
        unread_.erase(0, end + 1);
        continue;
      }
      std::array<char, 4096> bytes{};
      pollfd readable{reader_, POLLIN, 0};
      const ssize_t size =
          poll(&readable, 1, 60000) > 0 ? read(reader_, bytes.data(), bytes.size()) : 0;
      if (size <= 0) {
        ADD_FAILURE() << "no line with " << last;
        break;
      }
      unread_.append(bytes.data(), static_cast<std::size_t>(size));
    }
    return texts;
  }

  int standard_error_;
  int reader_;
  std::string unread_;
};

TEST_F(PipedLog, ReaderThatDoesNotReadHoldsNobodyUpAndMissesTheOldestLines) {
  constexpr int kLines = 20000;
  const std::string padding(200, '.');
  for (int i = 0; i < kLines; ++i) {
    Log(kLogInfo, std::to_string(i) + " " + padding);
  }
  FlushLog();
  const auto texts = ReadTo(std::to_string(kLines - 1) + " ");
  int next = 0;
  int notices = 0;
  for (const std::string& text : texts) {
    if (text.contains("lines are missing here, nobody read them in time")) {
      next += std::stoi(text);
      ++notices;
    } else {
      ASSERT_EQ(std::stoi(text), next++);
    }
  }
  EXPECT_EQ(next, kLines);
  EXPECT_GE(notices, 1);
  const std::size_t kept = texts.size() * (padding.size() + sizeof(LogEntry));
  EXPECT_TRUE(kept > 1'000'000 && kept < 1'200'000) << kept;
}

TEST_F(PipedLog, ReaderThatWentAwayEndsNothing) {
  close(std::exchange(reader_, -1));
  Log(kLogInfo, "to nobody");
  FlushLog();
}

TEST_F(PipedLog, ErrorsOfOnePlaceAreCountedAndTrafficIsNot) {
  for (int i = 0; i < 13; ++i) {
    Log(kLogError, "Failed to send");
  }
  const auto first = ReadTo("more like this");
  EXPECT_EQ(first.back(), "[3 more like this] Failed to send") << "told without a further line";
  EXPECT_EQ(first.size(), 11U);

  std::vector<std::jthread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([] {
      for (int i = 0; i < 500; ++i) {
        Log(kLogInfo, "Received");
        Log(kLogError, "Failed to send");
      }
    });
  }
  threads.clear();
  FlushLog();
  Log(kLogInfo, "the end");
  std::map<std::string, int> written;
  int held_back = 0;
  for (const std::string& text : ReadTo("the end")) {
    ++written[text.starts_with('[') ? "[" : text];
    held_back += text.starts_with('[') ? std::stoi(text.substr(1)) : 0;
  }
  EXPECT_EQ(written["Received"], 2000);
  EXPECT_EQ(written["Failed to send"] + held_back, 2000);
  EXPECT_GE(held_back, 1900);
}

// With the sanitizers a child of a process with threads may neither start one nor allocate.
#if !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__)
TEST_F(PipedLog, ChildAfterForkHasALogOfItsOwn) {
  Log(kLogInfo, std::string(4000, '.'));
  Log(kLogInfo, std::string(4000, '.'));  // does not fit into the pipe
  Log(kLogInfo, "parent");
  const pid_t child = fork();
  if (child == 0) {
    Log(kLogInfo, "child");
    std::exit(0);
  }
  std::vector<std::string> texts = ReadTo("child");
  Log(kLogInfo, "end");
  std::ranges::move(ReadTo("end"), std::back_inserter(texts));
  EXPECT_EQ(texts.size(), 5U) << "each line once";
  waitpid(child, nullptr, 0);
}
#endif

TEST(LogLimitsTest, OnePlaceHasTenLinesOfATextAndFiftyInAllEachSecond) {
  LogLimits limits;
  const auto start = LogLimits::Clock::now();
  const auto log = [&](int milliseconds, int level, int line, const std::string& text) {
    LogEntry entry{};
    entry.file = "a.cpp";
    entry.line = line;
    entry.level = level;
    return limits.Admit(entry, text, start + std::chrono::milliseconds(milliseconds));
  };
  const auto reports = [&](int milliseconds) {
    std::vector<std::string> told;
    limits.Report(
        start + std::chrono::milliseconds(milliseconds),
        [&](const LogEntry& entry, const std::string& text, std::uint64_t count) {
          told.push_back(std::to_string(entry.line) + " " + text + " " + std::to_string(count));
        });
    return told;
  };
  for (int i = 0; i < 60; ++i) {
    EXPECT_EQ(log(i, kLogError, 1, "same"), i < 10);
    EXPECT_EQ(log(i, kLogWarning, 2, std::to_string(i)), i < 50);
    EXPECT_TRUE(log(i, kLogInfo, 3, "traffic"));
  }
  EXPECT_TRUE(log(60, kLogError, 1, "other"));
  EXPECT_EQ(limits.NextReport(), start + std::chrono::seconds(1));
  EXPECT_THAT(reports(999), testing::IsEmpty());
  EXPECT_THAT(reports(1000), testing::UnorderedElementsAre("1 same 50", "2 59 10"));
  EXPECT_EQ(limits.NextReport(), LogLimits::Clock::time_point::max());
  for (int i = 0; i < 11; ++i) {
    EXPECT_EQ(log(1000, kLogError, 1, "same"), i < 10) << "a new second";
  }
  EXPECT_THAT(reports(2000), ElementsAre("1 same 1"));
}

// How a process may end. What it has logged is written then; statics log last.
struct End {
  const char* name;
  void (*end)();
};
void PrintTo(const End& row, std::ostream* stream) {
  *stream << row.name;
}
constexpr End kEnds[] = {{"Exit", [] { std::exit(3); }},
                         {"Abort", [] { std::abort(); }},
                         {"SignalOfAFault", [] { raise(SIGSEGV); }},
                         {"Fault", [] { __builtin_trap(); }},
                         {"WrittenBefore", [] {
                            FlushLog();
                            std::_Exit(3);
                          }}};

class LogAtTheEnd : public testing::TestWithParam<End> {};

TEST_P(LogAtTheEnd, NothingIsLost) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const bool exits = std::string_view(GetParam().name) == "Exit";
  const auto log_and_end = [exits] {
    struct LastLine {
      ~LastLine() { Log(kLogInfo, "line 500"); }
    };
    for (int i = 0; i < 500; ++i) {
      Log(kLogInfo, "line " + std::to_string(i));
    }
    if (exits) {
      static const LastLine last;
    }
    GetParam().end();
  };
  const auto has_all_lines = testing::Truly([exits](const std::string& output) {
    int lines = 0;
    while (output.contains("line " + std::to_string(lines) + "\n")) {
      ++lines;
    }
    return lines == (exits ? 501 : 500);
  });
  EXPECT_EXIT(log_and_end(), [](int status) { return status != 0; }, has_all_lines);
}
INSTANTIATE_TEST_SUITE_P(Ends, LogAtTheEnd, testing::ValuesIn(kEnds),
                         [](const auto& test) { return std::string(test.param.name); });

TEST(LogOutputsTest, JournalStreamIsRecognisedAndBothOnlyWhenAskedFor) {
  struct stat standard_error{};
  standard_error.st_dev = 8;
  standard_error.st_ino = 4711;
  const std::tuple<const char*, const char*, LogChoice> rows[] = {
      {nullptr, nullptr, {true, false, false}},  {nullptr, "8:4711", {false, true, true}},
      {nullptr, "8:4712", {true, false, false}}, {"0", "8:4711", {true, false, true}},
      {"1", nullptr, {true, true, false}},       {"1", "8:4711", {false, true, true}}};
  for (const auto& [asked, stream, choice] : rows) {
    EXPECT_EQ(ChooseLogOutputs(asked, stream, standard_error), choice)
        << (asked == nullptr ? "-" : asked) << (stream == nullptr ? "-" : stream);
  }
}

TEST(LogOutputsTest, JournalGetsFieldsAndStandardErrorThePriorityWhenItIsAway) {
  const fake::TempFolder folder;
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  const std::string path = folder.path / "socket";
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  const int journal = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(bind(journal, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);

  LogOutputs outputs({.standard_error = false, .journal = true, .priorities = true}, path);
  const auto write = [&outputs](const std::string& text) {
    const LogEntry entry{.time = {},
                         .file = "a.cpp",
                         .function = "Handle",
                         .whole_size = text.size(),
                         .size = static_cast<std::uint32_t>(text.size()),
                         .line = 7,
                         .level = kLogVerbose,
                         .category = kCategory};
    LogQueue queue(4096);
    LogQueue::Batch batch;
    queue.Push(entry, text);
    queue.Take(1, batch);
    testing::internal::CaptureStderr();
    outputs.Write(batch, "kova");
    return testing::internal::GetCapturedStderr();
  };
  EXPECT_EQ(write("a\nPRIORITY=0"), "");
  std::array<char, 1000> datagram{};
  EXPECT_GT(recv(journal, datagram.data(), datagram.size() - 1, MSG_DONTWAIT), 0);
  EXPECT_STREQ(datagram.data(),
               "MESSAGE=a\\nPRIORITY=0\nPRIORITY=7\nSYSLOG_IDENTIFIER=kova\nCODE_FILE=a.cpp\n"
               "CODE_LINE=7\nCODE_FUNC=Handle\nZELT_CATEGORY=0x800A\n");
  close(journal);
  EXPECT_THAT(write("b"), MatchesRegex("<7>....-..-.. .* V kova 0x800A Handle: b\n"));
}

}  // namespace
}  // namespace zelt
