#include "zelt/fake/FakeServiceModel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace zelt::fake {
namespace {

using testing::ElementsAre;
using namespace std::chrono_literals;

TEST(FakeServiceModel, TimersFireByDeadlineThenByOrderOfSetting) {
  FakeServiceModel model;
  std::string fired;
  AsyncCallbackHandle nested;
  const auto late = model.AddTimer("late", [&] { fired += "L"; }, 6s, false);
  const auto first = model.AddTimer("first", [&] { fired += "1"; }, 5s, false);
  const auto second = model.AddTimer(
      "second",
      [&] {
        fired += "2";
        nested = model.AddTimer("nested", [&] { fired += "n"; }, 0s, false);
      },
      5s, false);
  const auto tick = model.AddTimer("tick", [&] { fired += "t"; }, 2s, true);
  EXPECT_THAT(model.PendingTimers(), ElementsAre("tick", "first", "second", "late"));
  model.Advance(4.9s);
  EXPECT_EQ(fired, "tt");
  model.Advance(1.1s);
  EXPECT_EQ(fired, "tt12nLt");
  EXPECT_TRUE(first.IsOpen());
}

TEST(FakeServiceModel, TimerClosedInTheSameTickDoesNotFire) {
  FakeServiceModel model;
  AsyncCallbackHandle victim;
  const auto closer = model.AddTimer("closer", [&] { victim.Close(); }, 5s, false);
  victim = model.AddTimer("victim", [] { FAIL() << "closed before its turn"; }, 5s, false);
  model.Advance(10s);
  EXPECT_FALSE(model.Timers().at(1).is_open);
  EXPECT_EQ(model.Timers().at(1).fired, 0);
}

TEST(FakeServiceIPC, DeliversAsThePlatformWould) {
  FakeServiceIPC ipc;
  std::string got;
  const auto note = [&got](const ServiceIPC::MessageEnvelope& envelope, std::string_view payload) {
    got += envelope.sender + ":" + std::string(payload) + " ";
  };
  std::vector<std::string_view> only{"Upgrade"};
  const auto restricted = ipc.RegisterCallbackImpl("A", gsl::span(only), note);
  auto outer = ipc.RegisterCallbackImpl("B", std::nullopt, note);
  auto inner = ipc.RegisterCallbackImpl("B", std::nullopt,
                                        [](const auto&, auto) { throw std::runtime_error("no"); });
  EXPECT_TRUE(ipc.Deliver("A", "Upgrade", "1"));
  EXPECT_FALSE(ipc.Deliver("A", "Battery", "2"));
  EXPECT_FALSE(ipc.Deliver("B", "Battery", "3"));
  inner.Close();
  EXPECT_TRUE(ipc.Deliver("B", "Battery", "4"));
  outer.Close();
  EXPECT_FALSE(ipc.Deliver("B", "Battery", "5"));
  EXPECT_EQ(got, "Upgrade:1 Battery:4 ");
}

}  // namespace
}  // namespace zelt::fake
