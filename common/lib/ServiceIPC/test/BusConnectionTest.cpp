#include "SdBus.h"
#include "zelt/BusConnection.h"
#include "zelt/fake/LogCapture.h"
#include "zelt/fake/TestBus.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <deque>
#include <latch>
#include <mutex>
#include <thread>

namespace zelt {
namespace {

using fake::LogCapture;
using fake::TestBus;
using namespace std::chrono_literals;
using Envelope = ServiceIPC::MessageEnvelope;
using Outcome = ServiceIPC::Outcome;

// What callbacks heard, in order, for a test to wait for.
class Inbox {
 public:
  void Put(std::string text) {
    const std::lock_guard lock(mutex_);
    texts_.push_back(std::move(text));
    changed_.notify_all();
  }
  std::string Next() {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, 10s, [this] { return !texts_.empty(); })) {
      return "nothing came";
    }
    auto text = std::move(texts_.front());
    texts_.pop_front();
    return text;
  }
  auto Note(std::string prefix = "") {
    return [this, prefix = std::move(prefix)](const Envelope& envelope, std::string_view payload) {
      Put(prefix + envelope.sender + ":" + std::string(payload));
    };
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::string> texts_;
};

// A peer that is none of ours and speaks D-Bus by hand. It answers nothing by itself: as long as
// nobody calls it, it is a peer that hangs.
class Stranger {
 public:
  explicit Stranger(const std::vector<std::string>& names = {}) {
    sd_bus* bus = nullptr;
    Check(sd_bus_new(&bus), "new");
    bus_.reset(bus);
    Check(sd_bus_set_address(bus, std::getenv("ZELT_BUS_ADDRESS")), "address");
    Check(sd_bus_set_bus_client(bus, 1), "client");
    Check(sd_bus_start(bus), "start");
    for (const auto& name : names) {
      Check(sd_bus_request_name(bus, name.c_str(), 0), name);
    }
  }
  std::string Name() const {
    const char* name = nullptr;
    Check(sd_bus_get_unique_name(bus_.get(), &name), "unique name");
    return name;
  }
  // "true", "false" or the name of the error.
  template <class... Arguments>
  std::string Call(const std::string& destination, const char* member, Arguments... arguments) {
    BusError error;
    sd_bus_message* raw = nullptr;
    const int result =
        sd_bus_call_method(bus_.get(), destination.c_str(), "/zelt/ServiceIPC", "zelt.ServiceIPC1",
                           member, &error.error, &raw, arguments...);
    const MessagePtr reply(raw);
    int taken = 0;
    if (result < 0 || sd_bus_message_read(raw, "b", &taken) < 0) {
      return error.error.name != nullptr ? error.error.name : ErrorText(result);
    }
    return taken != 0 ? "true" : "false";
  }
  std::string Send(const std::string& destination, const std::string& type) {
    return Call(destination, "Send", "sayt", type.c_str(), 0, std::uint64_t{0});
  }
  template <class... Arguments>
  void Signal(const std::string& destination, const char* path, const char* interface,
              const char* member, Arguments... arguments) {
    sd_bus_message* raw = nullptr;
    Check(sd_bus_message_new_signal(bus_.get(), &raw, path, interface, member), "signal");
    const MessagePtr signal(raw);
    Check(sd_bus_message_append(raw, arguments...), "append");
    sd_bus_message_set_destination(raw, destination.empty() ? nullptr : destination.c_str());
    Check(sd_bus_send(bus_.get(), raw, nullptr), "send");
  }
  sd_bus* Bus() { return bus_.get(); }

