#include "BusLimits.h"
#include "Outbox.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace zelt {
namespace {

using namespace std::chrono_literals;
using Outcome = ServiceIPC::Outcome;

class OutboxTest : public testing::Test {
 protected:
  // "go", "wait", or why it is refused.
  std::string Put(const std::string& connection, const std::string& type = "T",
                  std::size_t size = 0, bool has_name = true) {
    Letter letter;
    letter.type = type;
    letter.payload.resize(size);
    letter.id = ++id_;
    const auto put = outbox_.Put(connection, has_name, letter);
    EXPECT_EQ(letter.type.empty(), put.has_value()) << "a refused letter is untouched";
    if (!put) {
      return put.error().error;
    }
    return *put ? "go" : "wait";
  }
  std::string Publish(const std::string& topic, std::size_t size = 0) {
    Broadcast broadcast{topic, std::string(size, 'x'), std::nullopt};
    const auto put = outbox_.Put(broadcast);
    return put ? "go" : put.error().error;
  }
  // What goes out now, in order: "connection type", "all topic".
  std::vector<std::string> TakeAll(std::size_t most = 1000) {
    std::vector<std::string> all;
    while (all.size() < most) {
      const auto item = outbox_.Next(now_);
      if (!item) {
        break;
      }
      const auto* const letter = std::get_if<Outbox::HandedOver>(&*item);
      all.push_back(letter != nullptr ? letter->connection + " " + letter->letter.type
                                      : "all " + std::get<Broadcast>(*item).topic);
    }
    return all;
  }
  bool Answer(const std::string& connection, std::size_t size = 0, bool by_receiver = true) {
    return outbox_.Answered(connection, size, by_receiver, now_);
  }

