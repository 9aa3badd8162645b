#include "LinkLogic.h"
#include "orka/fake/Deadline.h"
#include "zelt/fake/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace orka::test {
namespace {

using namespace std::chrono_literals;
using codec::Bytes;
using codec::LinkControl;
using testing::HasSubstr;
using Milliseconds = std::chrono::milliseconds;

constexpr std::chrono::nanoseconds kSlow = std::chrono::nanoseconds(10s) / 115200;  // 8N1

Bytes MakeFrame(pel::FrameKind kind, codec::ByteView payload) {
  Bytes bytes;
  codec::AppendFrame({.kind = static_cast<std::uint8_t>(kind)}, payload, bytes);
  return bytes;
}
Bytes Control(codec::ByteView payload) {
  return MakeFrame(pel::FrameKind::LinkControl, payload);
}
const Bytes kAnswer = codec::Encode(codec::HelloAnswer{1, true, 100, "cut", {}});
Bytes Answer(std::string name, std::uint16_t version = 1, std::uint16_t size = 100) {
  return Control(codec::Encode(codec::HelloAnswer{version, true, size, std::move(name), {}}));
}
Bytes Broadcast(std::size_t payload) {
  return MakeFrame(pel::FrameKind::Broadcast, Bytes(payload, 7));
}
Bytes Damaged(Bytes frame) {
  frame[frame.size() / 2] ^= 1U;
  return frame;
}

// A link on a line and a clock of the test's own, driven by a script. Its words:
//
//   MILLISECONDS    that pass; "over" are many           greet, connect  the handshake, half or
//   whole frame:SIZE, damaged:SIZE, slowly:SIZE, half:SIZE, unknown, noise     what comes from the
//   radio answer:NAME, newer, no-files, cut, goodbye           its link control; "alive": from now
//   on takes:BYTES     what the line takes; "all"; "frame": as long as the last that was queued
//   COUNTxSIZE      so many broadcasts are queued        hold, go, fail, close
//   COUNT*( ... )                                        all-sent: keep-alives are traced, too
//
// Run() gives what came of it, each after its time in milliseconds: names and sizes that were told,
// "lost" or "failed", and with ">" what was sent.
class Script {
 public:
  explicit Script(std::chrono::nanoseconds byte_time = 0ns) : byte_time_(byte_time) {
    logic_.Open(now_);
  }

  std::string Run(const std::string& script) {
    std::istringstream words(script);
    Run(words);
    const auto malformed = counters_.dropped_malformed.load();
    return trace_ + (malformed == 0 ? "" : " malformed:" + std::to_string(malformed));
  }
  LinkLogic& Logic() { return logic_; }

 private:
  static constexpr std::size_t kAll = std::numeric_limits<std::size_t>::max();

  void Run(std::istream& words) {
    for (std::string word; words >> word && word != ")";) {
      const std::size_t colon = word.find(':');
      const std::string value = colon == std::string::npos ? "" : word.substr(colon + 1);
      if (word.ends_with("*(")) {
        const auto start = words.tellg();
        for (int times = std::stoi(word); times > 0; --times) {
          words.seekg(start);
          Run(words);
        }
      } else if (const std::size_t x = word.find('x');
                 x != 0 && x < word.size() - 1 && std::isdigit(word[x - 1]) != 0) {
        last_size_ = Broadcast(std::stoul(word.substr(x + 1))).size();
        for (int count = std::stoi(word); count > 0; --count) {
          logic_.Queue(Broadcast(std::stoul(word.substr(x + 1))), std::stoul(word.substr(x + 1)));
        }
        Carry();
      } else if (std::isdigit(word[0]) != 0) {
        Pass(Milliseconds(std::stoi(word)));
      } else {
        Do(word.substr(0, colon), value);
      }
    }
  }
  void Do(const std::string& word, const std::string& value) {
    const std::map<std::string, std::function<void()>> words = {
        {"over", [&] { Pass(100s); }},
        {"greet", [&] { logic_.LineIsThere(now_), Carry(); }},
        {"connect", [&] { logic_.LineIsThere(now_), Carry(), Bring(Answer("radio")); }},
        {"frame", [&] { Bring(Broadcast(std::stoul(value))); }},
        {"damaged", [&] { Bring(Damaged(Broadcast(std::stoul(value)))); }},
        {"slowly", [&] { BringSlowly(Broadcast(std::stoul(value))); }},
        {"slowly-damaged", [&] { BringSlowly(Damaged(Broadcast(std::stoul(value)))); }},
        {"half", [&] { Bring(codec::ByteView(Broadcast(1000)).first(std::stoul(value) / 2)); }},
        {"unknown", [&] { Bring(MakeFrame(static_cast<pel::FrameKind>(4), Bytes{1, 2})); }},
        {"noise", [&] { Bring(Bytes{0x55}); }},
        {"answer", [&] { Bring(Answer(value)); }},
        {"newer", [&] { Bring(Answer("newer", 2)); }},
        {"no-files", [&] { Bring(Answer("small", 1, 0)); }},
        {"cut", [&] { Bring(Control(codec::ByteView(kAnswer).first(kAnswer.size() - 1))); }},
        {"goodbye", [&] { Bring(Control(codec::Encode(LinkControl::Goodbye))); }},
        {"alive", [&] { next_alive_ = now_ + 800ms; }},
        {"takes",
         [&] {
           takes_ = BytesTaken(value);
           Carry();
         }},
        {"hold", [&] { logic_.Hold(); }},
        {"go", [&] { logic_.Continue(now_); }},
        {"fail", [&] { logic_.LineFailed("too late"), Carry(); }},
        {"close", [&] { logic_.Close(), Carry(); }},
        {"all-sent", [&] { all_sent_ = true; }},
    };
    words.at(word)();
  }