 private:
  BusPtr bus_;
};

class BusConnectionTest : public testing::Test {
 protected:
  TestBus bus_;
  LogCapture log_;
  Inbox inbox_;
};

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

TEST_F(BusConnectionTest, AnswersReachTheRequestTheyBelongToAndStrangersAreRefused) {
  const auto asker = BusConnection::Open("zeltcli-1");
  const auto service = BusConnection::Open("Kova");
  std::promise<Envelope> first;
  const auto later = service->RegisterCallbackImpl(
      "later", std::nullopt, [&](const Envelope& envelope, auto) { first.set_value(envelope); });
  const auto now = service->RegisterCallbackImpl(
      "now", std::nullopt, [&](const Envelope& envelope, std::string_view payload) {
        inbox_.Put(service->SendResponseImpl(envelope, "A", payload).get() ? "taken" : "refused");
        inbox_.Put(service->SendResponseImpl(envelope, "B", payload).get() ? "taken" : "refused");
      });
  auto slow = asker->RequestImpl("Kova", "later", "1", 1h);
  auto quick = asker->RequestImpl("Kova", "now", "2", 1h).get();
  EXPECT_EQ(quick.outcome, Outcome::Answered) << quick.error;
  EXPECT_EQ(quick.type + quick.payload, "A2");
  EXPECT_EQ(inbox_.Next(), "taken");
  EXPECT_EQ(inbox_.Next(), "refused") << "a second answer";

  const auto envelope = first.get_future().get();
  EXPECT_EQ(envelope.sender, "zeltcli-1");
  Stranger stranger({"zelt.service.Upgrade"});
  EXPECT_EQ(stranger.Call(envelope.connection, "Respond", "tsay", envelope.request, "X", 0),
            "false");
  EXPECT_TRUE(service->SendResponseImpl(envelope, "C", "3").get());
  EXPECT_EQ(slow.get().payload, "3");
  EXPECT_TRUE(service->SendResponseImpl({"x", "T", envelope.connection, 0}, "D", "").get())
      << "nobody awaits it";

  EXPECT_EQ(asker->RequestImpl("Kova", "other", "", 1h).get().outcome, Outcome::NotTaken);
  EXPECT_EQ(asker->RequestImpl("Kova", "now", "", 0ms).get().outcome, Outcome::Delivered);
}

TEST_F(BusConnectionTest, PeerThatIsAbsentOrHangsOrLeavesEndsTheSend) {
  const auto asker = BusConnection::Open("Upgrade");
  EXPECT_EQ(asker->RequestImpl("Nobody", "T", "", 1h).get().outcome, Outcome::NoSuchService);
  const Stranger hung({"zelt.service.Hung"});
  EXPECT_FALSE(asker->SendImpl("Hung", "T", "").get());
  EXPECT_EQ(asker->RequestImpl("Hung", "T", "", 1h).get().outcome, Outcome::TimedOut);
  EXPECT_TRUE(log_.Contains("Send [T] to [Hung] failed: the receiver does not react"));

  // The same from the IPC thread itself, which has to serve its own send.
  const auto timer = asker->AddTimer(
      "send", [&] { inbox_.Put(asker->SendImpl("Hung", "T", "").get() ? "taken" : "not taken"); },
      0s, false);
  EXPECT_EQ(inbox_.Next(), "not taken");
  EXPECT_EQ(asker->QueryState("Hung", 0.01s).get().outcome, Outcome::TimedOut);
  EXPECT_EQ(asker->QueryState("Hung", 1h).get().error, "the receiver has 4 messages unanswered");

  const auto here = asker->RegisterCallbackImpl("here", std::nullopt, inbox_.Note());
  for (const auto* name : {"Mute", ""}) {
    auto peer = BusConnection::Open(name);
    const auto callback = peer->RegisterCallbackImpl("T", std::nullopt, inbox_.Note());
    EXPECT_TRUE(peer->SendImpl("Upgrade", "here", "").get());
    auto sender = inbox_.Next();
    sender.pop_back();  // the colon
    EXPECT_EQ(asker->RequestImpl(sender, "T", "", 20ms).get().outcome, Outcome::TimedOut);
    auto left = asker->RequestImpl(sender, "T", "", 1h);
    inbox_.Next();
    inbox_.Next();
    peer.reset();
    EXPECT_EQ(left.get().error, "the receiver left before it answered");
  }
}

TEST(BusLimitTest, HungPeerMutesTheSenderTowardsNobodyElse) {
  const TestBus bus(
      "</policy><limit name='max_replies_per_connection'>8</limit><policy context='default'>");
  Inbox inbox;
  std::latch awake(1);
  const auto asker = BusConnection::Open("Upgrade");
  const auto healthy = BusConnection::Open("Kova");
  const auto peer = BusConnection::Open("Hung");
  const auto ignore = [](const auto&, auto) {};
  const auto back = asker->RegisterCallbackImpl("back", std::nullopt, ignore);
  const auto other = healthy->RegisterCallbackImpl("T", std::nullopt, ignore);
  const auto take = peer->RegisterCallbackImpl("T", std::nullopt, inbox.Note());
  const auto hang =
      peer->RegisterCallbackImpl("hang", std::nullopt, [&](const auto&, auto) { awake.wait(); });
  std::vector<std::future<bool>> late;
  for (const auto* type : {"hang", "T", "T", "T"}) {
    late.push_back(asker->SendImpl("Hung", type, "late"));
  }
  for (auto& send : late) {
    EXPECT_FALSE(send.get());
  }
  for (int more = 0; more < 8; ++more) {
    const auto refused = asker->RequestImpl("Hung", "T", "", 0ms).get();
    EXPECT_EQ(refused.error, "the receiver has 4 messages unanswered");
    EXPECT_TRUE(asker->SendImpl("Kova", "T", "").get());
  }
  awake.count_down();
  for (int count = 0; count < 3; ++count) {
    EXPECT_EQ(inbox.Next(), "Upgrade:late");
  }
  EXPECT_TRUE(peer->SendImpl("Upgrade", "back", "").get());  // behind the first late answers
  EXPECT_TRUE(asker->SendImpl("Hung", "T", "new").get());
}

TEST_F(BusConnectionTest, BusThatDoesNotReadDoesNotFillTheMemory) {
  const auto service = BusConnection::Open("");
  bus_.Halt();
  for (const std::size_t size : {std::size_t{1} << 20U, std::size_t{0}}) {
    int sent = 0;
    while (sent < 4096 && service->PublishImpl("P", std::string(size, 'x')).get()) {
      ++sent;
    }
    EXPECT_LT(sent, 4096) << size;
  }
  EXPECT_TRUE(log_.Contains("Publish [P] to [every subscriber] failed: the bus does not read"));
}

TEST_F(BusConnectionTest, CallbackMaySendToItsOwnProcess) {
  const auto service = BusConnection::Open("Kova");
  const auto second = service->RegisterCallbackImpl("second", std::nullopt, inbox_.Note("second "));
  const auto first = service->RegisterCallbackImpl("first", std::nullopt, [&](const auto&, auto) {
    inbox_.Put(service->SendImpl("Kova", "second", "x").get() ? "taken" : "not taken");
    inbox_.Put(service->SendImpl("Kova", "third", "x").get() ? "taken" : "not taken");
  });
  EXPECT_TRUE(service->SendImpl("Kova", "first", "").get());
  EXPECT_EQ(inbox_.Next(), "taken");
  EXPECT_EQ(inbox_.Next(), "not taken");
  EXPECT_EQ(inbox_.Next(), "second Kova:x");
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
    const auto reply = service->RequestImpl(destination, type, payload, 0ms).get();
    EXPECT_EQ(reply.outcome, Outcome::Invalid) << error;
    EXPECT_THAT(reply.error, testing::HasSubstr(error));
    EXPECT_THAT(log_.Texts(kLogError).back(), testing::HasSubstr(error));
  }
  // Whether so much arrives within a second is the machine's affair; that it does is ours.
  service->SendImpl("Kova", std::string(255, 'T'), most).wait();
  EXPECT_EQ(inbox_.Next(), "16777216");
  EXPECT_FALSE(service->AddSubscribeHandlerImpl([](auto) {}, "").IsOpen());
  EXPECT_FALSE(service->SubscribeImpl("it's", [](const auto&, auto) {}).IsOpen());

