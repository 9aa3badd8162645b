// What passes between connections when all are well, and who is believed.
#include "BusTestSupport.h"

#include <latch>

namespace zelt::test {
namespace {

class BusConnectionTest : public BusTest {};

TEST_F(BusConnectionTest, SenderIsWhatTheBusVouchesFor) {
  const auto service = BusConnection::Open("Kova");
  const auto callback = service->RegisterCallbackImpl("T", std::nullopt, inbox_.Note());
  const struct {
    std::vector<std::string> names;
    std::string sender;  // empty: the unique name
  } kCases[] = {
      {{}, ""},
      {{"zelt.service.Upgrade"}, "Upgrade"},
      {{"zelt.tool.zeltcli-7"}, "zeltcli-7"},
      {{"zelt.service.zeltcli-8"}, ""},
      {{"zelt.tool.zeltcli-x"}, ""},
      {{"zelt.tool.zeltcli-"}, ""},
      {{"zelt.tool.upgrade"}, ""},
      {{"zelt.service.Sub.zeltcli-1"}, ""},
      {{"zelt.tool.zeltcli-9", "zelt.service.Upgrade"}, "Upgrade"},
  };
  for (const auto& [names, sender] : kCases) {
    Stranger stranger(names);
    ASSERT_EQ(stranger.Send("zelt.service.Kova", "T"), "true");
    EXPECT_EQ(inbox_.Next(), (sender.empty() ? stranger.Name() : sender) + ":");
  }
}

TEST_F(BusConnectionTest, ForgedNameOwnerChangedMakesNoTool) {
  const auto service = BusConnection::Open("Kova");
  std::vector<std::string_view> tools{"zeltcli-1"};
  const auto callback = service->RegisterCallbackImpl("T", gsl::span(tools), inbox_.Note());
  Stranger stranger;
  const auto name = stranger.Name();
  stranger.Signal("zelt.service.Kova", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                  "NameOwnerChanged", "sss", "zelt.tool.zeltcli-1", "", name.c_str());
  EXPECT_EQ(stranger.Send("zelt.service.Kova", "T"), "false");
  EXPECT_TRUE(log_.Contains("[" + name + "] may not send [T]"));
  EXPECT_TRUE(log_.Contains("Dropped a forged NameOwnerChanged"));
  EXPECT_EQ(Stranger({"zelt.tool.zeltcli-1"}).Send("zelt.service.Kova", "T"), "true");
}

TEST_F(BusConnectionTest, SubscriptionBelievesItsPublisherAndNobodyElse) {
  const auto subscriber = BusConnection::Open("Upgrade");
  const auto of_kova = subscriber->SubscribeImpl("P", "Kova", inbox_.Note("Kova's "));
  const auto of_all = subscriber->SubscribeImpl("P", "", inbox_.Note("any "));
  Stranger other({"zelt.service.Battery"});
  // It goes by the first of its names, which is not the one that counts here.
  Stranger kova({"zelt.service.Kova", "zelt.service.Another"});
  Settle(*subscriber, "Upgrade");
  other.Publish("say", "P", 1, 'x');
  EXPECT_EQ(inbox_.Next(), "any Battery:x");
  EXPECT_TRUE(Logs("[Battery] is not believed to publish [P]"));
  EXPECT_EQ(other.Send("zelt.service.Upgrade", "P", "y"), "true") << "one of the two takes it";
  EXPECT_EQ(inbox_.Next(), "any Battery:y");
  EXPECT_TRUE(log_.Contains("[Battery] may not send [P]"));
  EXPECT_EQ(kova.Send("zelt.service.Upgrade", "P", "z"), "true");
  EXPECT_EQ(inbox_.Next(), "Kova's Another:z");
  EXPECT_EQ(inbox_.Next(), "any Another:z");
  EXPECT_FALSE(subscriber->SubscribeImpl("P", "no name", inbox_.Note()).IsOpen());
}

TEST_F(BusConnectionTest, AnswersReachTheRequestTheyBelongToAndStrangersAreRefused) {
  const auto asker = BusConnection::Open("zeltcli-1");
  const auto service = BusConnection::Open("Kova");
  std::promise<Envelope> first;
  const auto later = service->RegisterCallbackImpl(
      "later", std::nullopt, [&](const Envelope& envelope, auto) { first.set_value(envelope); });
  const auto now = service->RegisterCallbackImpl(
      "now", std::nullopt, [&](const Envelope& envelope, std::string_view payload) {
        EXPECT_TRUE(service->SendResponseImpl(envelope, "A", payload).get());
        EXPECT_TRUE(service->SendResponseImpl(envelope, "B", payload).get()) << "accepted";
      });
  Settle(*asker, "zeltcli-1");
  auto slow = asker->RequestImpl("Kova", "later", "1", 1h);
  const auto quick = Get(asker->RequestImpl("Kova", "now", "2", 1h));
  EXPECT_EQ(quick.outcome, Outcome::Answered) << quick.error;
  EXPECT_EQ(quick.type + quick.payload, "A2");
  EXPECT_TRUE(Logs("Response [B] to [zeltcli-1] failed: the asker does not await it"));
  EXPECT_TRUE(log_.Contains("Refused response [B] from [Kova]: request "));

  const auto envelope = Get(first.get_future());
  EXPECT_EQ(envelope.sender, "zeltcli-1");
  Stranger stranger({"zelt.service.Upgrade"});
  EXPECT_EQ(stranger.Call(envelope.connection, "Respond", "tsay", envelope.request, "X", 0),
            "false");
  EXPECT_TRUE(service->SendResponseImpl(envelope, "C", "3").get());
  EXPECT_EQ(Get(std::move(slow)).payload, "3");
  EXPECT_TRUE(service->SendResponseImpl({"x", "T", envelope.connection, 0}, "D", "").get())
      << "nobody awaits it";
  EXPECT_FALSE(service->SendResponseImpl({"x", "T", "Kova", 7}, "E", "").get()) << "no connection";

  EXPECT_EQ(Get(asker->RequestImpl("Kova", "other", "", 1h)).outcome, Outcome::NotTaken);
  EXPECT_EQ(Get(asker->RequestImpl("Kova", "now", "", 0ms)).outcome, Outcome::Delivered);
}

TEST_F(BusConnectionTest, WhatOneThreadSendsArrivesInItsOrderAndNothingIsLost) {
  constexpr int kThreads = 4;
  constexpr int kEach = 150;
  const auto sender = BusConnection::Open("Upgrade");
  const auto receiver = BusConnection::Open("Kova");
  const auto callback = receiver->RegisterCallbackImpl("T", std::nullopt, inbox_.Note());
  Settle(*sender, "Upgrade");
  std::vector<std::jthread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (int number = 0; number < kEach; ++number) {
        EXPECT_TRUE(sender->SendImpl("Kova", "T", std::to_string(number * 10 + thread)).get());
        if (number % 7 == 0) {
          sender->Flush();  // so that the loop is idle now and then
        }
      }
    });
  }
  std::vector<int> next(kThreads, 0);
  for (int count = 0; count < kThreads * kEach; ++count) {
    const int number = std::stoi(inbox_.Next().substr(sizeof "Upgrade"));
    EXPECT_EQ(number / 10, next.at(static_cast<std::size_t>(number % 10))++);
  }
  threads.clear();
  sender->Flush();
  EXPECT_EQ(sender->GetCounters().accepted, 1U * kThreads * kEach);
  EXPECT_EQ(sender->GetCounters().delivered, 1U * kThreads * kEach);
}

