#include "TimerQueue.h"
#include "zelt/fake/LogCapture.h"

#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>

namespace zelt {
namespace {

using namespace std::chrono_literals;
constexpr TimerQueue::Time kStart{};

class TimerQueueTest : public testing::Test {
 protected:
  AsyncCallbackHandle Add(TimerQueue::Seconds interval, UniqueFunction<void()> callback,
                          bool periodic = false) {
    return queue_->Add("timer", std::move(callback), kStart, interval, periodic).first;
  }
  AsyncCallbackHandle Note(TimerQueue::Seconds interval, char letter, bool periodic = false) {
    return Add(interval, [this, letter] { fired_ += letter; }, periodic);
  }

  std::shared_ptr<TimerQueue> queue_ = std::make_shared<TimerQueue>();
  std::string fired_;
};

TEST_F(TimerQueueTest, EqualDeadlinesFireInTheOrderOfSetting) {
  const auto late = Note(6s, 'L');
  const auto first = Note(5s, '1');
  const auto second = Note(5s, '2');
  const auto huge = Note(TimerQueue::Seconds(std::numeric_limits<double>::infinity()), 'H');
  const auto negative = Note(-3s, 'N');
  queue_->RunDue(kStart);
  EXPECT_EQ(fired_, "N");
  EXPECT_EQ(queue_->NextWake(), kStart + 5s);
  queue_->RunDue(kStart + 7s);
  EXPECT_EQ(fired_, "N12L");
}

TEST_F(TimerQueueTest, ClosedByACallbackOfTheSameTickDoesNotFire) {
  AsyncCallbackHandle victim;
  AsyncCallbackHandle self;
  const auto closer = Add(5s, [&] { victim.Close(); });
  victim = Note(5s, 'V');
  self = Add(
      5s,
      [&] {
        self.Close();
        fired_ += 'S';
      },
      true);
  queue_->RunDue(kStart + 5s);
  queue_->RunDue(kStart + 50s);
  EXPECT_EQ(fired_, "S");
  EXPECT_FALSE(self.IsOpen());
}

TEST_F(TimerQueueTest, PeriodicSkipsWhatAHeldUpLoopMissedAndKeepsOthersRunning) {
  const fake::LogCapture log;
  const auto thrower = Add(1s, [] { throw std::runtime_error("bad timer"); });
  const auto periodic = Note(2s, 'p', true);
  AsyncCallbackHandle nested;
  const auto nesting = Add(1s, [&] { nested = Note(0s, 'n'); });
  queue_->RunDue(kStart + 9s);
  EXPECT_EQ(fired_, "p") << "what a callback sets has to wait for the next turn";
  EXPECT_EQ(queue_->NextWake(), kStart);
  queue_->RunDue(kStart + 9s);
  EXPECT_EQ(fired_, "pn");
  EXPECT_TRUE(log.Contains("Timer [timer] threw an exception: bad timer"));
}

TEST_F(TimerQueueTest, WakesTheLoopOnlyForAnEarlierDeadlineAndHandlesOutliveIt) {
  auto first = queue_->Add("a", [] {}, kStart, 5s, false);
  auto later = queue_->Add("b", [] {}, kStart, 6s, false);
  auto earlier = queue_->Add("c", [] {}, kStart, 4s, false);
  EXPECT_TRUE(first.second);
  EXPECT_FALSE(later.second);
  EXPECT_TRUE(earlier.second);
  queue_ = nullptr;
  earlier.first.Close();
}

}  // namespace
}  // namespace zelt