  Outbox outbox_;
  TimerQueue::Time now_{};
  std::uint64_t id_ = 0;
};

TEST_F(OutboxTest, OrderIsThatOfPuttingAndOnlyABroadcastPassesWhatHasToWait) {
  for (std::size_t i = 0; i < kMaxCallsOfOne; ++i) {
    EXPECT_EQ(Put(":1"), "go");
  }
  EXPECT_EQ(TakeAll().size(), kMaxCallsOfOne);
  EXPECT_EQ(Put(":1", "A"), "wait") << "it has as much as it gets";
  EXPECT_EQ(Put(":2", "B"), "go");
  Publish("P");
  EXPECT_EQ(Put(":2", "C"), "go");
  Publish("Q");
  EXPECT_THAT(TakeAll(), testing::ElementsAre(":2 B", "all P", ":2 C", "all Q"));
  EXPECT_FALSE(outbox_.IsEmpty());
  Answer(":1");
  EXPECT_EQ(Put(":1", "D"), "go") << "for the one that waits before it";
  EXPECT_THAT(TakeAll(), testing::ElementsAre(":1 A"));
}

TEST_F(OutboxTest, WhoeverDoesNotAnswerLeavesRoomForEverybodyElse) {
  const auto calls = [&](const std::string& connection, bool has_name) {
    for (int i = 0; i < 100; ++i) {
      Put(connection, "T", 0, has_name);
    }
    return TakeAll().size();
  };
  EXPECT_EQ(calls(":nameless", false), 2U);
  EXPECT_EQ(Put(":nameless"), "go") << "now it has a name";
  EXPECT_EQ(TakeAll().size(), 14U);
  for (const auto* hung : {":1", ":2", ":3"}) {
    EXPECT_EQ(calls(hung, true), 16U);
  }
  for (int scarce = 0; scarce < 32; ++scarce) {
    EXPECT_EQ(calls(":s" + std::to_string(scarce), true), 1U);
  }
  EXPECT_EQ(calls(":last", true), 0U) << "96 are on their way";
  Answer(":nameless");
  EXPECT_THAT(TakeAll(), testing::ElementsAre(":last T"));
}

TEST_F(OutboxTest, WhatIsBeyondABoundIsRefusedAndNamed) {
  constexpr std::size_t kMiB = std::size_t{1} << 20U;
  EXPECT_EQ(Put(""), "nobody owns the name");
  EXPECT_EQ(Put(":large", "T", 16 * kMiB), "go") << "an empty mailbox takes any";
  EXPECT_THAT(Put(":large"), testing::HasSubstr("limit of 8388608 bytes that the receiver"));
  EXPECT_EQ(Put(":full", "T", 8 * kMiB), "go");
  EXPECT_EQ(Put(":full"), "go");
  EXPECT_EQ(TakeAll().size(), 3U);
  EXPECT_THAT(Put(":full", "T", 1), testing::HasSubstr("limit of 8388608")) << "unanswered counts";
  for (std::size_t i = 0; i < kMaxMailboxMessages; ++i) {
    ASSERT_THAT(Put(":many"), testing::AnyOf("go", "wait"));
  }
  EXPECT_THAT(Put(":many"), testing::HasSubstr("limit of 1024 messages that the receiver"));
  for (int i = 0; i < 5; ++i) {
    Put(":" + std::to_string(i), "T", 8 * kMiB);
  }
  EXPECT_THAT(Put(":many", "T", 1), testing::HasSubstr("limit of 1024"));
  TakeAll(1);
  Answer(":many");
  EXPECT_THAT(Put(":many", "T", 1), testing::HasSubstr("limit of 67108864 bytes"));
  EXPECT_EQ(Put(":6", "T", kMiB), "go") << "nobody has to wait because of others";
  Answer(":full", 8 * kMiB);
  EXPECT_EQ(Put(":full", "T", 1), "go");

  for (std::size_t i = 0; i < kMaxNameless; ++i) {
    EXPECT_EQ(Put(":n" + std::to_string(i), "T", 0, false), "go");
  }
  EXPECT_THAT(Put(":one more", "T", 0, false), testing::HasSubstr("limit of 16 receivers"));

  EXPECT_EQ(Publish("P", 8 * kMiB), "go");
  EXPECT_THAT(Publish("P", 1), testing::HasSubstr("limit of 8388608 bytes that the bus"));
  for (std::size_t i = 1; i < kMaxMailboxMessages; ++i) {
    ASSERT_EQ(Publish("P"), "go");
  }
  EXPECT_THAT(Publish("P"), testing::HasSubstr("limit of 1024 messages that the bus"));
  Broadcast state{"", "", 5};
  EXPECT_TRUE(outbox_.Put(state)) << "a state is always told";
}

TEST_F(OutboxTest, WhoAcknowledgesNothingIsGivenUpUntilItDoes) {
  EXPECT_EQ(outbox_.NextGiveUp(), std::nullopt);
  for (std::size_t i = 0; i < kMaxCallsOfOne + 3; ++i) {
    Put(":hung", "T", 10);
    Put(":slow");
  }
  TakeAll();
  EXPECT_EQ(outbox_.NextGiveUp(), now_ + 5s);
  now_ += 4999ms;
  EXPECT_THAT(outbox_.GiveUp(now_), testing::IsEmpty());
  Answer(":slow");
  Answer(":hung", 10, false);  // the bus did, which is no sign of life
  now_ += 1ms;
  const auto given_up = outbox_.GiveUp(now_);
  ASSERT_EQ(given_up.size(), 1U);
  EXPECT_EQ(given_up[0].connection, ":hung");
  EXPECT_EQ(given_up[0].dropped.size(), 3U);
  EXPECT_EQ(given_up[0].unanswered, kMaxCallsOfOne - 1);
  EXPECT_THAT(Put(":hung"), testing::HasSubstr("acknowledged nothing for 5 s"));
  EXPECT_EQ(outbox_.NextGiveUp(), now_ + 4999ms) << "of the slow one";
  EXPECT_TRUE(Answer(":hung", 10)) << "it is alive again";
  EXPECT_FALSE(Answer(":hung", 10));
  EXPECT_EQ(Put(":hung"), "go");
}

TEST_F(OutboxTest, WhatIsDroppedWithdrawnOrClosedMakesRoomAndIsGivenBack) {
  Put(":1", "A", 1);
  TakeAll();
  EXPECT_FALSE(outbox_.Withdraw(":1", id_)) << "it is on its way";
  Put(":1", "B", (std::size_t{8} << 20U) - 1);
  EXPECT_THAT(Put(":1", "C", 1), testing::HasSubstr("limit"));
  EXPECT_TRUE(outbox_.Withdraw(":1", id_ - 1)) << "B waits";
  EXPECT_EQ(outbox_.Drop(":1").size(), 0U);
  EXPECT_TRUE(outbox_.IsEmpty());
  Put(":1", "D");
  Put(":2", "E");
  EXPECT_EQ(outbox_.Drop(":1").size(), 1U);
  Publish("P");
  const auto closed = outbox_.Close();
  ASSERT_EQ(closed.size(), 1U);
  EXPECT_EQ(closed[0].type, "E");
  EXPECT_THAT(TakeAll(), testing::IsEmpty());
  EXPECT_THAT(Put(":1"), testing::HasSubstr("lost"));
  EXPECT_THAT(Put(""), testing::HasSubstr("lost"));
  EXPECT_THAT(Publish("P"), testing::HasSubstr("lost"));
  EXPECT_FALSE(Answer(":2")) << "too late";
}

}  // namespace
}  // namespace zelt