TEST_F(BusConnectionTest, CallbackMaySendToItsOwnProcess) {
  const auto service = BusConnection::Open("Kova");
  const auto second = service->RegisterCallbackImpl("second", std::nullopt, inbox_.Note("second "));
  const auto first = service->RegisterCallbackImpl("first", std::nullopt, [&](const auto&, auto) {
    EXPECT_TRUE(service->SendImpl("Kova", "second", "x").get());
    EXPECT_TRUE(service->SendImpl("Kova", "third", "x").get()) << "accepted";
    EXPECT_EQ(service->RequestImpl("Kova", "second", "x", 0ms).get().outcome, Outcome::Invalid);
    EXPECT_EQ(service->QueryState("Other", 1s).get().outcome, Outcome::Invalid);
  });
  EXPECT_TRUE(service->SendImpl("Kova", "first", "").get());
  EXPECT_EQ(inbox_.Next(), "second Kova:x");
  EXPECT_TRUE(Logs("Send [third] to [Kova] failed: the receiver has no callback for it"));
}

TEST_F(BusConnectionTest, LimitsAreNamedAndWhatFitsPasses) {
  const auto service = BusConnection::Open("Kova");
  const auto callback = service->RegisterCallbackImpl(
      "", std::nullopt, [this](const auto&, std::string_view payload) {
        inbox_.Put(std::to_string(payload.size()));
      });
  const std::string most(std::size_t{16} << 20U, 'x');
  const struct {
    std::string destination, type, payload, error;
  } kCases[] = {
      {"Kova", "T", most + "x", "payload of 16777217 bytes exceeds the limit of 16777216"},
      {"Kova", std::string(256, 'T'), "", "this one is 256 bytes long"},
      {"Kova", "it's", "", "letters, digits, '_', '-' and '.'"},
      {"zeltcli-x", "T", "", "the name of no service, tool or connection"},
      {std::string("Kova\0x", 6), "T", "", "the name of no service"},
  };
  for (const auto& [destination, type, payload, error] : kCases) {
    const auto reply = Get(service->RequestImpl(destination, type, payload, 0ms));
    EXPECT_EQ(reply.outcome, Outcome::Invalid) << error;
    EXPECT_THAT(reply.error, testing::HasSubstr(error));
    EXPECT_FALSE(service->SendImpl(destination, type, payload).get());
    EXPECT_THAT(log_.Texts(kLogError).back(), testing::HasSubstr(error));
  }
  EXPECT_FALSE(service->PublishImpl("it's", "").get());
  EXPECT_EQ(Stranger().Send("zelt.service.Kova", "T", most + "x"), SD_BUS_ERROR_INVALID_ARGS);
  std::latch held(1);
  std::latch full(1);
  const auto timer = service->AddTimer("hold", [&] { held.count_down(), full.wait(); }, 0s, false);
  held.wait();
  EXPECT_TRUE(service->SendImpl("Kova", std::string(255, 'T'), most).get());
  EXPECT_FALSE(service->SendImpl("Kova", "T", "x").get());
  EXPECT_THAT(Get(service->RequestImpl("Kova", "T", "x", 0ms)).error,
              testing::HasSubstr("limit of 8388608 bytes that the receiver has not"));
  full.count_down();
  EXPECT_EQ(inbox_.Next(), "16777216");
  EXPECT_FALSE(service->AddSubscribeHandlerImpl([](auto) {}, "").IsOpen());
  EXPECT_FALSE(service->SubscribeImpl("it's", "", [](const auto&, auto) {}).IsOpen());
}

