#include "Sessions.h"

#include "Limits.h"
#include "LinkFixture.h"

#include <atomic>
#include <future>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace orka::test {
namespace {

// ------------------------------------------------------------------------------------------------
// Which request a response answers.

class TransactionsTest : public LinkTest {
 protected:
  template <class T>
  static T WithNumber(void (T::*set)(std::uint32_t), std::uint32_t number) {
    T message;
    (message.*set)(number);
    return message;
  }
  static Kova::FileAccessWriteRequest Write(std::uint32_t id) {
    return WithNumber(&Kova::FileAccessWriteRequest::set_request_id, id);
  }
  static Kova::FileAccessWriteResponse Written(std::uint32_t id) {
    return WithNumber(&Kova::FileAccessWriteResponse::set_request_id, id);
  }
  static Kova::FileAccessCreateRequest Create(std::uint32_t id) {
    return WithNumber(&Kova::FileAccessCreateRequest::set_request_id, id);
  }
  static Kova::FileAccessCreateResponse Created(std::uint32_t id) {
    return WithNumber(&Kova::FileAccessCreateResponse::set_request_id, id);
  }
  static Kova::FileHandleOpenRequest Open(std::uint32_t id) {
    return WithNumber(&Kova::FileHandleOpenRequest::set_handle_id, id);
  }
  static FileHandleRespWrapper Opened(std::uint16_t id) {
    FileHandleRespWrapper response;
    response.handle_id = id;
    return response;
  }
  // What becomes of a response: the number under which it goes out, or nothing when it does not.
  std::optional<int> Answer(const RadioOutgoingMessage& response) {
    const SendResult result = protocol_.SendToRadio(response, 0);
    EXPECT_THAT(result, testing::AnyOf(SendResult::Sent, SendResult::NotAsked));
    return result == SendResult::Sent ? std::optional(NextTransaction(Kind::Response))
                                      : std::nullopt;
  }
};

TEST_F(TransactionsTest, EachFileRequestHasItsOwnAnswerAndStrangersHaveNone) {
  Connect();
  std::uint16_t number = 100;
  const std::vector<std::pair<std::string_view, RadioNotificationData>> requests = {
      {"FileAccessWriteRequest", Write(5)},   {"FileHandleOpenRequest", Open(1)},
      {"FileAccessCreateRequest", Create(5)}, {"FileHandleOpenRequest", Open(0x10002)},
      {"FileHandleOpenRequest", Open(3)},     {"FileAccessWriteRequest", Write(6)}};
  for (const auto& [name, request] : requests) {
    radio_.Send(name, request, number++);
  }
  seen_.Await(1 + requests.size());
  EXPECT_EQ(Answer(Opened(2)), 103) << "a handle has 16 bits";
  EXPECT_EQ(Answer(Opened(1)), 101);
  EXPECT_EQ(Answer(Created(5)), 102);
  EXPECT_EQ(Answer(Written(6)), 105);
  EXPECT_EQ(Answer(Written(5)), 100);
  EXPECT_EQ(Answer(Opened(1)), 101) << "late, after the failure";
  EXPECT_EQ(Answer(Created(6)), std::nullopt) << "6 was a write";
  EXPECT_EQ(Answer(Opened(9)), std::nullopt);
  EXPECT_TRUE(log_.Contains("FileHandleOpenResponse (0x849E): it answers no request"));
  radio_.Send("FileHandleOpenRequest", Open(3), 200);
  seen_.Await(2 + requests.size());
  EXPECT_EQ(Answer(Opened(3)), 200) << "the newest of this number";

  protocol_.Stop();
  seen_.Clear();
  radio_.Hang();
  Connect();
  EXPECT_EQ(Answer(Opened(1)), std::nullopt) << "of the session before";
  EXPECT_EQ(Answer(Written(5)), std::nullopt);

  for (std::size_t i = 0; i <= kFileRequestsKnown; ++i) {
    radio_.Send("FileHandleOpenRequest", Open(static_cast<std::uint32_t>(i)), 300);
  }
  seen_.AwaitKind(N::FileHandleOpenRequest, kFileRequestsKnown + 1);
  EXPECT_EQ(Answer(Opened(0)), std::nullopt) << "forgotten";
  EXPECT_EQ(Answer(Opened(1)), 300);
}

TEST_F(TransactionsTest, OtherResponsesAnswerTheNewestOfTheirKindOrNothing) {
  Connect();
  EXPECT_EQ(Answer(Kova::ShutdownResponse()), 0) << "unasked";
  radio_.Send("ShutdownRequest", Kova::ShutdownRequest(), 9);
  radio_.Send("ShutdownRequest", Kova::ShutdownRequest(), 10);
  seen_.Await(3);
  EXPECT_EQ(Answer(Kova::ShutdownResponse()), 10);
  EXPECT_EQ(Answer(Kova::ShutdownResponse()), 10);
  EXPECT_EQ(Answer(Kova::ShutdownResponse()), 0) << "both are answered";
  radio_.Send("ShutdownRequest", Kova::ShutdownRequest(), 11);
  seen_.Await(4);
  protocol_.Stop();
  seen_.Clear();
  radio_.Hang();
  Connect();
  EXPECT_EQ(Answer(Kova::ShutdownResponse()), 0) << "asked in the session before";
}

TEST(Transactions, NumbersGoOnAndAreNeitherZeroNorAnInjections) {
  const codec::MessageRow& request = *codec::FindRow(codec::Direction::ToRadio, "RtVersionRequest");
  Injections injections;
  Transactions transactions(injections);
  EXPECT_EQ(transactions.For(request, Kova::RtVersionRequest()), 1);
  injections.Begin(3, 0x8401);
  EXPECT_EQ(transactions.Next(), 2);
  EXPECT_EQ(transactions.Next(), 4);
  transactions.Clear();
  EXPECT_EQ(transactions.Next(), 5) << "also after a reconnect";
  for (int i = 6; i < 65536; ++i) {
    transactions.Next();
  }
  EXPECT_EQ(transactions.Next(), 1);
}

// ------------------------------------------------------------------------------------------------
// Injected messages.

class InjectionTest : public LinkTest {
 protected:
  using Answer = std::pair<bool, std::vector<std::uint8_t>>;
  std::future<Answer> Inject(pel::BaseMessage header) {
    return std::async(std::launch::async,
                      [this, header] { return protocol_.InjectQRXMessage(message_, header); });
  }
  const codec::Bytes message_ = {0x04, 0x77, 1, 2};
};

TEST_F(InjectionTest, TakesItsResponseAndNoOther) {
  EXPECT_FALSE(protocol_.InjectQRXMessage(message_, {}).first) << "not connected";
  Connect();
  auto matched = Inject({.address = 5, .transaction = 0x1234});
  const auto request = radio_.Next(Kind::Request);
  ASSERT_TRUE(request);
  EXPECT_EQ(request->header, (pel::BaseMessage{5, 0, 0, 0, 0, 0x1234, 4}));
  EXPECT_EQ(request->payload, message_);
  EXPECT_FALSE(Inject({.transaction = 0x1234}).get().first) << "it is being waited for";
  radio_.Send(Kind::Response, codec::Bytes{0x84, 0x01}, 0x1233);
  radio_.Send(Kind::Response, codec::Bytes{0x84, 0x02}, 0x1234);
  radio_.Send(Kind::Response, codec::Bytes{0x84}, 0x1234);
  radio_.Send(Kind::Response, codec::Bytes{0x84, 0x77, 9}, 0x1234);
  EXPECT_EQ(matched.get(), std::pair(true, codec::Bytes({0x84, 0x77, 9})));
  EXPECT_THAT(seen_.Await(3), ElementsAre(N::HandshakeCompleted, N::RtVersion, N::HardwareId));

  EXPECT_EQ(protocol_.InjectQRXMessage(message_, {.kind = 1, .transaction = 8}),
            std::pair(true, codec::Bytes()));
  EXPECT_EQ(NextTransaction(Kind::Response), 8);
  EXPECT_TRUE(protocol_.InjectQRXMessage(message_, {.kind = 2, .transaction = 8}).first);
  EXPECT_EQ(NextTransaction(Kind::Broadcast), 0);
  EXPECT_FALSE(protocol_.InjectQRXMessage(message_, {.kind = 3}).first) << "link control";
  EXPECT_FALSE(protocol_.InjectQRXMessage(codec::Bytes{4}, {}).first) << "no opcode";
  EXPECT_FALSE(protocol_.InjectQRXMessage(codec::Bytes(65'536), {}).first) << "too long by one";

  auto stopped = Inject({.transaction = 77});
  ASSERT_EQ(NextTransaction(Kind::Request), 77);
  protocol_.Stop();
  EXPECT_FALSE(stopped.get().first);
  EXPECT_TRUE(log_.Contains("the link ended"));
}

TEST_F(InjectionTest, LateAndFurtherResponsesAreNobodyElses) {
  Connect();
  auto late = Inject({});
  const int number = NextTransaction(Kind::Request);
  EXPECT_FALSE(late.get().first) << "not answered in 2 s";
  const auto transaction = static_cast<std::uint16_t>(number);
  const codec::Bytes response = {0x84, 0x77};
  const std::uint64_t unknown = protocol_.GetCounters().dropped_unknown_opcode;
  radio_.Send(Kind::Response, response, transaction);
  radio_.Send(Kind::Response, response, transaction);
  radio_.Send(Kind::Response, response, static_cast<std::uint16_t>(transaction + 1));
  radio_.Send("RtVersionResponse", Kova::RtVersionResponse(), transaction);
  ASSERT_TRUE(seen_.AwaitKind(N::RtVersion)) << "of another request with this number";
  EXPECT_EQ(protocol_.GetCounters().dropped_unknown_opcode, unknown + 1) << "only a stranger's";
  for (std::size_t i = 0; i < kInjectionsKnown; ++i) {
    auto other = Inject({});
    const auto next = static_cast<std::uint16_t>(NextTransaction(Kind::Request));
    EXPECT_NE(next, transaction);
    radio_.Send(Kind::Response, response, next);
    EXPECT_TRUE(other.get().first);
  }
  radio_.Send(Kind::Response, response, transaction);
  radio_.Send("RtVersionResponse", Kova::RtVersionResponse(), transaction);
  ASSERT_TRUE(seen_.AwaitKind(N::RtVersion, 2));
  EXPECT_EQ(protocol_.GetCounters().dropped_unknown_opcode, unknown + 2) << "forgotten by now";
}

TEST_F(InjectionTest, RadioThreadCannotWaitForItself) {
  std::promise<bool> from_callback;
  Connect();
  protocol_.RegisterCallback([&](N, const RadioNotificationData&) {
    from_callback.set_value(protocol_.InjectQRXMessage(message_, {}).first);
  });
  radio_.Send(Kind::Broadcast, codec::Bytes{0xB4, 0x06});
  EXPECT_FALSE(from_callback.get_future().get());
}

// ------------------------------------------------------------------------------------------------
// Stopping.

TEST_F(LinkTest, NothingIsNotifiedAfterStop) {
  protocol_.Stop();  // before any start
  std::atomic<bool> stopped = false;
  std::atomic<int> late = 0;
  protocol_.RegisterCallback([&](N, const RadioNotificationData&) { late += stopped ? 1 : 0; });
  ASSERT_TRUE(protocol_.StartSocket(radio_.Address(), 0, 20));
  ASSERT_TRUE(radio_.Handshake());
  std::thread talk([&] {
    for (int i = 0; i < 2000; ++i) {
      radio_.Send(Kind::Broadcast, codec::Bytes{0xB4, 0x06});
    }
  });
  while (protocol_.GetCounters().frames_received < 50) {
    std::this_thread::yield();
  }
  std::thread other([&] { protocol_.Stop(); });
  protocol_.Stop();
  stopped = true;
  other.join();
  talk.join();
  EXPECT_EQ(late, 0);
}

// Each stop waits for a notification that is running, also one that finds nothing to stop.
TEST_F(LinkTest, SecondStopWaitsForTheNotificationToo) {
  std::promise<void> entered;
  std::promise<void> leave;
  protocol_.RegisterCallback([&](N, const RadioNotificationData&) {
    entered.set_value();
    leave.get_future().wait();
  });
  ASSERT_TRUE(protocol_.StartSocket(radio_.Address(), 0, 20));
  ASSERT_TRUE(radio_.Handshake());
  entered.get_future().wait();
  const auto stop = [&] { return std::async(std::launch::async, [&] { protocol_.Stop(); }); };
  auto first = stop();
  auto second = stop();
  EXPECT_EQ(first.wait_for(50ms), std::future_status::timeout);
  EXPECT_EQ(second.wait_for(50ms), std::future_status::timeout);
  leave.set_value();
}

TEST_F(LinkTest, StopFromTheCallbackReturnsAndSilences) {
  std::promise<void> stopped;
  std::atomic<int> calls = 0;
  protocol_.RegisterCallback([&](N, const RadioNotificationData&) {
    protocol_.Stop();
    if (++calls == 1) {
      stopped.set_value();
    }
    throw std::runtime_error("a callback that fails");
  });
  ASSERT_TRUE(protocol_.StartSocket(radio_.Address(), 0, 20));
  radio_.Handshake(MakeAnswer(true));
  stopped.get_future().wait();
  protocol_.Stop();  // waits for the radio thread
  EXPECT_EQ(calls, 1) << "RadioConnected must not follow";
}

TEST_F(LinkTest, NobodyWaitsForADeviceThatIsBeingOpened) {
  Sessions sessions("", "");
  std::promise<void> opening;
  std::promise<void> open;
  auto started = std::async(std::launch::async, [&] {
    return sessions.Start(
        [&] {
          opening.set_value();
          open.get_future().wait();
          return Line::MakeTcp(radio_.Address());
        },
        0, 1);
  });
  opening.get_future().wait();
  EXPECT_EQ(sessions.Send(Kova::RtVersionRequest(), 0, {}), SendResult::NotConnected);
  EXPECT_FALSE(sessions.Start([] { return std::unexpected("no line"); }, 0, 1))
      << "one start at a time";
  sessions.Stop();
  open.set_value();
  EXPECT_FALSE(started.get());
  EXPECT_TRUE(log_.Contains("it was stopped meanwhile"));
  EXPECT_TRUE(sessions.Start([&] { return Line::MakeTcp(radio_.Address()); }, 0, 20));
  EXPECT_TRUE(radio_.Handshake());
}

}  // namespace
}  // namespace orka::test
