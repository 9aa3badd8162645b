// Peers that are absent, hang or leave; a bus that hangs or goes; and the life of a connection.
#include "BusTestSupport.h"

#include <unistd.h>

#include <filesystem>
#include <latch>

namespace zelt::test {
namespace {

using Clock = std::chrono::steady_clock;

class BusFaultTest : public BusTest {};

TEST_F(BusFaultTest, PeerThatIsAbsentOrHangsOrLeavesEndsTheRequest) {
  const auto asker = BusConnection::Open("Upgrade");
  EXPECT_FALSE(asker->SendImpl("Nobody", "T", "").get());
  EXPECT_TRUE(log_.Contains("Send [T] to [Nobody] failed: nobody owns the name"));
  EXPECT_EQ(Get(asker->RequestImpl("Nobody", "T", "", 1h)).outcome, Outcome::NoSuchService);
  EXPECT_EQ(Get(asker->QueryState("Nobody", 1h)).state, 0U);

  Stranger hung({"zelt.service.Hung"});
  Settle(*asker, "Upgrade");
  const auto start = Clock::now();
  EXPECT_TRUE(asker->SendImpl("Hung", "T", "").get()) << "accepted";
  EXPECT_EQ(Get(asker->QueryState("Hung", 0.01s)).outcome, Outcome::TimedOut);
  EXPECT_EQ(Get(asker->QueryState("Hung", 0s)).outcome, Outcome::TimedOut);
  const auto reply = Get(asker->RequestImpl("Hung", "T", "", 1h));
  EXPECT_EQ(reply.outcome, Outcome::TimedOut);
  EXPECT_GE(Clock::now() - start, 1s);
  EXPECT_TRUE(log_.Contains("Send [T] to [Hung] failed: the receiver does not react"));
  EXPECT_FALSE(log_.Contains("acknowledged nothing")) << "a request has less time";
  EXPECT_EQ(Get(asker->QueryState("Hung", 1h)).error,
            "the receiver has acknowledged nothing for 5 s");
  EXPECT_TRUE(Logs("[Hung] has acknowledged nothing for 5 s: 0 messages for it are"));
  EXPECT_FALSE(asker->SendImpl("Hung", "T", "").get());
  EXPECT_FALSE(asker->SendImpl(hung.Name(), "T", "").get()) << "by any name";
  EXPECT_EQ(Get(asker->RequestImpl("Hung", "T", "", 1h)).outcome, Outcome::TimedOut);
  const Stranger heir;
  Check(sd_bus_release_name(hung.Bus(), "zelt.service.Hung"), "release");
  Settle(*asker, "Upgrade");
  EXPECT_EQ(Get(asker->RequestImpl("Hung", "T", "", 1h)).outcome, Outcome::NoSuchService);

  const auto here = asker->RegisterCallbackImpl("here", std::nullopt, inbox_.Note());
  for (const auto* name : {"Mute", ""}) {
    auto peer = BusConnection::Open(name);
    const auto callback = peer->RegisterCallbackImpl("T", std::nullopt, inbox_.Note());
    EXPECT_TRUE(peer->SendImpl("Upgrade", "here", "").get());
    auto sender = inbox_.Next();
    sender.pop_back();  // the colon
    EXPECT_EQ(Get(asker->RequestImpl(sender, "T", "", 1s)).outcome, Outcome::TimedOut);
    EXPECT_TRUE(Logs("Send [T] to [" + sender + "] failed: no answer within 1000 ms"));
    auto left = asker->RequestImpl(sender, "T", "", 1h);
    inbox_.Next();
    inbox_.Next();
    peer.reset();
    EXPECT_EQ(Get(std::move(left)).error, "the receiver left before it answered");
  }
}

TEST(BusLimitTest, HungReceiversByAllTheirNamesMuteTheSenderTowardsNobodyElse) {
  const TestBus bus(
      "</policy><limit name='max_replies_per_connection'>128</limit><policy context='default'>");
  const LogCapture log;
  Inbox inbox;
  std::latch awake(1);
  const auto asker = BusConnection::Open("Upgrade");
  const auto healthy = BusConnection::Open("Kova");
  const auto peer = BusConnection::Open("Hung");
  std::vector<std::unique_ptr<Stranger>> others;
  for (char letter = 'A'; letter < 'K'; ++letter) {
    others.push_back(
        std::make_unique<Stranger>(std::vector{std::string("zelt.service.") + letter}));
  }
  const auto back = asker->RegisterCallbackImpl(
      "back", std::nullopt,
      [&](const Envelope& envelope, auto) { inbox.Put(envelope.connection); });
  const auto other = healthy->RegisterCallbackImpl("T", std::nullopt, [](const auto&, auto) {});
  const auto take = peer->RegisterCallbackImpl("T", std::nullopt, inbox.Note());
  const auto hang =
      peer->RegisterCallbackImpl("hang", std::nullopt, [&](const auto&, auto) { awake.wait(); });
  EXPECT_TRUE(peer->SendImpl("Upgrade", "back", "").get());
  const std::string unique_name = inbox.Next();
  EXPECT_TRUE(asker->SendImpl("Hung", "hang", "").get());
  const auto send = [&](int count, const std::string& to) {
    for (; count > 0; --count) {
      EXPECT_TRUE(asker->SendImpl(to, "T", "late").get());
    }
  };
  for (int count = 0; count < 100; ++count) {
    send(1, "Hung");
    send(1, unique_name);
  }
  for (const auto& hung : others) {
    send(20, hung->Name());
  }
  send(100, "Kova");
  EXPECT_EQ(Get(asker->RequestImpl("Kova", "T", "", 0ms)).outcome, Outcome::Delivered);
  EXPECT_EQ(asker->GetCounters().delivered, 101U);
  EXPECT_TRUE(log.WaitFor(
      "[Hung] has acknowledged nothing for 5 s: 185 messages for it are dropped, 16 may still",
      kDeadline));
  EXPECT_GE(asker->GetCounters().timed_out, 201U);
  EXPECT_FALSE(asker->SendImpl("Hung", "T", "").get());
  EXPECT_EQ(Get(asker->RequestImpl("Kova", "T", "", 0ms)).outcome, Outcome::Delivered);

  awake.count_down();
  for (int count = 0; count < 15; ++count) {
    EXPECT_EQ(inbox.Next(), "Upgrade:late");
  }
  EXPECT_TRUE(log.WaitFor("[Hung] acknowledges again", kDeadline));
  EXPECT_TRUE(asker->SendImpl("Hung", "T", "new").get());
  EXPECT_EQ(inbox.Next(), "Upgrade:new");
}

TEST_F(BusFaultTest, WhatWaitsForTheFormerOwnerOfANameIsDropped) {
  const auto asker = BusConnection::Open("Upgrade");
  Stranger hung({"zelt.service.Hung"});
  Settle(*asker, "Upgrade");
  for (int count = 0; count < 20; ++count) {
    EXPECT_TRUE(asker->SendImpl("Hung", "T", "old").get());
  }
  auto request = asker->RequestImpl("Hung", "T", "", 1h);
  Settle(*asker, "Upgrade");  // what goes at once has gone
  Check(sd_bus_release_name(hung.Bus(), "zelt.service.Hung"), "release");
  EXPECT_TRUE(Logs("[Hung] has another owner or none: 5 messages for the former one"));
  EXPECT_EQ(Get(std::move(request)).outcome, Outcome::NoSuchService);
  const auto heir = BusConnection::Open("Hung");
  const auto callback = heir->RegisterCallbackImpl("T", std::nullopt, inbox_.Note());
  Settle(*asker, "Upgrade");
  EXPECT_TRUE(asker->SendImpl("Hung", "T", "new").get());
  EXPECT_EQ(inbox_.Next(), "Upgrade:new");
}

TEST_F(BusFaultTest, BusThatDoesNotReadFillsNoMemoryAndHoldsNobodyUp) {
  auto service = BusConnection::Open("Kova");
  bus_.Halt();
  for (const std::size_t size : {std::size_t{1} << 20U, std::size_t{0}}) {
    int sent = 0;
    while (sent < 4096 && service->PublishImpl("P", std::string(size, 'x')).get()) {
      ++sent;
    }
    EXPECT_LT(sent, 4096) << size;
  }
  EXPECT_TRUE(log_.Contains("Publish [P] to [every subscriber] failed: limit of 8388608 bytes"));
  EXPECT_TRUE(log_.Contains("Publish [P] to [every subscriber] failed: limit of 1024 messages"));
  const auto start = Clock::now();
  service.reset();
  EXPECT_LT(Clock::now() - start, 10s) << "a second, on a machine that has time";
}

TEST_F(BusFaultTest, WhatWasAcceptedIsHandedOverAtTheEnd) {
  auto sender = BusConnection::Open("Upgrade");
  const auto receiver = BusConnection::Open("Kova");
  const auto callback = receiver->RegisterCallbackImpl("T", std::nullopt, inbox_.Note());
  Settle(*sender, "Upgrade");
  for (int count = 0; count < 20; ++count) {
    EXPECT_TRUE(sender->SendImpl("Kova", "T", std::to_string(count)).get());
  }
  sender.reset();
  for (int count = 0; count < 20; ++count) {
    EXPECT_EQ(inbox_.Next(), "Upgrade:" + std::to_string(count));
  }
  EXPECT_NO_THROW(BusConnection::Open("Upgrade")) << "its name is free";

  const Stranger hung({"zelt.service.Hung"});
  sender = BusConnection::Open("Upgrade");
  EXPECT_TRUE(sender->SendImpl("Hung", "T", "").get());
  const auto start = Clock::now();
  sender.reset();
  EXPECT_LT(Clock::now() - start, 4s) << "not until it is given up";
}

TEST_F(BusFaultTest, ClosedHandleMeansTheCallbackHasEnded) {
  auto service = BusConnection::Open("Kova");
  std::latch entered(1);
  std::latch closing(1);
  bool ended = false;  // unguarded on purpose: the handle has to order both threads
  auto running = service->SubscribeImpl("P", "", [&](const auto&, auto) {
    entered.count_down();
    closing.wait();
    std::this_thread::yield();
    ended = true;
  });
  EXPECT_TRUE(service->PublishImpl("P", "").get());
  entered.wait();
  closing.count_down();
  running.Close();
  EXPECT_TRUE(ended);

  auto timer = service->AddTimer("forever", [] {}, 1ms, true);
  service.reset();
  EXPECT_NO_THROW(BusConnection::Open("Kova")) << "its name is free";
  timer.Close();
}

TEST_F(BusFaultTest, HandleWhoseCallbackOwnsTheConnectionMayBeClosedWhileItIsToBeCalled) {
  std::latch entered(1);
  std::latch destroyed(1);
  auto service = BusConnection::Open("Kova");
  BusConnection& connection = *service;
  const auto first = connection.SubscribeImpl("P", "", [&](const auto&, auto) {
    entered.count_down();
    destroyed.wait();  // then the second one is due, on this thread
  });
  std::shared_ptr<void> last(nullptr, [&, service](void*) { destroyed.count_down(); });
  const auto second = std::make_shared<AsyncCallbackHandle>(
      connection.SubscribeImpl("P", "", [last](const auto&, auto) {}));
  connection.SendImpl("Kova", "P", "").get();
  entered.wait();
  last.reset();
  service.reset();
  std::promise<void> closed;
  std::thread([&, second] {  // which may not come back
    second->Close();
    closed.set_value();
  })
      .detach();
  ASSERT_EQ(closed.get_future().wait_for(kDeadline), std::future_status::ready);
  EXPECT_NO_THROW(BusConnection::Open("Kova")) << "it is gone";
}

TEST_F(BusFaultTest, EveryStateIsToldInItsOrder) {
  const auto watcher = BusConnection::Open("zeltcli-1");
  const auto watch = watcher->WatchState(
      "Kova", [this](std::uint32_t state) { inbox_.Put(std::to_string(state)); });
  EXPECT_EQ(inbox_.Next(), "0");
  auto service = BusConnection::Open("Kova");
  for (const std::uint32_t state : {4U, 5U, 6U, 5U}) {
    service->SetState(state);
  }
  std::string told = inbox_.Next();
  if (told == "0") {  // it was asked before it had told any
    told = inbox_.Next();
  }
  EXPECT_EQ(told + inbox_.Next() + inbox_.Next() + inbox_.Next(), "4565");
  EXPECT_EQ(Get(watcher->QueryState("Kova", kDeadline)).state, 5U);
  service->SetState(6);
  EXPECT_EQ(Get(watcher->QueryState("Kova", kDeadline)).state, 6U) << "set is told";
  EXPECT_EQ(inbox_.Next(), "6");
  EXPECT_THAT(watcher->ListNames(), testing::ElementsAre("Kova", "zeltcli-1"));

  // On the IPC thread, the own state and the end of the last reference.
  auto& connection = *service;
  const auto timer = connection.AddTimer(
      "last",
      [this, service = std::move(service)]() mutable {
        inbox_.Put("own " + std::to_string(Get(service->QueryState("Kova", 1s)).state));
        service->SetState(1);
        service.reset();
      },
      0s, false);
  EXPECT_EQ(inbox_.Next(), "own 6");
  EXPECT_EQ(inbox_.Next(), "1");
  EXPECT_EQ(inbox_.Next(), "0");
}

TEST_F(BusFaultTest, HungServiceIsAskedForItsStateAgainWhenItReacts) {
  const auto watcher = BusConnection::Open("zeltcli-1");
  const auto service = BusConnection::Open("Kova");
  service->SetState(5);
  std::latch held(1);
  std::latch awake(1);
  const auto timer = service->AddTimer("hold", [&] { held.count_down(), awake.wait(); }, 0s, false);
  held.wait();
  Settle(*watcher, "zeltcli-1");
  const auto watch = watcher->WatchState(
      "Kova", [this](std::uint32_t state) { inbox_.Put(std::to_string(state)); });
  EXPECT_TRUE(Logs("[zelt.service.Kova] does not tell its state"));
  awake.count_down();
  EXPECT_EQ(inbox_.Next(), "5");
}

TEST_F(BusFaultTest, LogLevelIsSetByRootAndTheOwnUserOnly) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "not root, so there is no second user to try it as";
  }
  const auto service = BusConnection::Open("Kova");
  std::filesystem::permissions(bus_.Folder(), std::filesystem::perms(0755));
  const auto set = [&](const char* user, const char* value) {
    fake::ChildProcess busctl(
        {"setpriv", std::string("--reuid=") + user, "--clear-groups", "busctl",
         "--address=" + bus_.Address(), "set-property", "zelt.service.Kova", "/zelt/ServiceIPC",
         "zelt.ServiceIPC1", "LogLevel", "u", value},
        bus_.Folder() / "busctl");
    return busctl.Wait() == 0 ? "done" : busctl.Output();
  };
  EXPECT_EQ(set("0", "7"), "done");
  EXPECT_EQ(LogClient::Level(), 7);
  EXPECT_THAT(set("0", "9"), testing::HasSubstr("LogLevel is 0 to 8"));
  EXPECT_THAT(set("65534", "8"), testing::HasSubstr("Access denied"));
  EXPECT_EQ(LogClient::Level(), 7);
  EXPECT_EQ(set("0", "0"), "done");
  EXPECT_EQ(LogClient::Level(), 0);
  EXPECT_EQ(set("0", "3"), "done");
  EXPECT_TRUE(log_.Contains("Log level set from 8 to 7 by [:"));
  EXPECT_TRUE(log_.Contains("Log level set from 7 to 0 by [:")) << "written whatever the level is";
  EXPECT_TRUE(log_.Contains("Log level set from 0 to 3 by [:"));
}