TEST_F(BusConnectionTest, MalformedMessagesGetAnErrorReplyAndFewLines) {
  const auto service = BusConnection::Open("Kova");
  const auto any = service->RegisterCallbackImpl("", std::nullopt, inbox_.Note());
  const auto subscription = service->SubscribeImpl("P", "", inbox_.Note("P "));
  Stranger stranger({"zelt.service.Upgrade"});
  const std::string kova = "zelt.service.Kova";
  EXPECT_EQ(stranger.Send(kova, "it's"), SD_BUS_ERROR_INVALID_ARGS);
  EXPECT_EQ(stranger.Send(kova, ""), SD_BUS_ERROR_INVALID_ARGS);
  EXPECT_EQ(stranger.Call(kova, "Send", "s", "T"), SD_BUS_ERROR_INVALID_ARGS);
  EXPECT_EQ(stranger.Call(kova, "Respond", "tsay", std::uint64_t{1}, "", 0),
            SD_BUS_ERROR_INVALID_ARGS);
  EXPECT_EQ(stranger.Call(kova, "Frobnicate", "s", "T"), SD_BUS_ERROR_UNKNOWN_METHOD);
  stranger.Publish("ss", "P", "text");
  for (int count = 0; count < 50; ++count) {
    stranger.Publish("s", "P");
  }
  stranger.Publish("say", "P", 1, 'x');
  EXPECT_EQ(inbox_.Next(), "P Upgrade:x");
  EXPECT_TRUE(log_.Contains("Refused a message from [Upgrade]: a type or topic has 1 to 255"));
  EXPECT_TRUE(Logs("[refused or dropped messages]: "));
  EXPECT_TRUE(Logs(" more such lines were not written"));
}