  std::latch held(1);
  std::latch full(1);
  const auto timer = service->AddTimer("hold", [&] { held.count_down(), full.wait(); }, 0s, false);
  held.wait();
  std::vector<std::future<bool>> sends;
  const auto fill = [&](std::size_t count, const std::string& payload, const std::string& limit) {
    while (sends.size() < count) {
      sends.push_back(service->PublishImpl("P", payload));
    }
    const auto reply = service->RequestImpl("Kova", "T", "x", 0ms).get();
    EXPECT_THAT(reply.error, testing::HasSubstr("limit of " + limit + " under way"));
  };
  fill(4, most, "67108864 bytes");
  fill(1024, "", "1024 sends");
  full.count_down();
  service->QueryState("Nobody", 3600s).wait();  // until the bus has read it all
  EXPECT_TRUE(service->SendImpl("Kova", "T", "").get()) << "their places are free again";
}

TEST_F(BusConnectionTest, MalformedMessagesGetAnErrorReplyAndDisturbNothing) {
  const auto service = BusConnection::Open("Kova");
  const auto any = service->RegisterCallbackImpl("", std::nullopt, inbox_.Note());
  const auto subscription = service->SubscribeImpl("P", inbox_.Note("P "));
  Stranger stranger({"zelt.service.Upgrade"});
  const std::string kova = "zelt.service.Kova";
  EXPECT_EQ(stranger.Send(kova, "it's"), SD_BUS_ERROR_INVALID_ARGS);
  EXPECT_EQ(stranger.Send(kova, ""), SD_BUS_ERROR_INVALID_ARGS);
  EXPECT_EQ(stranger.Call(kova, "Send", "s", "T"), SD_BUS_ERROR_INVALID_ARGS);
  EXPECT_EQ(stranger.Call(kova, "Respond", "tsay", std::uint64_t{1}, "", 0),
            SD_BUS_ERROR_INVALID_ARGS);
  EXPECT_EQ(stranger.Call(kova, "Frobnicate", "s", "T"), SD_BUS_ERROR_UNKNOWN_METHOD);
  const auto signal = [&](auto... arguments) {
    stranger.Signal("", "/zelt/ServiceIPC", "zelt.ServiceIPC1", "Published", arguments...);
  };
  signal("ss", "P", "text");
  for (int count = 0; count < 50; ++count) {
    signal("s", "P");
  }
  signal("say", "P", 1, 'x');
  EXPECT_EQ(inbox_.Next(), "P Upgrade:x");
  EXPECT_TRUE(log_.Contains("Dropped a signal from [Upgrade]: its arguments are malformed"));
  EXPECT_TRUE(log_.WaitFor(" more messages were refused or dropped"));
}