  std::size_t BytesTaken(const std::string& value) const {
    if (value == "all") {
      return kAll;
    }
    return value == "frame" ? last_size_ : std::stoul(value);
  }
  void Trace(const std::string& what) {
    const auto now = std::to_string((now_ - LinkLogic::Time()) / 1ms);
    trace_ += (trace_.empty() ? "" : " ") + now + ":" + what;
  }
  void Bring(codec::ByteView bytes) {
    logic_.Received(bytes, now_);
    Carry();
  }
  // The radio sends this over the line, at the line's speed.
  void BringSlowly(const Bytes& bytes) {
    for (const std::uint8_t byte : bytes) {
      Pass(byte_time_);
      Bring(Bytes{byte});
    }
  }
  void Pass(std::chrono::nanoseconds time) {
    for (const auto until = now_ + time; !logic_.IsClosed();) {
      now_ = std::min({until, std::max(now_, logic_.NextLook(now_)), next_alive_});
      if (now_ == next_alive_) {
        next_alive_ += 800ms;
        Bring(Control(codec::Encode(LinkControl::KeepAlive)));
      }
      logic_.Look(now_);
      Carry();
      if (now_ == until && logic_.NextLook(now_) > now_) {
        return;
      }
    }
  }
  void Carry() {
    while (takes_ > 0) {
      const auto bytes = logic_.Waiting(now_);
      const std::size_t count = std::min(bytes.size(), takes_);
      if (count == 0) {
        break;
      }
      radio_.Feed(bytes.first(count));
      takes_ -= takes_ == kAll ? 0 : count;
      logic_.Took(count, now_);
    }
    logic_.Waiting(now_);
    logic_.TellEnd();
  }
  bool Sent(const pel::BaseMessage& header, codec::ByteView payload) {
    static constexpr const char* kNames[] = {"", ">hello", "", ">alive", ">goodbye"};
    if (header.kind != static_cast<int>(pel::FrameKind::LinkControl)) {
      Trace(">" + std::to_string(payload.size()));
    } else if (all_sent_ || *codec::LinkControlCode(payload) != LinkControl::KeepAlive) {
      Trace(kNames[static_cast<std::size_t>(*codec::LinkControlCode(payload))]);
    }
    return true;
  }

