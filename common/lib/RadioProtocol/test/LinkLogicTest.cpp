#include "LinkLogic.h"
#include "orka/fake/Deadline.h"
#include "zelt/fake/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace orka::test {
namespace {

using namespace std::chrono_literals;
using codec::Bytes;
using codec::LinkControl;
using testing::ElementsAre;
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
Bytes Answer(std::string name, std::uint16_t version = 1) {
  return Control(codec::Encode(codec::HelloAnswer{version, true, 100, std::move(name), {}}));
}
Bytes Broadcast(std::size_t payload) {
  return MakeFrame(pel::FrameKind::Broadcast, Bytes(payload, 7));
}
Bytes Damaged(Bytes frame) {
  frame[frame.size() / 2] ^= 1U;
  return frame;
}

// A link on a line and a clock of the test's own. Times are milliseconds since the line was there.
class Bench {
 public:
  static constexpr std::size_t kAll = std::numeric_limits<std::size_t>::max();

  explicit Bench(std::chrono::nanoseconds byte_time = 0ns) : byte_time_(byte_time) {
    logic_.Open(now_);
  }
  void Greet() {
    logic_.LineIsThere(now_);
    Carry();
  }
  // A link that is connected at 0 ms.
  Bench& Connect() {
    Greet();
    Bring(Answer("radio"));
    return *this;
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
  // Lets time pass.
  void Pass(std::chrono::nanoseconds time) {
    for (const auto until = now_ + time; !logic_.IsClosed();) {
      const auto next = std::min({until, std::max(now_, logic_.NextLook(now_)), next_alive_});
      now_ = next;
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
  void RadioKeepsAlive() { next_alive_ = now_ + 800ms; }
  // When it is over, if it is within a while.
  std::optional<int> OverAt() {
    Pass(100s);
    return over_at_;
  }
  int Now() const { return static_cast<int>((now_ - start_) / 1ms); }

  // What the line takes from now on.
  void LineTakes(std::size_t bytes) {
    takes_ = bytes;
    Carry();
  }

  // The line takes nothing, and so many messages wait for it.
  void Stuff(int count, std::size_t payload) {
    takes_ = 0;
    for (; count > 0; --count) {
      logic_.Queue(Broadcast(payload), payload);
    }
    Carry();
  }

  LinkLogic& Logic() { return logic_; }
  fake::Deadline deadline;
  zelt::fake::LogCapture log;
  AtomicCounters counters;
  std::vector<std::string> told;                  // events
  std::vector<std::pair<int, LinkControl>> sent;  // link control, and when
  std::vector<std::size_t> messages;              // sizes of the payloads that went out

 private:
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
    if (logic_.IsClosed() && !over_at_) {
      over_at_ = Now();
    }
    logic_.TellEnd();
  }

  const std::chrono::nanoseconds byte_time_;
  const LinkLogic::Time start_{};
  LinkLogic::Time now_ = start_;
  LinkLogic::Time next_alive_ = LinkLogic::Time::max();
  std::size_t takes_ = kAll;
  std::optional<int> over_at_;
  codec::Deframer radio_{[this](const pel::BaseMessage& header, codec::ByteView payload) {
                           if (header.kind == static_cast<int>(pel::FrameKind::LinkControl)) {
                             sent.emplace_back(Now(), *codec::LinkControlCode(payload));
                           } else {
                             messages.push_back(payload.size());
                           }
                           return true;
                         },
                         [this](codec::Drop, std::size_t) { told.emplace_back("damaged"); }};
  LinkLogic logic_{
      LinkSettings{{1, true, false, "1.2.3", "camera"}, 7, 30s, "the line", byte_time_}, counters,
      LinkEvents{
          [this](const codec::HelloAnswer& answer) { told.push_back(answer.name); },
          [this](const pel::BaseMessage&, codec::ByteView payload) {
            told.push_back("frame of " + std::to_string(payload.size()));
            return FrameVerdict{};
          },
          [this](bool was_connected) { told.emplace_back(was_connected ? "lost" : "failed"); }}};
};

struct LifeCase {
  const char* name;
  std::chrono::nanoseconds byte_time;
  std::function<void(Bench&)> happens;  // after the handshake
  std::optional<int> over_at;
};

using LinkLogicLife = testing::TestWithParam<LifeCase>;

TEST_P(LinkLogicLife, ARadioIsLostInTimeAndNotBefore) {
  Bench bench(GetParam().byte_time);
  bench.Connect();
  GetParam().happens(bench);
  EXPECT_EQ(bench.OverAt(), GetParam().over_at);
}

void Repeat(int times, const std::function<void()>& action) {
  for (int i = 0; i < times; ++i) {
    action();
  }
}

const std::vector<LifeCase> kLives = {
    {"Silent", 0ns, [](Bench&) {}, 2500},
    {"SilentOnASlowLine", kSlow, [](Bench&) {}, 2500 + 5712},
    {"KeepAlives", 0ns, [](Bench& bench) { bench.RadioKeepsAlive(); }, std::nullopt},
    {"LastGoodFrameCounts", 0ns,
     [](Bench& bench) {
       bench.Pass(2s);
       bench.Bring(Broadcast(10));
     },
     4500},
    {"DeadInMidFrameUnderNoise", 0ns,
     [](Bench& bench) {
       const Bytes frame = Broadcast(1000);
       bench.Bring(codec::ByteView(frame).first(500));
       Repeat(60, [&] {
         bench.Pass(100ms);
         bench.Bring(Bytes{0x55});
       });
     },
     2500},
    {"NothingButDamage", 0ns,
     [](Bench& bench) {
       Repeat(60, [&] {
         bench.Pass(100ms);
         bench.Bring(Damaged(Broadcast(10)));
       });
     },
     2500},
    {"FramesOfNoKnownKind", 0ns,
     [](Bench& bench) {
       Repeat(60, [&] {
         bench.Pass(100ms);
         bench.Bring(MakeFrame(static_cast<pel::FrameKind>(4), Bytes{1, 2}));
       });
     },
     2500},
    {"OneLongFrameOfManyIsDamaged", kSlow,
     [](Bench& bench) {
       const Bytes frame = Broadcast(40'000);
       for (const Bytes& bytes : {frame, Damaged(frame), frame}) {
         bench.BringSlowly(bytes);
       }
       EXPECT_EQ(bench.told.size(), 3) << "the answer and two frames";
     },
     18'674},  // 3 times 3.5 s, and the limit,
    {"HeldBackAndThenSilent", 0ns,
     [](Bench& bench) {
       bench.Logic().Hold();
       bench.Logic().Hold();
       bench.Pass(60s);
       bench.Logic().Continue(LinkLogic::Time(60s));
     },
     62'500},
    {"GoingOnWithoutHoldingIsNoLife", 0ns,
     [](Bench& bench) {
       bench.Pass(2s);
       bench.Logic().Continue(LinkLogic::Time(2s));
     },
     2500},
    {"TakesNothing", 0ns,
     [](Bench& bench) {
       bench.RadioKeepsAlive();
       bench.Pass(5s);
       bench.Stuff(1, 100);
     },
     15'000},
    {"TakesNothingOfADriverThatIsSlow", std::chrono::nanoseconds(10s) / 1200,
     [](Bench& bench) {
       bench.RadioKeepsAlive();
       bench.Stuff(1, 100);
     },
     10'000 + 34'133},
    {"TakesAByteNowAndThen", 0ns,
     [](Bench& bench) {
       bench.RadioKeepsAlive();
       bench.Stuff(1, 100);
       Repeat(15, [&] {
         bench.Pass(1s);
         bench.LineTakes(1);
       });
     },
     10'000},
    {"TakesALongFrameAsFastAsTheLineIs", kSlow,
     [](Bench& bench) {
       bench.RadioKeepsAlive();
       bench.Stuff(1, 60'000);
       Repeat(100, [&] {
         bench.Pass(150ms);
         bench.LineTakes(610);
       });
       EXPECT_THAT(bench.messages, ElementsAre(60'000)) << "after 15 s, a third of its speed";
       bench.LineTakes(Bench::kAll);
     },
     std::nullopt},
    {"TakesOneFrameAfterTheOther", 0ns,
     [](Bench& bench) {
       bench.RadioKeepsAlive();
       bench.Stuff(10, 1000);
       Repeat(10, [&] {
         bench.Pass(9s);
         bench.LineTakes(Broadcast(1000).size());
       });
       bench.LineTakes(Bench::kAll);
     },
     std::nullopt},
};
INSTANTIATE_TEST_SUITE_P(Lives, LinkLogicLife, testing::ValuesIn(kLives),
                         [](const auto& life) { return std::string(life.param.name); });

TEST(LinkLogic, KeepAliveComesWhenNothingElseWasSentAndTheLineTakesIt) {
  Bench bench;
  bench.Connect().RadioKeepsAlive();
  bench.Pass(1s);
  bench.Stuff(1, 10);
  bench.LineTakes(Bench::kAll);
  bench.Pass(1s);
  bench.Stuff(1, 10);
  bench.Pass(5s);
  bench.LineTakes(Bench::kAll);
  bench.Pass(1s);
  EXPECT_THAT(bench.sent,
              ElementsAre(std::pair(0, LinkControl::Hello), std::pair(800, LinkControl::KeepAlive),
                          std::pair(1800, LinkControl::KeepAlive),
                          std::pair(7800, LinkControl::KeepAlive)));
  EXPECT_THAT(bench.messages, ElementsAre(10, 10)) << "the line takes what waited, and goes on";
}

TEST(LinkLogic, HelloIsRepeatedUntilItIsAnsweredButNotPiledUp) {
  Bench bench;
  bench.Greet();
  bench.Pass(2500ms);
  bench.LineTakes(0);
  bench.Pass(10s);
  bench.LineTakes(Bench::kAll);
  const auto hellos = bench.sent.size();
  EXPECT_EQ(hellos, 4) << "at 0, 1 and 2 s, and one that waited";
  EXPECT_EQ(bench.OverAt(), 30'000);
  EXPECT_THAT(bench.told, ElementsAre("failed"));
  EXPECT_TRUE(bench.log.Contains("no answer to the hello in time"));
}

TEST(LinkLogic, NothingIsSentBeforeTheLineIsThere) {
  Bench bench;
  EXPECT_EQ(bench.OverAt(), 30'000);
  EXPECT_TRUE(bench.log.Contains("No link to the radio on the line: no connection in time"));
  EXPECT_TRUE(bench.sent.empty());
}

TEST(LinkLogic, OnlyTheFirstGoodAnswerBeginsASession) {
  Bench bench;
  bench.Greet();
  bench.Bring(Broadcast(10));
  bench.Bring(Control(codec::Encode(LinkControl::Goodbye)));
  Bytes cut = codec::Encode(codec::HelloAnswer{1, true, 100, "cut", {}});
  cut.pop_back();
  bench.Bring(Control(cut));
  EXPECT_TRUE(bench.told.empty()) << "left over from an earlier session, or not to be read";
  EXPECT_EQ(bench.counters.dropped_malformed, 1);
  bench.Bring(Answer("first"));
  bench.Bring(Answer("second"));
  bench.Bring(Broadcast(10));
  EXPECT_THAT(bench.told, ElementsAre("first", "frame of 10"));
  bench.Bring(Control(codec::Encode(LinkControl::Goodbye)));
  EXPECT_THAT(bench.told, ElementsAre("first", "frame of 10", "lost"));
  EXPECT_EQ(bench.sent.back().second, LinkControl::Goodbye);
}

TEST(LinkLogic, RadioThatTakesNoFilesIsNamedAndKept) {
  Bench bench;
  bench.Greet();
  bench.Bring(Control(codec::Encode(codec::HelloAnswer{1, true, 0, "small", {}})));
  EXPECT_THAT(bench.told, ElementsAre("small"));
  EXPECT_TRUE(bench.log.Contains("Radio \"small\" takes no files"));
}

TEST(LinkLogic, RadioOfAnotherVersionIsLeftWithoutAGoodbye) {
  Bench bench;
  bench.Greet();
  bench.Bring(Answer("newer", 2));
  EXPECT_THAT(bench.told, ElementsAre("failed"));
  EXPECT_EQ(bench.sent.back().second, LinkControl::Hello);
}

TEST(LinkLogic, NothingIsToldAfterCloseAndTheGoodbyeIsLast) {
  Bench bench;
  bench.Connect();
  bench.Logic().Queue(Broadcast(10), 10);
  bench.Logic().Close();
  bench.Bring(Broadcast(10));
  bench.Logic().LineFailed("too late");
  bench.Bring({});
  EXPECT_THAT(bench.told, ElementsAre("radio"));
  EXPECT_THAT(bench.messages, ElementsAre(10));
  EXPECT_EQ(bench.sent.back().second, LinkControl::Goodbye);
}

struct RoomCase {
  std::chrono::nanoseconds byte_time;
  std::size_t room;
};

// What fits into the room as its sender counts it is taken, whatever is sent without asking.
TEST(LinkLogic, RoomIsMeasuredByTheLineAndKeepsWhatItPromises) {
  for (const auto& [byte_time, room] :
       std::vector<RoomCase>{{0ns, 262'144},
                             {std::chrono::nanoseconds(10s) / 1'500'000, 150'000},
                             {kSlow, kLargestMessage}}) {
    Bench bench(byte_time);
    bench.Connect().LineTakes(0);
    LinkLogic& logic = bench.Logic();
    EXPECT_NEAR(static_cast<double>(logic.Room()), static_cast<double>(room), 20);
    EXPECT_GE(logic.Room(), 65'533 + RadioProtocol::kSendOverhead) << "the largest message";
    const std::size_t admitted = logic.Room() / (1000 + RadioProtocol::kSendOverhead);
    const Bytes largest = Broadcast(65'535);
    EXPECT_TRUE(logic.Queue(largest, 65'535)) << "the next chunk";
    EXPECT_TRUE(logic.Queue(largest, 65'535)) << "an answer that nobody gave";
    for (std::size_t i = 0; i < admitted; ++i) {
      ASSERT_TRUE(logic.Queue(Broadcast(1002), 1002)) << i;
    }
    EXPECT_EQ(logic.Room(), 0);
    while (logic.Queue(Broadcast(1002), 1002)) {
    }
    bench.Bring({});
    bench.LineTakes(largest.size() - 1);
    EXPECT_FALSE(logic.Queue(Broadcast(1002), 1002)) << "a frame counts until all of it is taken";
    bench.LineTakes(1);
    EXPECT_TRUE(logic.Queue(Broadcast(1002), 1002));
    bench.LineTakes(Bench::kAll);
    EXPECT_NEAR(static_cast<double>(logic.Room()), static_cast<double>(room), 20);
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