TEST_F(BusConnectionTest, LatestRegistrationTakesTheMessageAndAThrowingOneDoesNot) {
  const auto service = BusConnection::Open("Kova");
  const auto older = service->RegisterCallbackImpl("T", std::nullopt, inbox_.Note("older "));
  auto newer = service->RegisterCallbackImpl(
      "T", std::nullopt, [](const auto&, auto) { throw std::runtime_error("bad callback"); });
  EXPECT_FALSE(service->SendImpl("Kova", "T", "1").get());
  EXPECT_TRUE(log_.Contains("Callback of [T] threw an exception: bad callback"));
  newer.Close();
  EXPECT_TRUE(service->SendImpl("Kova", "T", "2").get());
  EXPECT_EQ(inbox_.Next(), "older Kova:2");
}

TEST_F(BusConnectionTest, SubscribersAreAnnouncedAndAnnounceThemselvesAgain) {
  const auto subscriber = BusConnection::Open("Upgrade");
  auto first = subscriber->SubscribeImpl("P", inbox_.Note("first "));
  const auto second = subscriber->SubscribeImpl("P", inbox_.Note("second "));
  const auto everything = subscriber->SubscribeImpl("", [](const auto&, auto) {});
  subscriber->QueryState("Kova", 10s).wait();  // the bus has all of that before Kova comes
  for (int start = 0; start < 2; ++start) {    // the second is a restart
    const auto publisher = BusConnection::Open("Kova");
    Inbox announced;
    const auto handler = publisher->AddSubscribeHandlerImpl(
        [&](std::string_view name) { announced.Put(std::string(name)); }, "P");
    publisher->SetState(5);
    EXPECT_EQ(announced.Next(), "Upgrade");
    const auto unnamed = BusConnection::Open("");
    const auto third = unnamed->SubscribeImpl("P", [](const auto&, auto) {});
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

TEST_F(BusConnectionTest, ClosedHandleMeansTheCallbackHasEnded) {
  auto service = BusConnection::Open("Kova");
  std::latch entered(1);
  std::latch closing(1);
  bool ended = false;  // unguarded on purpose: the handle has to order both threads
  auto running = service->SubscribeImpl("P", [&](const auto&, auto) {
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

TEST_F(BusConnectionTest, StateIsToldAtOnceAndOnEveryChange) {
  const auto watcher = BusConnection::Open("zeltcli-1");
  const auto watch = watcher->WatchState(
      "Kova", [this](std::uint32_t state) { inbox_.Put(std::to_string(state)); });
  EXPECT_EQ(inbox_.Next(), "0");
  auto service = BusConnection::Open("Kova");
  service->SetState(2);
  service->SetState(5);
  std::string told = inbox_.Next();
  while (told != "5" && told != "nothing came") {  // 0 and 2 may have been passed over
    told = inbox_.Next();
  }
  EXPECT_EQ(told, "5");
  EXPECT_THAT(watcher->ListNames(), testing::ElementsAre("Kova", "zeltcli-1"));

  // On the IPC thread, the own state and the end of the last reference.
  auto& connection = *service;
  const auto timer = connection.AddTimer(
      "last",
      [this, service = std::move(service)]() mutable {
        inbox_.Put("own " + std::to_string(service->QueryState("Kova", 1s).get().state));
        service.reset();
      },
      0s, false);
  EXPECT_EQ(inbox_.Next(), "own 5");
  EXPECT_EQ(inbox_.Next(), "0");
}

TEST_F(BusConnectionTest, LogLevelIsSetOverTheBus) {
  const auto service = BusConnection::Open("Kova");
  Stranger stranger;
  const auto set = [&](std::uint32_t level) {
    return sd_bus_set_property(stranger.Bus(), "zelt.service.Kova", "/zelt/ServiceIPC",
                               "zelt.ServiceIPC1", "LogLevel", nullptr, "u", level);
  };
  EXPECT_GE(set(7), 0);
  EXPECT_EQ(LogClient::Level(), 7);
  EXPECT_EQ(set(9), -EINVAL);
  EXPECT_EQ(LogClient::Level(), 7);
}

TEST_F(BusConnectionTest, LostBusEndsEverythingThatWaits) {
  const auto asker = BusConnection::Open("Upgrade");
  const auto service = BusConnection::Open("Kova");
  const auto callback = service->RegisterCallbackImpl("T", std::nullopt, inbox_.Note());
  const Stranger hung({"zelt.service.Hung"});
  const auto lost = asker->WatchDisconnect([this] { inbox_.Put("lost"); });
  auto answer = asker->RequestImpl("Kova", "T", "", 1h);
  EXPECT_EQ(inbox_.Next(), "Upgrade:");
  auto state = asker->QueryState("Hung", 3600s);
  asker->Flush();
  bus_.Kill();
  EXPECT_EQ(inbox_.Next(), "lost");
  EXPECT_EQ(answer.get().outcome, Outcome::Disconnected);
  EXPECT_EQ(state.get().outcome, Outcome::Disconnected);
  EXPECT_EQ(asker->RequestImpl("Kova", "T", "", 0ms).get().outcome, Outcome::Disconnected);
  EXPECT_FALSE(asker->PublishImpl("P", "").get());
}

TEST_F(BusConnectionTest, OpeningSaysWhatIsWrong) {
  const auto error = [](std::string_view service) -> std::string {
    try {
      BusConnection::Open(service);
    } catch (const std::runtime_error& thrown) {
      return thrown.what();
    }
    return "no error";
  };
  const auto taken = BusConnection::Open("Kova");
  EXPECT_THROW(taken->WatchSignals({SIGUSR1, SIGUSR1}, [](int) {}), std::runtime_error);
  EXPECT_THAT(error("Kova"), testing::HasSubstr("zelt.service.Kova is taken"));
  for (const auto* name : {"1st", "Ko.va", "zeltcli-", "zeltcli-1a", ":1.7", "Kövä"}) {
    EXPECT_THAT(error(name), testing::HasSubstr("is no name of a service"));
  }
  bus_.Halt();
  EXPECT_THAT(error(""), testing::HasSubstr("accepts connections but does not answer"));
  bus_.Kill();
  EXPECT_THAT(error(""), testing::HasSubstr("cannot connect to the bus at " + bus_.Address()));
}

TEST(BusPolicyTest, WhatItForbidsIsNotPermitted) {
  const TestBus bus(
      "<deny own='zelt.tool.zeltcli-1'/><deny send_destination='zelt.service.Kova'/>");
  const auto service = BusConnection::Open("Kova");
  EXPECT_EQ(service->RequestImpl("Kova", "T", "", 0ms).get().outcome, Outcome::NotPermitted);
  EXPECT_THROW(BusConnection::Open("zeltcli-1"), std::runtime_error);
}

}  // namespace
}  // namespace zelt