  const std::chrono::nanoseconds byte_time_;
  fake::Deadline deadline_;
  AtomicCounters counters_;
  std::string trace_;
  bool all_sent_ = false;
  LinkLogic::Time now_{};
  LinkLogic::Time next_alive_ = LinkLogic::Time::max();
  std::size_t takes_ = kAll;
  std::size_t last_size_ = 0;
  codec::Deframer radio_{[this](const auto& header, auto payload) { return Sent(header, payload); },
                         [this](codec::Drop, std::size_t) { Trace(">damaged"); }};
  LinkLogic logic_{
      LinkSettings{{1, true, false, "1.2.3", "camera"}, 7, 30s, "the line", byte_time_}, counters_,
      LinkEvents{[this](const codec::HelloAnswer& answer) { Trace(answer.name); },
                 [this](const pel::BaseMessage&, codec::ByteView payload) {
                   Trace(std::to_string(payload.size()));
                   return FrameVerdict{};
                 },
                 [this](bool was_connected) { Trace(was_connected ? "lost" : "failed"); }}};
};

struct Row {
  const char* name;
  std::chrono::nanoseconds byte_time;
  const char* script;
  const char* trace;
  const char* log = "";  // what a line of it says
};

void PrintTo(const Row& row, std::ostream* stream) {
  *stream << row.script;
}

class LinkLogicTest : public testing::TestWithParam<Row> {};

TEST_P(LinkLogicTest, DoesWhatTheTableSays) {
  const zelt::fake::LogCapture log;
  Script script(GetParam().byte_time);
  EXPECT_EQ(script.Run(GetParam().script), GetParam().trace);
  EXPECT_TRUE(log.Contains(GetParam().log));
}

constexpr std::chrono::nanoseconds kCrawling = std::chrono::nanoseconds(10s) / 1200;

constexpr Row kRows[] = {
    // A radio is lost in time, and not before.
    {"Silent", 0ns, "connect over", "0:>hello 0:radio 2500:>goodbye 2500:lost"},
    {"SilentOnASlowLine", kSlow, "connect over", "0:>hello 0:radio 8212:>goodbye 8212:lost"},
    {"KeepAlives", 0ns, "connect alive over", "0:>hello 0:radio"},
    {"LastGoodFrameCounts", 0ns, "connect 2000 frame:10 over",
     "0:>hello 0:radio 2000:10 4500:>goodbye 4500:lost"},
    {"DeadInMidFrameUnderNoise", 0ns, "connect half:1000 60*( 100 noise ) over",
     "0:>hello 0:radio 2500:>goodbye 2500:lost"},
    {"NothingButDamage", 0ns, "connect 60*( 100 damaged:10 ) over",
     "0:>hello 0:radio 2500:>goodbye 2500:lost"},
    {"FramesOfNoKnownKind", 0ns, "connect 60*( 100 unknown ) over",
     "0:>hello 0:radio 2500:>goodbye 2500:lost malformed:24"},
    {"OneLongFrameOfManyIsDamaged", kSlow,
     "connect slowly:40000 slowly-damaged:40000 slowly:40000 over",
     "0:>hello 0:radio 3487:40000 10462:40000 18674:>goodbye 18674:lost"},
    {"HeldBackAndThenSilent", 0ns, "connect hold hold 60000 go over",
     "0:>hello 0:radio 62500:>goodbye 62500:lost"},
    {"GoingOnWithoutHoldingIsNoLife", 0ns, "connect 2000 go over",
     "0:>hello 0:radio 2500:>goodbye 2500:lost"},
    {"TakesNothing", 0ns, "connect alive 5000 takes:0 1x100 over", "0:>hello 0:radio 15000:lost"},
    {"TakesNothingOfADriverThatIsSlow", kCrawling, "connect alive takes:0 1x100 over",
     "0:>hello 0:radio 44133:lost"},
    {"TakesAByteNowAndThen", 0ns, "connect alive takes:0 1x100 15*( 1000 takes:1 ) over",
     "0:>hello 0:radio 10000:lost"},
    {"TakesALongFrameAtAThirdOfTheSpeed", kSlow,
     "connect alive takes:0 1x60000 100*( 150 takes:610 ) takes:all over",
     "0:>hello 0:radio 14850:>60000"},
    {"TakesOneFrameAfterTheOther", 0ns,
     "connect alive takes:0 3x1000 3*( 9000 takes:frame ) takes:all over",
     "0:>hello 0:radio 9000:>1000 18000:>1000 27000:>1000"},
    // What is sent, and when.
    {"KeepAliveComesWhenNothingElseWasSentAndTheLineTakesIt", 0ns,
     "all-sent connect alive 1000 takes:0 1x10 takes:all 1000 takes:0 1x10 5000 takes:all 1000",
     "0:>hello 0:radio 800:>alive 1000:>10 1800:>alive 7000:>10 7800:>alive"},
    {"HelloIsRepeatedUntilItIsAnsweredButNotPiledUp", 0ns,
     "greet 2500 takes:0 10000 takes:all answer:late",
     "0:>hello 1000:>hello 2000:>hello 12500:>hello 12500:late"},
    {"HelloThatIsNotAnswered", 0ns, "greet takes:0 over", "0:>hello 30000:failed",
     "no answer to the hello in time"},
    {"NothingIsSentBeforeTheLineIsThere", 0ns, "over", "30000:failed",
     "No link to the radio on the line: no connection in time"},
    {"OnlyTheFirstGoodAnswerBeginsASession", 0ns,
     "greet frame:10 goodbye cut answer:first answer:second frame:10 goodbye",
     "0:>hello 0:first 0:10 0:>goodbye 0:lost malformed:1"},
    {"RadioThatTakesNoFilesIsNamedAndKept", 0ns, "greet no-files", "0:>hello 0:small",
     "Radio \"small\" takes no files"},
    {"RadioOfAnotherVersionIsLeftWithoutAGoodbye", 0ns, "greet newer", "0:>hello 0:failed"},
    {"NothingIsToldAfterCloseAndTheGoodbyeIsLast", 0ns,
     "connect takes:0 1x10 close takes:all frame:10 fail", "0:>hello 0:radio 0:>10 0:>goodbye"},
};
INSTANTIATE_TEST_SUITE_P(Rows, LinkLogicTest, testing::ValuesIn(kRows),
                         [](const auto& row) { return std::string(row.param.name); });

// What fits into the room as its sender counts it is taken, whatever is sent without asking.
TEST(LinkLogicRoom, IsMeasuredByTheLineAndKeepsWhatItPromises) {
  const std::pair<std::chrono::nanoseconds, double> rooms[] = {
      {0ns, 262'144},
      {std::chrono::nanoseconds(10s) / 1'500'000, 150'000},
      {kSlow, static_cast<double>(kLargestMessage)}};
  for (const auto& [byte_time, room] : rooms) {
    Script script(byte_time);
    script.Run("connect takes:0");
    LinkLogic& logic = script.Logic();
    const auto take_another = [&] { return logic.Queue(Broadcast(1002), 1002); };
    EXPECT_NEAR(static_cast<double>(logic.Room()), room, 20);
    EXPECT_GE(logic.Room(), 65'533 + RadioProtocol::kSendOverhead) << "the largest message";
    const std::size_t admitted = logic.Room() / (1000 + RadioProtocol::kSendOverhead);
    const Bytes largest = Broadcast(65'535);
    EXPECT_TRUE(logic.Queue(largest, 65'535)) << "the next chunk";
    EXPECT_TRUE(logic.Queue(largest, 65'535)) << "an answer that nobody gave";
    for (std::size_t i = 0; i < admitted; ++i) {
      ASSERT_TRUE(take_another()) << i;
    }
    EXPECT_EQ(logic.Room(), 0);
    while (take_another()) {
    }
    script.Run("takes:" + std::to_string(largest.size() - 1));
    EXPECT_FALSE(take_another()) << "a frame counts until all of it is taken";
    script.Run("takes:1");
    EXPECT_TRUE(take_another());
    script.Run("takes:all");
    EXPECT_NEAR(static_cast<double>(logic.Room()), room, 20);
  }
}

TEST(RadioLinkDocument, TellsTheBoundsThatTheCodeHas) {
  constexpr std::chrono::nanoseconds kFast = std::chrono::nanoseconds(10s) / 1'500'000;
  const auto bytes = [](std::size_t number) {
    std::string text = std::to_string(number);
    return text.size() > 3 ? text.insert(text.size() - 3, ",") : text;
  };
  const auto seconds = [](std::chrono::nanoseconds time) {
    return std::to_string((time + 5ms) / 10ms).insert(1, ".") + " s";
  };
  const std::vector<std::pair<std::string, std::string>> expected = {
      {"a frame, with", bytes(codec::kMaxEncodedFrame + 1)},
      {"a message:", bytes(codec::kMaxPayload)},
      {"no good frame", seconds(codec::LostAfter(kFast)) + " at 1,500,000 bit/s, " +
                            seconds(codec::LostAfter(kSlow)) + " at 115,200"},
      {"room for", bytes(SendRoom(0ns))},
      {"room for", bytes(SendRoom(kFast)) + " bytes at 1,500,000 bit/s"},
      {"room for", "at least " + bytes(kLargestMessage)},
      {"the reserve", bytes(kSendReserve)},
      {"file requests", bytes(kFileRequestsKnown)},
      {"injected requests", bytes(kInjectionsKnown)},
  };
  std::ifstream document(RADIO_LINK_DOCUMENT);
  const std::string text(std::istreambuf_iterator<char>(document), {});
  for (const auto& [row, value] : expected) {
    const std::size_t at = text.find("| " + row);
    ASSERT_NE(at, std::string::npos) << row;
    EXPECT_THAT(text.substr(at, text.find('\n', at) - at), HasSubstr(value));
  }
}

}  // namespace
}  // namespace orka::test
