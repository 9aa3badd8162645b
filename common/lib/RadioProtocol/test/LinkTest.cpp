#include "Link.h"
#include "TestRadio.h"
#include "orka/fake/NotificationLog.h"
#include "zelt/fake/LogCapture.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <memory>
#include <thread>

namespace orka::test {
namespace {

using testing::ElementsAre;
using N = NotifyMessage;

// A camera's radio protocol and the radio that it talks to.
class LinkTest : public testing::Test {
 protected:
  LinkTest() { protocol_.RegisterCallback(seen_.Callback()); }

  void Connect() {
    ASSERT_TRUE(protocol_.StartSocket(radio_.Address(), 7, 10));
    ASSERT_TRUE(radio_.Handshake());
    ASSERT_THAT(seen_.Await(1), ElementsAre(N::HandshakeCompleted));
  }
  void Notify(std::string_view name, const RadioNotificationData& data) {
    const auto* row = codec::FindRow(codec::Direction::FromRadio, name);
    radio_.Send(row->kind, codec::EncodeFromRadio(*row, data).payload, 9);
  }

  zelt::fake::LogCapture log_;
  TestRadio radio_;
  fake::NotificationLog seen_;
  RadioProtocol protocol_{nullptr, "1.2.3", "camera"};
};

TEST_F(LinkTest, HelloAndItsAnswerCarryWhatBothSidesNeed) {
  protocol_.SetIdentifyAsCamera(true);
  ASSERT_TRUE(protocol_.StartSocket(radio_.Address(), 7, 10));
  EXPECT_FALSE(protocol_.StartSocket(radio_.Address(), 7, 10)) << "a second start";
  EXPECT_EQ(protocol_.SendToRadio(Kova::RtVersionRequest(), 0), SendResult::NotConnected);
  EXPECT_EQ(radio_.AwaitHello(), (codec::Hello{1, true, false, "1.2.3", "camera"}));
  EXPECT_EQ(protocol_.GetMaxTransferDataSize(), 0);
  radio_.Send(pel::FrameKind::LinkControl,
              codec::Encode(codec::HelloAnswer{1, true, 65535, "sim", {{0x17, 80}}}));
  EXPECT_THAT(seen_.Await(2), ElementsAre(N::HandshakeCompleted, N::RadioConnected));
  EXPECT_TRUE(protocol_.IsRadioConnected());
  EXPECT_EQ(protocol_.GetMaxTransferDataSize(), 65527) << "the largest that fits a frame";
  EXPECT_THAT(protocol_.GetDeviceDescriptors(), ElementsAre(std::pair(0x17, 80)));
  protocol_.Stop();
  EXPECT_TRUE(protocol_.GetDeviceDescriptors().empty());
}

TEST_F(LinkTest, RequestsResponsesAndBroadcastsCarryTheRightHeader) {
  Connect();
  EXPECT_EQ(protocol_.SendToRadio(Kova::RtVersionRequest(), 3), SendResult::Sent);
  const auto request = radio_.Next(pel::FrameKind::Request);
  ASSERT_TRUE(request);
  EXPECT_EQ(request->header, (pel::BaseMessage{7, 0, 0, 0, 3, request->header.transaction, 2}));
  EXPECT_NE(request->header.transaction, 0);
  EXPECT_EQ(request->payload, (codec::Bytes{0x04, 0x01}));

  Kova::RtVersionResponse version;
  version.set_version("R1");
  Notify("RtVersionResponse", version);
  Notify("ShutdownRequest", Kova::ShutdownRequest());
  EXPECT_THAT(seen_.Await(3), ElementsAre(N::HandshakeCompleted, N::RtVersion, N::ShutdownRequest));
  EXPECT_EQ(std::get<Kova::RtVersionResponse>(seen_.Data(N::RtVersion).at(0)).version(), "R1");

  protocol_.SendToRadio(Kova::ShutdownResponse(), 0);
  const auto response = radio_.Next(pel::FrameKind::Response);
  ASSERT_TRUE(response);
  EXPECT_EQ(response->header.transaction, 9) << "that of the radio's request";
  protocol_.SendToRadio(Kova::UsbStatus(), 0);
  EXPECT_TRUE(radio_.Next(pel::FrameKind::Broadcast));
}

TEST_F(LinkTest, WhatCannotBeSentIsRefusedAndNamed) {
  Connect();
  EXPECT_EQ(protocol_.SendToRadio(Kova::RtVersionRequest(), 65536), SendResult::Unencodable);
  EXPECT_TRUE(log_.Contains("selector 65536"));
  EXPECT_EQ(protocol_.SendTransferData({3, 0, 5}, 0, nullptr), SendResult::Unencodable);
  EXPECT_EQ(protocol_.GetCounters().sends_refused, 2);
}

TEST_F(LinkTest, QueueIsBoundedWhenTheRadioDoesNotRead) {
  Connect();
  auto result = SendResult::Sent;
  for (int chunk = 0; chunk < 2000 && result == SendResult::Sent; ++chunk) {
    result = protocol_.SendTransferData({3, 0, 32768}, 0,
                                        std::make_unique<std::vector<std::uint8_t>>(32768));
  }
  EXPECT_EQ(result, SendResult::QueueFull);

  const codec::Bytes message(codec::kMaxPayload);
  while (protocol_.InjectQRXMessage(message, {.kind = 2}).first) {
  }
  EXPECT_TRUE(log_.Contains("without success: the radio does not take what is queued"));
  for (int i = 0; i < 2; ++i) {
    EXPECT_FALSE(protocol_.InjectQRXMessage(message, {.transaction = 7}).first);
  }
  EXPECT_FALSE(log_.Contains("is being waited for")) << "what was not sent awaits nothing";
}

TEST_F(LinkTest, StrangersBytesLoseOnlyTheDamagedFrame) {
  Connect();
  const codec::Bytes good =
      TestRadio::MakeFrame(pel::FrameKind::Broadcast, codec::Bytes{0xB4, 0x06});
  codec::Bytes wrong = good;
  wrong[wrong.size() - 3] ^= 1U;
  codec::Bytes truncated(good.begin(), good.begin() + 5);
  truncated.push_back(0);
  codec::Bytes too_long(200'000, 0x55);
  too_long.push_back(0);
  const codec::Bytes unknown =
      TestRadio::MakeFrame(pel::FrameKind::Request, codec::Bytes{0x12, 0x34});
  const codec::Bytes no_protobuf =
      TestRadio::MakeFrame(pel::FrameKind::Response, codec::Bytes{0x84, 0x01, 0xFF});
  const codec::Bytes newer =
      TestRadio::MakeFrame(pel::FrameKind::LinkControl, codec::Bytes{0, 5, 1});
  std::size_t expected = 1;
  for (const codec::Bytes& bytes : {wrong, truncated, too_long, unknown, no_protobuf, newer}) {
    radio_.SendRaw(bytes);
    radio_.SendRaw(good);
    EXPECT_EQ(seen_.Await(++expected).size(), expected);
  }
  const LinkCounters counters = protocol_.GetCounters();
  EXPECT_EQ(counters.dropped_checksum, 1);
  EXPECT_EQ(counters.dropped_malformed, 2);
  EXPECT_EQ(counters.dropped_too_long, 1);
  EXPECT_EQ(counters.dropped_unknown_opcode, 1);
  const auto warnings = log_.Texts(zelt::kLogWarning);
  EXPECT_EQ(std::ranges::count_if(
                warnings, [](const auto& text) { return text.starts_with("Dropped a frame"); }),
            1)
      << "one line a burst";
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

TEST_F(LinkTest, HandshakeFailsWhenRefusedUnansweredOrOfAnotherVersion) {
  ASSERT_TRUE(protocol_.StartSocket(radio_.Address(), 0, 1));
  EXPECT_THAT(seen_.Await(1), ElementsAre(N::HandshakeFailed)) << "no answer";
  EXPECT_FALSE(protocol_.StartSocket(radio_.Address(), 0, 1)) << "dead until stopped";
  protocol_.Stop();

  TestRadio newer;
  ASSERT_TRUE(protocol_.StartSocket(newer.Address(), 0, 10));
  newer.Handshake(MakeAnswer(false, 2));
  EXPECT_EQ(seen_.Await(2).back(), N::HandshakeFailed);
  protocol_.Stop();

  radio_.StopListening();
  ASSERT_TRUE(protocol_.StartSocket(radio_.Address(), 0, 10));
  EXPECT_EQ(seen_.Await(3).back(), N::HandshakeFailed);
  EXPECT_TRUE(log_.Contains("Connection refused"));
}

TEST_F(LinkTest, KilledAndSilentRadiosAreLost) {
  Connect();
  radio_.Hang();
  EXPECT_THAT(seen_.Await(2), ElementsAre(N::HandshakeCompleted, N::ConnectionLost));
  EXPECT_FALSE(protocol_.IsRadioConnected());
  protocol_.Stop();

  TestRadio silent;
  ASSERT_TRUE(protocol_.StartSocket(silent.Address(), 0, 10));
  ASSERT_TRUE(silent.Handshake());
  EXPECT_EQ(seen_.Await(4).back(), N::ConnectionLost);
  EXPECT_TRUE(log_.Contains("the radio is silent"));
}

// One frame that takes longer than a radio may be silent, then a radio that only sends damage.
TEST_F(LinkTest, SlowFrameIsLifeAndNoiseIsNot) {
  Connect();
  codec::Bytes payload(4096);
  payload[0] = 0xB4;
  payload[1] = 0x06;
  const codec::Bytes slow = TestRadio::MakeFrame(pel::FrameKind::Broadcast, payload);
  for (std::size_t at = 0; at < slow.size(); at += 16) {
    radio_.SendRaw(codec::ByteView(slow).subspan(at, std::min<std::size_t>(16, slow.size() - at)));
    std::this_thread::sleep_for(12ms);  // a slow line is what is tried here
  }
  ASSERT_THAT(seen_.Await(2), ElementsAre(N::HandshakeCompleted, N::IgFailed));
  std::atomic<bool> lost = false;
  std::thread noise([&] {
    while (!lost) {
      radio_.SendRaw(codec::Bytes{1, 2, 3, 0, 5});
      std::this_thread::sleep_for(20ms);
    }
  });
  EXPECT_EQ(seen_.Await(3).back(), N::ConnectionLost);
  lost = true;
  noise.join();
}

TEST_F(LinkTest, CameraTalksWhileItHasNothingToSayAndTakesItsLeave) {
  Connect();
  const auto keep_alive = codec::Encode(codec::LinkControl::KeepAlive);
  auto frame = radio_.Next(pel::FrameKind::LinkControl);
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->payload, keep_alive);
  protocol_.Stop();
  while (frame && frame->payload == keep_alive) {
    frame = radio_.Next(pel::FrameKind::LinkControl);
  }
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->payload, codec::Encode(codec::LinkControl::Goodbye));
}

TEST(LinkPulse, KeepAliveComesInTimeWheneverTheLastFrameWasSent) {
  const LinkPulse::Time start;
  EXPECT_EQ((LinkPulse{start, start + 1ms}.NextLook(start + 800ms)), start + 801ms);
  EXPECT_EQ((LinkPulse{start, start + 2s}.NextLook(start + 2s)), start + 2500ms)
      << "then it is lost";
  const LinkPulse full{start, start, true};
  EXPECT_EQ(full.NextLook(start + 1s), start + 1800ms) << "not at once, again and again";
  EXPECT_FALSE(full.NeedsKeepAlive(start + 1s));
}

TEST_F(LinkTest, GoodbyeOfTheRadioEndsTheLink) {
  Connect();
  radio_.Send(pel::FrameKind::LinkControl, codec::Encode(codec::LinkControl::Goodbye));
  EXPECT_EQ(seen_.Await(2).back(), N::ConnectionLost);
  EXPECT_TRUE(log_.Contains("ended by the radio"));
}

TEST_F(LinkTest, NothingIsNotifiedAfterStop) {
  protocol_.Stop();  // before any start
  std::atomic<bool> stopped = false;
  std::atomic<int> late = 0;
  protocol_.RegisterCallback([&](N, const RadioNotificationData&) { late += stopped ? 1 : 0; });
  ASSERT_TRUE(protocol_.StartSocket(radio_.Address(), 0, 10));
  ASSERT_TRUE(radio_.Handshake());
  std::thread talk([&] {
    for (int i = 0; i < 2000; ++i) {
      radio_.Send(pel::FrameKind::Broadcast, codec::Bytes{0xB4, 0x06});
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
  ASSERT_TRUE(protocol_.StartSocket(radio_.Address(), 0, 10));
  radio_.Handshake(MakeAnswer(true));
  ASSERT_EQ(stopped.get_future().wait_for(10s), std::future_status::ready);
  protocol_.Stop();  // waits for the radio thread
  EXPECT_EQ(calls, 1) << "RadioConnected must not follow";
}

TEST_F(LinkTest, InjectionTakesItsResponseAndNoOther) {
  const codec::Bytes message = {0x04, 0x77, 1, 2};
  const auto inject = [&](pel::BaseMessage header) {
    return std::async(std::launch::async,
                      [&, header] { return protocol_.InjectQRXMessage(message, header); });
  };
  EXPECT_FALSE(protocol_.InjectQRXMessage(message, {}).first) << "not connected";
  Connect();
  auto matched = inject({.address = 5, .transaction = 0x1234});
  const auto request = radio_.Next(pel::FrameKind::Request);
  ASSERT_TRUE(request);
  EXPECT_EQ(request->header, (pel::BaseMessage{5, 0, 0, 0, 0, 0x1234, 4}));
  EXPECT_EQ(request->payload, message);
  radio_.Send(pel::FrameKind::Response, codec::Bytes{0x84, 0x01}, 0x1233);
  radio_.Send(pel::FrameKind::Response, codec::Bytes{0x84, 0x02}, 0x1234);
  radio_.Send(pel::FrameKind::Response, codec::Bytes{0x84}, 0x1234);
  radio_.Send(pel::FrameKind::Response, codec::Bytes{0x84, 0x77, 9}, 0x1234);
  EXPECT_EQ(matched.get(), std::pair(true, codec::Bytes({0x84, 0x77, 9})));
  EXPECT_THAT(seen_.Await(3), ElementsAre(N::HandshakeCompleted, N::RtVersion, N::HardwareId));

  EXPECT_EQ(protocol_.InjectQRXMessage(message, {.kind = 2}), std::pair(true, codec::Bytes()));
  EXPECT_FALSE(protocol_.InjectQRXMessage(message, {.kind = 3}).first) << "link control";
  EXPECT_FALSE(protocol_.InjectQRXMessage(codec::Bytes{4}, {}).first) << "no opcode";
  EXPECT_FALSE(inject({}).get().first) << "not answered";

  std::promise<bool> from_callback;
  protocol_.RegisterCallback([&](N, const RadioNotificationData&) {
    from_callback.set_value(protocol_.InjectQRXMessage(message, {}).first);
  });
  radio_.Send(pel::FrameKind::Broadcast, codec::Bytes{0xB4, 0x06});
  auto injected = from_callback.get_future();
  ASSERT_EQ(injected.wait_for(10s), std::future_status::ready);
  EXPECT_FALSE(injected.get()) << "the radio thread cannot wait for itself";

  auto stopped = inject({.transaction = 77});
  ASSERT_TRUE(radio_.Next(pel::FrameKind::Request));
  ASSERT_TRUE(radio_.Next(pel::FrameKind::Request));
  EXPECT_FALSE(inject({.transaction = 77}).get().first) << "it is being waited for";
  protocol_.Stop();
  EXPECT_FALSE(stopped.get().first);
}

TEST_F(LinkTest, SerialLinkIsExclusiveAndNoticesTheCableGoing) {
  UniqueFd master(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
  ASSERT_EQ(::grantpt(master.Get()), 0);
  ASSERT_EQ(::unlockpt(master.Get()), 0);
  const std::string device = ::ptsname(master.Get());
  TestRadio radio(std::move(master));
  const UartSettings settings{.device = device, .baud_rate = 1500000};
  EXPECT_FALSE(protocol_.StartUart({.device = device, .baud_rate = 9600, .parity = 1}, 0, 10));
  EXPECT_TRUE(log_.Contains("does not do this parity")) << "a pseudo-terminal has none";
  for (int round = 0; round < 2; ++round) {  // the second finds it free again
    ASSERT_TRUE(protocol_.StartUart(settings, 0, 10));
    RadioProtocol second(nullptr, "", "");
    EXPECT_FALSE(second.StartUart(settings, 0, 10));
    EXPECT_TRUE(log_.Contains(device + " is in use"));
    ASSERT_TRUE(radio.Handshake());
    seen_.Await(static_cast<std::size_t>(round) + 1);
    protocol_.SendToRadio(Kova::RtVersionRequest(), 0);
    EXPECT_TRUE(radio.Next(pel::FrameKind::Request));
    if (round == 0) {
      protocol_.Stop();
    }
  }
  radio.Hang();
  EXPECT_THAT(seen_.Await(3),
              ElementsAre(N::HandshakeCompleted, N::HandshakeCompleted, N::ConnectionLost));
}

}  // namespace
}  // namespace orka::test