TEST_F(BusFaultTest, LostBusEndsEverythingThatWaits) {
  const auto asker = BusConnection::Open("Upgrade");
  const auto service = BusConnection::Open("Kova");
  const auto callback = service->RegisterCallbackImpl("T", std::nullopt, inbox_.Note());
  const Stranger hung({"zelt.service.Hung"});
  Settle(*asker, "Upgrade");
  const auto lost = asker->WatchDisconnect([this] { inbox_.Put("lost"); });
  auto answer = asker->RequestImpl("Kova", "T", "", 1h);
  EXPECT_EQ(inbox_.Next(), "Upgrade:");
  auto state = asker->QueryState("Hung", 3600s);
  EXPECT_TRUE(asker->SendImpl("Hung", "T", "").get());
  asker->Flush();
  bus_.Kill();
  EXPECT_EQ(inbox_.Next(), "lost");
  EXPECT_EQ(Get(std::move(answer)).outcome, Outcome::Disconnected);
  EXPECT_EQ(Get(std::move(state)).outcome, Outcome::Disconnected);
  EXPECT_EQ(Get(asker->RequestImpl("Kova", "T", "", 0ms)).outcome, Outcome::Disconnected);
  EXPECT_FALSE(asker->SendImpl("Kova", "T", "").get());
  EXPECT_FALSE(asker->PublishImpl("P", "").get());
  EXPECT_EQ(asker->GetCounters().disconnected, 1U);
}

