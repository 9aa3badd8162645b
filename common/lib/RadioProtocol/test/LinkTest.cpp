#include "Limits.h"
#include "Sessions.h"
#include "TestRadio.h"
#include "orka/fake/Deadline.h"
#include "orka/fake/NotificationLog.h"
#include "zelt/fake/LogCapture.h"

#include <sys/resource.h>
#include <termios.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <thread>

namespace orka::test {
namespace {

using testing::ElementsAre;
using N = NotifyMessage;
using Kind = pel::FrameKind;

// A camera's radio protocol and the radio that it talks to.
class LinkTest : public testing::Test {
 protected:
  LinkTest() { protocol_.RegisterCallback(seen_.Callback()); }

  void Connect() {
    ASSERT_TRUE(protocol_.StartSocket(radio_.Address(), 7, 20));
    ASSERT_TRUE(radio_.Handshake());
    ASSERT_THAT(seen_.Await(1), ElementsAre(N::HandshakeCompleted));
  }
  // The number of the next frame of this kind that the radio gets; -1 when none comes.
  int NextTransaction(Kind kind) {
    const auto frame = radio_.Next(kind);
    return frame ? frame->header.transaction : -1;
  }

  fake::Deadline deadline_;
  zelt::fake::LogCapture log_;
  TestRadio radio_;
  fake::NotificationLog seen_;
  RadioProtocol protocol_{nullptr, "1.2.3", "camera"};
};

TEST_F(LinkTest, HelloAndItsAnswerCarryWhatBothSidesNeed) {
  protocol_.SetIdentifyAsCamera(true);
  ASSERT_TRUE(protocol_.StartSocket(radio_.Address(), 7, 20));
  EXPECT_FALSE(protocol_.StartSocket(radio_.Address(), 7, 20)) << "a second start";
  EXPECT_EQ(protocol_.SendToRadio(Kova::RtVersionRequest(), 0), SendResult::NotConnected);
  EXPECT_EQ(protocol_.GetSendRoom(), SIZE_MAX);
  EXPECT_EQ(radio_.AwaitHello(), (codec::Hello{1, true, false, "1.2.3", "camera"}));
  EXPECT_EQ(protocol_.GetMaxTransferDataSize(), 0);
  radio_.Send(Kind::LinkControl,
              codec::Encode(codec::HelloAnswer{1, true, 65535, "sim", {{0x17, 80}}}));
  EXPECT_THAT(seen_.Await(2), ElementsAre(N::HandshakeCompleted, N::RadioConnected));
  EXPECT_TRUE(protocol_.IsRadioConnected());
  EXPECT_EQ(protocol_.GetMaxTransferDataSize(), 65527) << "the largest that fits a frame";
  EXPECT_EQ(protocol_.GetSendRoom(), 256 * 1024);
  EXPECT_THAT(protocol_.GetDeviceDescriptors(), ElementsAre(std::pair(0x17, 80)));
  protocol_.Stop();
  EXPECT_TRUE(protocol_.GetDeviceDescriptors().empty());

  protocol_.SetIdentifyAsCamera(false);
  protocol_.SetUseTetheredConnection(true);
  TestRadio next;
  ASSERT_TRUE(protocol_.StartSocket(next.Address(), 7, 20));
  EXPECT_EQ(next.AwaitHello(), (codec::Hello{1, false, true, "1.2.3", "camera"}));
}

TEST_F(LinkTest, RequestsAndBroadcastsCarryTheRightHeader) {
  Connect();
  EXPECT_EQ(protocol_.SendToRadio(Kova::RtVersionRequest(), 3), SendResult::Sent);
  const auto request = radio_.Next(Kind::Request);
  ASSERT_TRUE(request);
  EXPECT_EQ(request->header, (pel::BaseMessage{7, 0, 0, 0, 3, request->header.transaction, 2}));
  EXPECT_NE(request->header.transaction, 0);
  EXPECT_EQ(request->payload, (codec::Bytes{0x04, 0x01}));
  Kova::RtVersionResponse version;
  version.set_version("R1");
  radio_.Send("RtVersionResponse", version, request->header.transaction);
  ASSERT_TRUE(seen_.AwaitKind(N::RtVersion));
  EXPECT_EQ(std::get<Kova::RtVersionResponse>(seen_.Data(N::RtVersion).at(0)).version(), "R1");
  protocol_.SendToRadio(Kova::UsbStatus(), 0);
  EXPECT_EQ(NextTransaction(Kind::Broadcast), 0);
  EXPECT_EQ(protocol_.SendToRadio(Kova::RtVersionRequest(), 65536), SendResult::Unencodable);
  EXPECT_TRUE(log_.Contains("selector 65536"));
  EXPECT_EQ(protocol_.SendTransferData({3, 0, 5}, 0, nullptr), SendResult::Unencodable);
  EXPECT_EQ(protocol_.GetCounters().sends_refused, 2);
}

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
// The line.

// Fills the line until nothing more is taken. Then the radio reads it all, and the link goes on.
TEST_F(LinkTest, WhatIsTakenArrivesAlsoWhenTheRadioDoesNotReadForAWhile) {
  Connect();
  std::uint16_t sent = 0;
  const auto send = [&] {
    return protocol_.SendTransferData({3, sent, 32768}, 0,
                                      std::make_unique<std::vector<std::uint8_t>>(32768));
  };
  auto result = SendResult::Sent;
  while ((result = send()) == SendResult::Sent && sent < 2000) {
    ++sent;
  }
  EXPECT_EQ(result, SendResult::QueueFull);
  EXPECT_EQ(protocol_.GetSendRoom(), 0);
  const codec::Bytes message(codec::kMaxPayload);
  while (protocol_.InjectQRXMessage(message, {.kind = 2}).first) {
  }
  for (int i = 0; i < 2; ++i) {
    EXPECT_FALSE(protocol_.InjectQRXMessage(message, {.transaction = 7}).first);
  }
  EXPECT_FALSE(log_.Contains("is being waited for")) << "what was not sent awaits nothing";
  for (std::uint16_t chunk = 0; chunk < sent; ++chunk) {
    const auto frame = radio_.Next(Kind::Request);
    ASSERT_TRUE(frame);
    const auto decoded = codec::DecodeToRadio(Kind::Request, frame->payload);
    ASSERT_EQ(std::get<qrx::TransferDataRequest>(decoded.message.value()).chunk_number, chunk);
  }
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(protocol_.SendToRadio(Kova::RtVersionRequest(), 0), SendResult::Sent);
    EXPECT_TRUE(radio_.Next(Kind::Request));
  }
  while (protocol_.GetSendRoom() != 256 * 1024) {  // until the deadline of the test
    std::this_thread::yield();
  }
}

TEST_F(LinkTest, HeldLineIsNotReadAndLosesNothing) {
  Connect();
  codec::Bytes payload(30'000);
  payload[0] = 0xB4;
  payload[1] = 0x06;
  protocol_.HoldReceiving();
  std::thread talk([&] {
    for (int i = 0; i < 30; ++i) {
      radio_.Send(Kind::Broadcast, payload);
    }
  });
  for (int i = 0; i < 30; ++i) {
    EXPECT_EQ(protocol_.SendToRadio(Kova::RtVersionRequest(), 0), SendResult::Sent);
    EXPECT_TRUE(radio_.Next(Kind::Request)) << "sending goes on";
  }
  EXPECT_LE(protocol_.GetCounters().bytes_received, 64UL * 1024) << "at most one read";
  protocol_.ContinueReceiving();
  protocol_.ContinueReceiving();
  EXPECT_TRUE(seen_.AwaitKind(N::IgFailed, 30));
  talk.join();
  protocol_.HoldReceiving();
  protocol_.Stop();
  protocol_.HoldReceiving();  // no link
  seen_.Clear();
  radio_.Hang();
  Connect();  // a new link is not held
  radio_.Send(Kind::Broadcast, payload);
  EXPECT_TRUE(seen_.AwaitKind(N::IgFailed));
}

TEST_F(LinkTest, StrangersBytesLoseOnlyTheDamagedFrame) {
  Connect();
  const codec::Bytes good = TestRadio::MakeFrame(Kind::Broadcast, codec::Bytes{0xB4, 0x06});
  codec::Bytes wrong = good;
  wrong[wrong.size() - 3] ^= 1U;
  codec::Bytes truncated(good.begin(), good.begin() + 5);
  truncated.push_back(0);
  // The longest frame is one of 65,810 bytes and the zero that ends it.
  codec::Bytes longest(65'810, 0x55);
  longest.push_back(0);
  codec::Bytes too_long(65'811, 0x55);
  too_long.push_back(0);
  const codec::Bytes unknown = TestRadio::MakeFrame(Kind::Request, codec::Bytes{0x12, 0x34});
  const codec::Bytes no_protobuf =
      TestRadio::MakeFrame(Kind::Response, codec::Bytes{0x84, 0x01, 0xFF});
  const codec::Bytes newer = TestRadio::MakeFrame(Kind::LinkControl, codec::Bytes{0, 5, 1});
  std::size_t expected = 1;
  for (const codec::Bytes& bytes :
       {wrong, truncated, longest, too_long, unknown, no_protobuf, newer}) {
    radio_.SendRaw(bytes);
    radio_.SendRaw(good);
    EXPECT_EQ(seen_.Await(++expected).size(), expected);
  }
  codec::Bytes payload(codec::kMaxPayload, 7);
  payload[0] = 0xB4;
  payload[1] = 0x06;
  radio_.Send(Kind::Broadcast, payload);
  EXPECT_EQ(seen_.Await(++expected).size(), expected) << "the largest message";
  const LinkCounters counters = protocol_.GetCounters();
  EXPECT_EQ(counters.dropped_checksum, 1);
  EXPECT_EQ(counters.dropped_malformed, 3);
  EXPECT_EQ(counters.dropped_too_long, 1);
  EXPECT_EQ(counters.dropped_unknown_opcode, 1);
  const auto warnings = log_.Texts(zelt::kLogWarning);
  EXPECT_GE(std::ranges::count_if(
                warnings, [](const auto& text) { return text.starts_with("Dropped a frame"); }),
            1);
}

TEST_F(LinkTest, StartRefusesWhatMakesNoSense) {
  const std::string file = "/dev/null";
  EXPECT_FALSE(protocol_.StartSocket({"localhost", 80}, 0, 1));
  EXPECT_TRUE(log_.Contains("\"localhost\" is no numeric address"));
  for (const std::uint32_t port : {0U, 65536U}) {
    EXPECT_FALSE(protocol_.StartSocket({"127.0.0.1", port}, 0, 1));
    EXPECT_TRUE(log_.Contains("port " + std::to_string(port) + " is not"));
  }
  EXPECT_FALSE(protocol_.StartSocket({"127.0.0.1", 80}, 65536, 1)) << "link address";
  EXPECT_FALSE(protocol_.StartUart({.device = "/nowhere/tty", .baud_rate = 9600}, 0, 1));
  EXPECT_TRUE(log_.Contains("cannot open /nowhere/tty"));
  EXPECT_FALSE(protocol_.StartUart({.device = file, .baud_rate = 9600}, 0, 1)) << "no terminal";
  const std::vector<std::pair<std::string, UartSettings>> wrong = {
      {"baud rate 9601", {.device = file, .baud_rate = 9601}},
      {"stop bits 3", {.device = file, .baud_rate = 9600, .stop_bits = 3}},
      {"data bits 7", {.device = file, .baud_rate = 9600, .data_bits = 7}},
      {"parity 3", {.device = file, .baud_rate = 9600, .parity = 3}},
      {"flow control 2", {.device = file, .baud_rate = 9600, .flow_control = 2}},
      {"read timeout 256", {.device = file, .baud_rate = 9600, .read_timeout = 256}}};
  for (const auto& [text, settings] : wrong) {
    EXPECT_FALSE(protocol_.StartUart(settings, 0, 1));
    EXPECT_TRUE(log_.Contains(text));
  }
  EXPECT_TRUE(seen_.Await(0).empty()) << "nothing was started";
}

// A connection is no connection before it is there, however it ends.
TEST_F(LinkTest, ConnectionThatComesLateIsGreetedOnceAndFailsForItsOwnReason) {
  ASSERT_TRUE(radio_.MakeConnectionsWait());
  ASSERT_TRUE(protocol_.StartSocket(radio_.Address(), 0, 1));
  EXPECT_THAT(seen_.Await(1), ElementsAre(N::HandshakeFailed));
  EXPECT_TRUE(log_.Contains("no connection in time"));
  EXPECT_FALSE(protocol_.StartSocket(radio_.Address(), 0, 1)) << "dead until stopped";
  protocol_.Stop();

  TestRadio late;
  const auto first = late.MakeConnectionsWait();
  ASSERT_TRUE(protocol_.StartSocket(late.Address(), 0, 20));
  late.TakeConnection();
  ASSERT_TRUE(late.Handshake());
  EXPECT_EQ(seen_.Await(2).back(), N::HandshakeCompleted);
  protocol_.Stop();

  TestRadio gone;
  ASSERT_TRUE(gone.MakeConnectionsWait());
  ASSERT_TRUE(protocol_.StartSocket(gone.Address(), 0, 20));
  gone.StopListening();
  EXPECT_EQ(seen_.Await(3).back(), N::HandshakeFailed);
  EXPECT_TRUE(log_.Contains("Connection refused"));
  EXPECT_FALSE(log_.Contains("Broken pipe"));
}

TEST_F(LinkTest, RadioThatHangsUpIsLost) {
  Connect();
  radio_.Hang();
  EXPECT_THAT(seen_.Await(2), ElementsAre(N::HandshakeCompleted, N::ConnectionLost));
  EXPECT_FALSE(protocol_.IsRadioConnected());
  EXPECT_TRUE(log_.Contains("closed by the radio"));
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
        [&](std::string& error) {
          opening.set_value();
          open.get_future().wait();
          return Line::MakeTcp(radio_.Address(), error);
        },
        0, 1);
  });
  opening.get_future().wait();
  EXPECT_EQ(sessions.Send(Kova::RtVersionRequest(), 0, {}), SendResult::NotConnected);
  EXPECT_FALSE(sessions.Start([](std::string&) { return std::nullopt; }, 0, 1))
      << "one start at a time";
  sessions.Stop();
  open.set_value();
  EXPECT_FALSE(started.get());
  EXPECT_TRUE(log_.Contains("it was stopped meanwhile"));
  EXPECT_TRUE(sessions.Start(
      [&](std::string& error) { return Line::MakeTcp(radio_.Address(), error); }, 0, 20));
  EXPECT_TRUE(radio_.Handshake());
}

// ------------------------------------------------------------------------------------------------
// Serial lines.

class SerialTest : public LinkTest {
 protected:
  UartSettings Settings() const { return {.device = pty_.Device(), .baud_rate = 1500000}; }
  TestRadio pty_{TestRadio::On::Pty};
};

TEST_F(SerialTest, LineIsSetUpAsAsked) {
  const UartSettings plain = Settings();
  UartSettings other = plain;
  other.baud_rate = 115200;
  other.stop_bits = 2;
  other.flow_control = 1;
  other.modem_control = true;
  other.read_timeout = 0;
  struct Expected {
    UartSettings settings;
    speed_t speed;
    tcflag_t flags;  // of those below
    int time;
  };
  for (const auto& [settings, speed, flags, time] :
       {Expected{plain, B1500000, CS8 | CREAD | CLOCAL, 5},
        Expected{other, B115200, CS8 | CREAD | CSTOPB | CRTSCTS, 0}}) {
    termios cooked{};
    ASSERT_EQ(::tcgetattr(pty_.Line(), &cooked), 0);
    cooked.c_iflag |= ICRNL | IXON | ISTRIP;
    cooked.c_lflag |= ICANON | ECHO | ISIG;
    cooked.c_oflag |= OPOST;
    ASSERT_EQ(::tcsetattr(pty_.Line(), TCSANOW, &cooked), 0);
    ASSERT_TRUE(protocol_.StartUart(settings, 0, 20));
    termios modes{};
    ASSERT_EQ(::tcgetattr(pty_.Line(), &modes), 0);
    EXPECT_EQ(::cfgetispeed(&modes), speed);
    EXPECT_EQ(::cfgetospeed(&modes), speed);
    EXPECT_EQ(modes.c_cflag & (CSIZE | CREAD | CSTOPB | CRTSCTS | CLOCAL | PARENB), flags);
    EXPECT_EQ(modes.c_iflag & (ICRNL | INLCR | IXON | IXOFF | ISTRIP | BRKINT), 0U);
    EXPECT_EQ(modes.c_lflag & (ICANON | ECHO | ISIG | IEXTEN), 0U);
    EXPECT_EQ(modes.c_oflag & OPOST, 0U);
    EXPECT_EQ(modes.c_cc[VMIN], 1);
    EXPECT_EQ(modes.c_cc[VTIME], time);
    protocol_.Stop();
  }
  UartSettings parity = plain;
  parity.parity = 1;
  EXPECT_FALSE(protocol_.StartUart(parity, 0, 20));
  EXPECT_TRUE(log_.Contains("does not do this parity")) << "a pseudo-terminal has none";
}

TEST_F(SerialTest, LineIsExclusiveAndNoticesTheCableGoing) {
  for (std::size_t round = 1; round <= 2; ++round) {  // the second finds it free again
    ASSERT_TRUE(protocol_.StartUart(Settings(), 0, 20));
    RadioProtocol second(nullptr, "", "");
    EXPECT_FALSE(second.StartUart(Settings(), 0, 20));
    EXPECT_TRUE(log_.Contains(pty_.Device() + " is in use"));
    ASSERT_TRUE(pty_.Handshake());
    seen_.Await(round);
    EXPECT_EQ(protocol_.GetSendRoom(), std::chrono::seconds(1) / std::chrono::nanoseconds(6666));
    protocol_.SendToRadio(Kova::RtVersionRequest(), 0);
    EXPECT_TRUE(pty_.Next(Kind::Request));
    if (round == 1) {
      protocol_.Stop();
    }
  }
  pty_.Hang();
  EXPECT_THAT(seen_.Await(3),
              ElementsAre(N::HandshakeCompleted, N::HandshakeCompleted, N::ConnectionLost));
}

// The device is opened, and then there is no descriptor left for the link.
TEST_F(SerialTest, StartThatFailsHalfwayLeavesTheDeviceFree) {
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const zelt::FileDescriptor next(::dup(pty_.Line()));
  const auto few = static_cast<rlim_t>(next.Get()) + 2;  // one more than are open
  const rlimit limit{few, before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
  EXPECT_FALSE(protocol_.StartUart(Settings(), 0, 20));
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_TRUE(log_.Contains("Too many open files"));
  EXPECT_FALSE(log_.Contains("cannot open"));
  RadioProtocol other(nullptr, "", "");
  EXPECT_TRUE(other.StartUart(Settings(), 0, 20));
}

}  // namespace
}  // namespace orka::test
