#include "LinkFixture.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace orka::test {
namespace {

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
  EXPECT_EQ(protocol_.GetSendRoom(), std::size_t{256} * 1024);
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

TEST_F(LinkTest, WhatCannotBeSaidExactlyIsSaidAsFarAsItCanBe) {
  Connect();
  Kova::GattConfigMsg gatt;
  for (const int name : {0, 10}) {
    gatt.mutable_get_request()->add_names(static_cast<Kova::GattConfigPropertyName>(name));
  }
  EXPECT_EQ(protocol_.SendToRadio(gatt, 0), SendResult::Sent);
  EXPECT_TRUE(log_.Contains("GattConfigGetRequest (0x0433), no counterpart for GATT property 10"));
  const codec::Bytes name = {0x04, 0x89, 0x0A, 1, 0xFF};
  radio_.Send(Kind::Request, name, 5);
  ASSERT_TRUE(seen_.AwaitKind(N::FileAccessWriteRequest));
  EXPECT_TRUE(log_.Contains("FileAccessWriteRequest (0x0489), text that is not UTF-8, in field 1"));
  Kova::FileAccessWriteResponse answer;
  answer.set_file_name(
      std::get<Kova::FileAccessWriteRequest>(seen_.Data(N::FileAccessWriteRequest).at(0))
          .file_name());
  EXPECT_EQ(protocol_.SendToRadio(answer, 0), SendResult::Sent);
  EXPECT_EQ(radio_.Next(Kind::Response)->payload, (codec::Bytes{0x84, 0x89, 0x0A, 1, 0xFF}));
}

TEST_F(LinkTest, FileHandleAnswersKeepTheirDataOrFail) {
  const auto made = [this](const auto& set) {
    Kova::FileHandleOpenResponse response;
    response.set_handle_id(0x12345);
    response.set_status(1ULL << 40U);
    response.set_attributes(3);
    set(response);
    return protocol_.MakeFileHandleResponse(response);
  };
  const auto expected = [](auto data, std::uint64_t status = 1ULL << 40U) {
    return FileHandleRespWrapper{0x2345, status, 3, std::move(data)};
  };
  const std::string largest(65'518, 't');
  EXPECT_EQ(made([](auto&) {}), expected(std::monostate()));
  EXPECT_EQ(made([](auto& of) {
              of.mutable_directory()->add_entries("a");
              of.mutable_directory()->add_entries("b");
            }),
            expected(qrx::DirectoryDataType{{"a", "b"}}));
  EXPECT_EQ(made([](auto& of) { of.set_size(7); }), expected(std::uint32_t{7}));
  EXPECT_EQ(made([&](auto& of) { of.set_text(largest); }), expected(largest));
  EXPECT_EQ(made([&](auto& of) { of.set_content(largest); }),
            expected(codec::Bytes(largest.begin(), largest.end())));
  EXPECT_EQ(made([&](auto& of) { of.set_content(largest + 't'); }),
            expected(std::monostate(), 0x0111849C));
  EXPECT_TRUE(log_.Contains("file handle 9029 failed: 65536 bytes are too long for a frame"));
}

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
  while (protocol_.GetSendRoom() != std::size_t{256} * 1024) {  // until the deadline of the test
    std::this_thread::yield();
  }
}

TEST_F(LinkTest, HeldLineIsNotReadAndLosesNothing) {
  ASSERT_TRUE(protocol_.StartSocket(radio_.Address(), 0, 20));
  protocol_.HoldReceiving();
  ASSERT_TRUE(radio_.Handshake());
  EXPECT_TRUE(seen_.AwaitKind(N::HandshakeCompleted)) << "the handshake is read";
  codec::Bytes payload(30'000);
  payload[0] = 0xB4;
  payload[1] = 0x06;
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
  const auto ended = [](codec::Bytes bytes) {
    bytes.push_back(0);
    return bytes;
  };
  codec::Bytes largest(codec::kMaxPayload, 7);
  largest[0] = 0xB4;
  largest[1] = 0x06;
  std::size_t expected = 1;
  for (const codec::Bytes& bytes :
       {wrong, ended({good.begin(), good.begin() + 5}),
        ended(codec::Bytes(65'810, 0x55)),  // the longest frame, and one byte more
        ended(codec::Bytes(65'811, 0x55)),
        TestRadio::MakeFrame(Kind::Request, codec::Bytes{0x12, 0x34}),
        TestRadio::MakeFrame(Kind::Response, codec::Bytes{0x84, 0x01, 0xFF}),
        TestRadio::MakeFrame(Kind::LinkControl, codec::Bytes{0, 5, 1}),
        TestRadio::MakeFrame(Kind::Broadcast, largest)}) {
    expected += bytes.size() > codec::kMaxPayload && bytes[1] != 0x55 ? 1U : 0U;
    radio_.SendRaw(bytes);
    radio_.SendRaw(good);
    EXPECT_EQ(seen_.Await(++expected).size(), expected);
  }
  const LinkCounters counters = protocol_.GetCounters();
  EXPECT_EQ(counters.dropped_checksum, 1);
  EXPECT_EQ(counters.dropped_malformed, 3);
  EXPECT_EQ(counters.dropped_too_long, 1);
  EXPECT_EQ(counters.dropped_unknown_opcode, 1);
  EXPECT_TRUE(log_.Contains("Dropped a frame"));
}

TEST_F(LinkTest, StartRefusesWhatMakesNoSense) {
  const auto refused = [this](bool started, const std::string& text) {
    EXPECT_FALSE(started) << text;
    EXPECT_TRUE(log_.Contains(text)) << text;
  };
  const auto uart = [this](auto set) {
    UartSettings settings{.device = "/dev/null", .baud_rate = 9600};
    set(settings);
    return protocol_.StartUart(settings, 0, 1);
  };
  refused(protocol_.StartSocket({"localhost", 80}, 0, 1), "\"localhost\" is no numeric address");
  refused(protocol_.StartSocket({"127.0.0.1", 0}, 0, 1), "port 0 is not");
  refused(protocol_.StartSocket({"127.0.0.1", 65536}, 0, 1), "port 65536 is not");
  refused(protocol_.StartSocket({"127.0.0.1", 80}, 65536, 1), "65536");
  refused(uart([](auto& of) { of.device = "/nowhere/tty"; }), "cannot open /nowhere/tty");
  refused(uart([](auto&) {}), "/dev/null");
  refused(uart([](auto& of) { of.baud_rate = 9601; }), "baud rate 9601");
  refused(uart([](auto& of) { of.stop_bits = 3; }), "stop bits 3");
  refused(uart([](auto& of) { of.data_bits = 7; }), "data bits 7");
  refused(uart([](auto& of) { of.parity = 3; }), "parity 3");
  refused(uart([](auto& of) { of.flow_control = 2; }), "flow control 2");
  refused(uart([](auto& of) { of.read_timeout = 256; }), "read timeout 256");
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

}  // namespace
}  // namespace orka::test
