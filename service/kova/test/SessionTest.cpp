// What a link reports belongs to its session: whoever stops the link has the last word.

#include "Bench.h"
#include "KovaService.h"
#include "RtConnectionState.h"

#include <thread>

namespace zelt::test {
namespace {

constexpr std::uint32_t kHandshakeCompleted = 1;
constexpr std::uint32_t kIgFailed = 47;
constexpr std::array<std::uint32_t, 5> kLinkEvents = {kHandshakeCompleted, 3, 5, 44, kIgFailed};

const auto kStart = FromText<Kova::RtConnectionAction>("action: START");
const auto kStop = FromText<Kova::RtConnectionAction>("action: STOP");

class Session : public BenchTest {
 protected:
  const std::string started =
      Line("start", "/dev/ttyS2", 1500000, 1, 8, 0, 0, 5, false, true, 0, 30);
};

TEST_F(Session, WhatAStoppedLinkReportedIsWithdrawn) {
  for (const std::uint32_t kind : kLinkEvents) {
    From("Peer", kStart);
    Post("Peer", kStop);
    Post(kind);  // comes while the stop waits
    Post("Peer", kStart);
    Post(22, Kova::BatteryLevel());  // of no session
    EXPECT_EQ(WithoutLog(Drain()), (Trace{"stop", Publish(Status(0)), started, Publish(Status(1)),
                                          Send("Battery", Kova::BatteryLevel())}));
    EXPECT_NE(WithoutLog(Notify(kind)), Trace()) << kind;  // of the session that is
    From("Peer", kStop);
  }
}

TEST_F(Session, StatusThatThereIsNotHasAText) {
  // NOLINTNEXTLINE(clang-analyzer-optin.core.EnumCastOutOfRange): on purpose
  EXPECT_EQ(RtConnectionStateText(RtConnectionState{7}), "Unknown status");
}

TEST_F(Session, StartBehindTheStopOfTheServiceBringsNoLinkUp) {
  Post("Peer", kStart);
  context.Deinit();
  EXPECT_EQ(WithoutLog(Drain()), (Trace{"stop", Publish(Status(0))}));
}

TEST_F(Session, StopOfTheServiceWaitsForTheEventThatIsBeingHandled) {
  From("Peer", kStart);
  std::jthread stopper;
  std::atomic<bool> stopping = false;
  std::atomic<bool> stopped = false;
  model->before_publish = [&] {
    model->before_publish = [] {};
    stopper = std::jthread([&] {
      stopping = true;
      stopping.notify_all();
      context.Deinit();
      stopped = true;
    });
    stopping.wait(false);
    for (int i = 0; i < 5000 && !stopped; ++i) {
      std::this_thread::yield();  // what does not wait comes to its end meanwhile
    }
  };
  Post(kHandshakeCompleted);
  Trace trace = Drain();
  stopper.join();
  trace = trace + journal.Take();
  EXPECT_EQ(LastStatus(trace), Publish(Status(0)));
  EXPECT_EQ(std::ranges::count(trace, Publish(Status(4))), 1);
}

// --- A radio that is never quiet -----------------------------------------------------------------

// Reports the events of a link all the time, on a thread of its own, and keeps the word of the real
// one: when Stop() has returned, no notification is running or comes, but until then one may; and a
// radio that is held is quiet.
class RestlessRadio : public orka::fake::FakeRadioProtocol {
 public:
  bool StartUart(const orka::UartSettings&, std::uint32_t, std::uint32_t) override {
    const std::lock_guard lock(mutex_);
    held_ = false;
    return up_ = true;
  }
  void Stop() override {
    const std::lock_guard lock(mutex_);
    if (std::exchange(up_, false)) {
      std::jthread([this] { Deliver(orka::NotifyMessage{kHandshakeCompleted}); }).join();
    }
  }
  void HoldReceiving() override { held_ = true; }
  void ContinueReceiving() override { held_ = false; }
  bool IsUp() {
    const std::lock_guard lock(mutex_);
    return up_;
  }

 private:
  void Report(const std::stop_token& stop) {
    for (std::size_t i = 0; !stop.stop_requested(); ++i) {
      {
        const std::lock_guard lock(mutex_);
        if (up_ && !held_) {
          Deliver(orka::NotifyMessage{kLinkEvents[i % kLinkEvents.size()]});
        }
      }
      std::this_thread::yield();
    }
  }

  std::atomic<bool> held_ = false;
  std::mutex mutex_;
  bool up_ = false;  // guarded by mutex_
  std::jthread thread_{[this](const std::stop_token& stop) { Report(stop); }};
};

class RestlessContext : public KovaContext {
 public:
  explicit RestlessContext(const std::shared_ptr<ServiceModel>& model)
      : KovaContext(
            model, std::make_unique<fake::FakeConfigReader>(std::make_shared<fake::FakeConfig>())) {
  }
  void Init(std::unique_ptr<orka::RadioProtocol>, std::unique_ptr<TargetAttributesIF>) override {
    auto made = std::make_unique<RestlessRadio>();
    radio = made.get();
    KovaContext::Init(std::move(made), nullptr);
  }
  RestlessRadio* radio = nullptr;  // the context's
};

class Restless : public testing::Test {
 protected:
  Restless() { LogClient::SetLevel(kLogInfo); }
  bool Post(const MessageLite& message) {
    return model->Ipc().Deliver(message.GetTypeName(), "Peer", message.SerializeAsString());
  }
  fake::RootFolder folder;
  Journal journal;
  std::shared_ptr<TracedModel> model = std::make_shared<TracedModel>(journal);
};

TEST_F(Restless, ServiceEndsDisconnectedHoweverItsStopFalls) {
  for (int round = 0; round < 200; ++round) {
    auto context = std::make_shared<RestlessContext>(model);
    KovaService service(model, 0, context);
    std::thread runner([&] { service.DoRun(); });
    ASSERT_TRUE(journal.WaitFor(Log(6, "DoRun", "Kova service running..........", 0x8027)));
    for (int flap = 0; flap < 4; ++flap) {
      Post(kStart);
      Post(kStop);
    }
    Post(kStart);
    if (round % 2 == 0) {
      journal.WaitFor(Publish(Status(4)));  // handled what the link reports, and goes on with it
    }
    service.DoDie();
    runner.join();
    const Trace trace = journal.Take();
    ASSERT_EQ(LastStatus(trace), Publish(Status(0))) << round;
    ASSERT_FALSE(context->radio->IsUp()) << round;
  }
}

TEST_F(Restless, ContextMayGoWhileMessagesArrive) {
  for (int round = 0; round < 50; ++round) {
    auto context = std::make_unique<RestlessContext>(model);
    context->Init(nullptr, nullptr);
    context->RegisterIpcCallbacks();
    const std::jthread peer([this] {
      while (Post(Kova::BatteryLevelRequest())) {
      }
    });
    while (context->TaskQueue().Size() < 5) {
      std::this_thread::yield();
    }
    context.reset();
  }
}

}  // namespace
}  // namespace zelt::test