TEST_F(BusConnectionTest, LatestRegistrationTakesTheMessageUnlessItThrowsOrIsBusy) {
  const auto service = BusConnection::Open("Kova");
  Stranger stranger;
  const auto send = [&](const char* payload) {
    const auto reply = Get(service->RequestImpl("Kova", "T", payload, 0ms));
    return std::pair(reply.outcome, stranger.Send("zelt.service.Kova", "T", payload));
  };
  const auto older = service->RegisterCallbackImpl("T", std::nullopt, inbox_.Note("older "));
  auto newer = service->RegisterCallbackImpl(
      "T", std::nullopt, [](const auto&, auto) { throw std::runtime_error("bad callback"); });
  EXPECT_EQ(send("1"), std::pair(Outcome::NotTaken, std::string("false")));
  EXPECT_TRUE(log_.Contains("Callback of [T] threw an exception: bad callback"));
  newer = service->RegisterCallbackImpl("T", std::nullopt,
                                        [](const auto&, auto) { throw Busy("64 MiB wait"); });
  EXPECT_EQ(send("2"), std::pair(Outcome::Busy, std::string("zelt.Error.Busy")));
  EXPECT_TRUE(log_.Contains("Refused [T] from [Kova]: 64 MiB wait"));
  EXPECT_TRUE(log_.Contains("Send [T] to [Kova] failed: 64 MiB wait"));
  EXPECT_EQ(service->GetCounters().busy, 1U);
  newer.Close();
  EXPECT_EQ(send("3"), std::pair(Outcome::Delivered, std::string("true")));
  EXPECT_EQ(inbox_.Next(), "older Kova:3");
}

TEST_F(BusConnectionTest, SubscribersAreAnnouncedAndAnnounceThemselvesAgain) {
  const auto subscriber = BusConnection::Open("Upgrade");
  auto first = subscriber->SubscribeImpl("P", "Kova", inbox_.Note("first "));
  const auto second = subscriber->SubscribeImpl("P", "Kova", inbox_.Note("second "));
  const auto everything = subscriber->SubscribeImpl("", "", [](const auto&, auto) {});
  Settle(*subscriber, "Upgrade");            // the bus has all of that before Kova comes
  for (int start = 0; start < 2; ++start) {  // the second is a restart
    const auto publisher = BusConnection::Open("Kova");
    Inbox announced;
    const auto handler = publisher->AddSubscribeHandlerImpl(
        [&](std::string_view name) { announced.Put(std::string(name)); }, "P");
    publisher->SetState(5);
    EXPECT_EQ(announced.Next(), "Upgrade");
    const auto unnamed = BusConnection::Open("");
    const auto third = unnamed->SubscribeImpl("P", "Kova", [](const auto&, auto) {});
    EXPECT_THAT(announced.Next(), testing::StartsWith(":")) << "only one announcement a topic";

    EXPECT_TRUE(publisher->SendImpl("Upgrade", "P", "to you").get());
    EXPECT_EQ(inbox_.Next(), "first Kova:to you");
    EXPECT_EQ(inbox_.Next(), "second Kova:to you");
  }
  first.Close();
  const auto publisher = BusConnection::Open("Kova");
  EXPECT_TRUE(publisher->PublishImpl("P", "to all").get());
  EXPECT_EQ(inbox_.Next(), "second Kova:to all");
}

}  // namespace
}  // namespace zelt::test