TEST_F(BusFaultTest, OpeningSaysWhatIsWrong) {
  const auto error = [](std::string_view service) -> std::string {
    try {
      BusConnection::Open(service);
    } catch (const std::runtime_error& thrown) {
      return thrown.what();
    }
    return "no error";
  };
  const auto taken = BusConnection::Open("Kova");
  EXPECT_THAT(error("Kova"), testing::HasSubstr("zelt.service.Kova is taken"));
  for (const auto* name : {"1st", "Ko.va", "zeltcli-", "zeltcli-1a", ":1.7", "Kövä"}) {
    EXPECT_THAT(error(name), testing::HasSubstr("is no name of a service"));
  }
  setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/absent", 1);
  EXPECT_EQ(error(""), "no error") << "our own variable comes first";
  setenv("ZELT_BUS_ADDRESS", "", 1);
  EXPECT_THAT(error(""), testing::HasSubstr("cannot connect to the bus at unix:path=/absent"));
  setenv("DBUS_SYSTEM_BUS_ADDRESS", bus_.Address().c_str(), 1);
  EXPECT_EQ(error(""), "no error");
  unsetenv("DBUS_SYSTEM_BUS_ADDRESS");

  const auto later = bus_.Folder() / "later";
  setenv("ZELT_BUS_ADDRESS", ("unix:path=" + later.string()).c_str(), 1);
  const auto start = Clock::now();
  EXPECT_THAT(error("Upgrade"), testing::HasSubstr("cannot connect to the bus at unix:path="));
  EXPECT_GE(Clock::now() - start, 2s) << "a service waits for a bus that is being started";
  auto waiting = std::async(std::launch::async, error, "Upgrade");
  std::filesystem::create_symlink(bus_.Folder() / "bus", later);
  EXPECT_EQ(Get(std::move(waiting)), "no error");
  bus_.Halt();
  EXPECT_THAT(error(""), testing::HasSubstr("accepts connections but does not answer"));
}

TEST(BusPolicyTest, WhatItForbidsIsNotPermitted) {
  const TestBus bus(
      "<deny own='zelt.tool.zeltcli-1'/><deny send_destination='zelt.service.Kova'/>");
  const LogCapture log;
  const auto service = BusConnection::Open("Kova");
  EXPECT_EQ(Get(service->RequestImpl("Kova", "T", "", 0ms)).outcome, Outcome::NotPermitted);
  EXPECT_TRUE(service->SendImpl("Kova", "T", "").get()) << "accepted; the bus refuses it later";
  service->Flush();
  EXPECT_EQ(service->GetCounters().not_permitted, 2U);
  EXPECT_THROW(BusConnection::Open("zeltcli-1"), std::runtime_error);
}

}  // namespace
}  // namespace zelt::test
