#include "orka/ConversionTables.h"
#include "orka/codec/Codec.h"
#include "orka/codec/Frame.h"
#include "orka/codec/LinkControl.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace orka::codec {
namespace {

using testing::HasSubstr;

std::vector<std::string> DocumentLines() {
  std::ifstream file(RADIO_LINK_DOCUMENT);
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);) {
    lines.push_back(line);
  }
  return lines;
}

// ------------------------------------------------------------------------------------------------
// The document.

// "header", "payload" and "on line" of each worked example, by the example's heading.
std::map<std::string, std::map<std::string, Bytes>> DocumentExamples() {
  std::map<std::string, std::map<std::string, Bytes>> examples;
  std::string heading;
  std::string field;
  bool inside = false;
  for (const std::string& line : DocumentLines()) {
    if (line.starts_with("### ")) {
      heading = line.substr(4);
    } else if (line.starts_with("```")) {
      inside = line == "```text";
    } else if (inside && line.size() > 11) {
      const std::string name = line.substr(0, line.find("  "));
      field = name.empty() ? field : name;
      std::istringstream bytes(line.substr(11));
      for (unsigned byte = 0; bytes >> std::hex >> byte;) {
        examples[heading][field].push_back(static_cast<std::uint8_t>(byte));
      }
    }
  }
  return examples;
}

Bytes Answer(std::string_view name, const RadioNotificationData& data) {
  return EncodeFromRadio(*FindRow(Direction::FromRadio, name), data).payload;
}

TEST(RadioLinkDocument, ExamplesAreWhatTheCodeSends) {
  Kova::RtVersionResponse version;
  version.set_version("R1.0");
  version.set_build_number(7);
  Kova::ToggleCovertModeMsg covert;
  covert.set_enabled(true);
  Kova::LedBrightnessSettingMsg brightness;
  brightness.set_brightness("Medium");
  const std::map<std::string, std::pair<pel::BaseMessage, Bytes>> expected = {
      {"Hello", {{.kind = 3}, Encode(Hello{1, true, false, "1.2.3", "camera"})}},
      {"HelloAnswer",
       {{.kind = 3}, Encode(HelloAnswer{1, true, 4096, "radio", {{0x17, 80}, {0x24, 1}}})}},
      {"KeepAlive", {{.kind = 3}, Encode(LinkControl::KeepAlive)}},
      {"Request", {{.transaction = 1}, EncodeToRadio(Kova::RtVersionRequest()).payload}},
      {"Response", {{.kind = 1, .transaction = 1}, Answer("RtVersionResponse", version)}},
      {"Broadcast", {{.kind = 2}, Answer("CovertModeBroadcast", covert)}},
      {"FileAccessRequest",
       {{.transaction = 3},
        EncodeToRadio(qrx::FileAccessRequest{1, 2, 8U << 20U, "image.bin"}).payload}},
      {"TransferDataRequest",
       {{.transaction = 2},
        EncodeToRadio(qrx::TransferDataRequest{3, 258, 4}, Bytes{0xCA, 0xFE, 0, 1}).payload}},
      {"TransferDataResponse",
       {{.kind = 1, .transaction = 2},
        Answer("TransferDataResponse", qrx::TransferDataResponse{qrx::Result::Success, 258})}},
      {"Code for a name", {{.transaction = 4}, EncodeToRadio(brightness).payload}},
  };
  auto examples = DocumentExamples();
  for (const auto& [name, frame] : expected) {
    SCOPED_TRACE(name);
    Bytes line;
    AppendFrame(frame.first, frame.second, line);
    EXPECT_EQ(examples[name]["payload"], frame.second);
    EXPECT_EQ(examples[name]["on line"], line);
    // In a frame this short each code stands where a zero was, and one before all of it.
    Bytes parts(1);
    for (const char* part : {"header", "payload", "checksum"}) {
      parts.insert(parts.end(), examples[name][part].begin(), examples[name][part].end());
    }
    parts.push_back(0);
    for (std::size_t at = 0; line[at] != 0;) {
      at += std::exchange(line[at], std::uint8_t{0});
    }
    EXPECT_EQ(parts, line);
  }
}

TEST(Conversions, EverySubscriptionIsToSomethingThatTheRadioSends) {
  for (const auto& [name, code] : kSubscriptionOpcodes) {
    EXPECT_TRUE(std::ranges::any_of(kMessageTable, [&](const MessageRow& row) {
      return row.direction == Direction::FromRadio && row.opcode == static_cast<unsigned>(code);
    })) << Kova::SubscriptionMsgCode_Name(name);
  }
}

// ------------------------------------------------------------------------------------------------
// Bodies.

template <class Union, std::size_t... Index>
Union Default(std::size_t index, std::index_sequence<Index...> /*alternatives*/) {
  using Make = Union (*)();
  static constexpr std::array<Make, sizeof...(Index)> kMakers = {
      [] { return Union(std::in_place_index<Index>); }...};
  return kMakers.at(index)();
}
template <class Union>
Union Default(std::size_t index) {
  auto message = Default<Union>(index, std::make_index_sequence<std::variant_size_v<Union>>());
  if (auto* brightness = std::get_if<Kova::LedBrightnessSettingMsg>(&message)) {
    brightness->set_brightness("Low");  // the one that means nothing when it is empty
  }
  return message;
}

TEST(Codec, EveryRowComesBackAsItself) {
  for (const MessageRow& row : kMessageTable) {
    SCOPED_TRACE(row.name);
    if (row.direction == Direction::FromRadio) {
      const auto data = Default<RadioNotificationData>(row.alternative);
      const auto decoded = DecodeFromRadio(row.kind, EncodeFromRadio(row, data).payload);
      EXPECT_EQ(decoded.row, &row);
      ASSERT_TRUE(decoded.message) << decoded.error;
      EXPECT_EQ(decoded.message->index(), row.alternative);
    } else {
      Bytes payload = EncodeToRadio(Default<RadioOutgoingMessage>(row.alternative)).payload;
      if (row.message_case != 0) {  // the field of the case: a text, or with a field inside
        payload.clear();
        ByteWriter(payload).Put(row.opcode);
        payload.push_back(static_cast<std::uint8_t>(unsigned{row.message_case} << 3U | 2U));
        payload.insert(payload.end(), {2, 'x', '1'});
      }
      const auto decoded = DecodeToRadio(row.kind, payload);
      EXPECT_EQ(decoded.row, &row);
      ASSERT_TRUE(decoded.message) << decoded.error;
      EXPECT_EQ(EncodeToRadio(*decoded.message).row, &row);
    }
  }
  EXPECT_EQ(EncodeToRadio(Kova::GattConfigMsg()).row->opcode, 0x0433) << "no case: the first row";
}

TEST(Codec, RecordsKeepEveryField) {
  const std::vector<RadioOutgoingMessage> messages = {
      qrx::FileAccessRequest{1, 0x12345678, 0x9ABCDEF0, "name"},
      FileHandleRespWrapper{0x1234, 0x0111849C, 3, {}},
      FileHandleRespWrapper{1, 0, 1, qrx::DirectoryDataType{{"a", "", "ccc"}}},
      FileHandleRespWrapper{1, 0, 0, std::string("text")},
      FileHandleRespWrapper{1, 0, 0, std::uint32_t{0xDEADBEEF}},
      FileHandleRespWrapper{1, 0, 0, Bytes{0, 1, 2}},
  };
  for (const RadioOutgoingMessage& message : messages) {
    const auto encoded = EncodeToRadio(message);
    const auto decoded = DecodeToRadio(encoded.row->kind, encoded.payload);
    ASSERT_TRUE(decoded.message) << decoded.error;
    const auto* request = std::get_if<qrx::FileAccessRequest>(&message);
    EXPECT_TRUE(request != nullptr ? *request == std::get<qrx::FileAccessRequest>(*decoded.message)
                                   : std::get<FileHandleRespWrapper>(message) ==
                                         std::get<FileHandleRespWrapper>(*decoded.message));
    for (std::size_t size = 2; size < encoded.payload.size(); ++size) {
      EXPECT_FALSE(DecodeToRadio(encoded.row->kind, ByteView(encoded.payload).first(size)).message);
    }
    Bytes longer = encoded.payload;
    longer.push_back(0);
    EXPECT_FALSE(DecodeToRadio(encoded.row->kind, longer).message) << "a byte too many";
  }
  const Bytes unknown_data = {0x84, 0x9E, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 9};
  EXPECT_THAT(DecodeToRadio(pel::FrameKind::Response, unknown_data).error, HasSubstr("9"));
}

TEST(Codec, NamesTravelAsCodesAndComeBack) {
  Kova::OpcodeSubscriptionMsg subscription;
  subscription.mutable_request()->add_codes(Kova::SUBSCRIBE_LTE_STATUS);
  Kova::ButtonsSubscribtionMsg buttons;
  buttons.mutable_request()->add_buttons()->set_name("ThreeDots");
  Kova::GattConfigMsg gatt;
  gatt.mutable_set_request()->add_properties()->set_name(Kova::GATT_MTU);
  const auto on_the_link = [](auto sent) {
    const auto encoded = EncodeToRadio(sent);
    const auto decoded = DecodeToRadio(encoded.row->kind, encoded.payload);
    EXPECT_TRUE(decoded.message) << decoded.error;
    auto back = std::get<decltype(sent)>(*decoded.message);
    if constexpr (std::is_same_v<decltype(sent), Kova::ButtonsSubscribtionMsg>) {
      back.mutable_request()->mutable_buttons(0)->clear_identifier();
    }
    EXPECT_EQ(back.SerializeAsString(), sent.SerializeAsString());
    sent.ParseFromArray(encoded.payload.data() + 2, static_cast<int>(encoded.payload.size()) - 2);
    return sent;
  };
  EXPECT_EQ(static_cast<int>(on_the_link(subscription).request().codes(0)), 0xB49B);
  EXPECT_EQ(on_the_link(buttons).request().buttons(0).identifier(), 102);
  EXPECT_EQ(on_the_link(buttons).request().buttons(0).name(), "");
  EXPECT_EQ(static_cast<int>(on_the_link(gatt).set_request().properties(0).name()), 8);

  Collaboration::RadioConnectionMsg connection;
  auto* descriptor = connection.add_device_descriptors();
  descriptor->set_attribute(static_cast<Collaboration::AttributeID>(0x99));
  descriptor = connection.add_device_descriptors();
  descriptor->set_attribute(static_cast<Collaboration::AttributeID>(0x24));
  Bytes payload = {0xB4, 0x03};
  const std::string body = connection.SerializeAsString();
  payload.insert(payload.end(), body.begin(), body.end());
  const auto decoded = DecodeFromRadio(pel::FrameKind::Broadcast, payload);
  ASSERT_TRUE(decoded.message) << decoded.error;
  const auto& known =
      std::get<Collaboration::RadioConnectionMsg>(*decoded.message).device_descriptors();
  ASSERT_EQ(known.size(), 1) << "the unknown attribute is skipped";
  EXPECT_EQ(known[0].attribute(), Collaboration::NETWORK_CAPABILITY);
}

TEST(Codec, ValuesWithoutACounterpartAreNamed) {
  Kova::OpcodeSubscriptionMsg subscription;
  subscription.mutable_response()->add_codes(static_cast<Kova::SubscriptionMsgCode>(77));
  Kova::GattConfigMsg gatt;
  gatt.mutable_get_request()->add_names(static_cast<Kova::GattConfigPropertyName>(10));
  Kova::ButtonsSubscribtionMsg buttons;
  buttons.mutable_response()->add_buttons()->set_name("onedot");
  Kova::LedBrightnessSettingMsg brightness;
  Kova::VideoControlBroadcast video;
  video.set_action(static_cast<Kova::VideoActionType>(6));
  const std::vector<std::pair<RadioOutgoingMessage, std::string>> outgoing = {
      {subscription, "subscription \"77\""},
      {gatt, "GATT property \"10\""},
      {buttons, "button \"onedot\""},
      {brightness, "brightness \"\""},
      {video, "video action 6"},
      {qrx::TransferDataRequest{3, 0, 1}, "0 bytes"},
  };
  for (const auto& [message, error] : outgoing) {
    const auto encoded = EncodeToRadio(message);
    EXPECT_THAT(encoded.error, HasSubstr(error));
    EXPECT_TRUE(encoded.payload.empty());
  }
  buttons.mutable_response()->mutable_buttons(0)->set_identifier(1);
  brightness.set_intensity(1);
  const std::vector<std::tuple<std::uint16_t, std::string, std::string>> incoming = {
      {0x8484, subscription.SerializeAsString(), "subscription code 77"},
      {0x8421, buttons.SerializeAsString(), "button code 1"},
      {0x8422, brightness.SerializeAsString(), "brightness code 1"},
      {0x8498, std::string("\x18\x06", 2), "video action code 6"},
      {0x8401, "\xFF", "no Kova.RtVersionResponse"},
  };
  for (const auto& [opcode, body, error] : incoming) {
    Bytes payload;
    ByteWriter(payload).Put(opcode);
    payload.insert(payload.end(), body.begin(), body.end());
    const auto decoded = DecodeFromRadio(pel::FrameKind::Response, payload);
    EXPECT_FALSE(decoded.message);
    EXPECT_THAT(decoded.error, HasSubstr(error));
  }
}

TEST(Codec, ResultsPrintTheirNameOrNumber) {
  std::ostringstream text;
  text << qrx::Result::Success << ' ' << qrx::Result::ChecksumError << ' '
       << static_cast<qrx::Result>(9);
  EXPECT_EQ(text.str(), "Success ChecksumError 9");
}

TEST(Codec, WhatDoesNotFitAFrameIsRefused) {
  Collaboration::IoTD2CDataMessage data;
  data.set_data(std::string(65'530, 'x'));
  const std::string name(65'536, 'n');
  const qrx::DirectoryDataType directory{std::vector<std::string>(65'536)};
  for (const RadioOutgoingMessage& message : std::vector<RadioOutgoingMessage>{
           data, qrx::FileAccessRequest{1, 2, 3, name}, FileHandleRespWrapper{1, 0, 0, name},
           FileHandleRespWrapper{1, 0, 0, directory}}) {
    EXPECT_THAT(EncodeToRadio(message).error, HasSubstr("too long"));
  }
  const Bytes chunk(65'530);
  EXPECT_THAT(EncodeToRadio(qrx::TransferDataRequest{3, 0, 65'530}, chunk).error,
              HasSubstr("too long"));
}

// ------------------------------------------------------------------------------------------------
// Frames.

struct Received {
  std::vector<Bytes> payloads;
  std::map<Drop, int> drops;
};

Received Deframe(ByteView bytes, std::size_t step) {
  Received received;
  Deframer deframer(
      [&](const pel::BaseMessage&, ByteView payload) {
        received.payloads.emplace_back(payload.begin(), payload.end());
        return true;
      },
      [&](Drop drop, std::size_t) { ++received.drops[drop]; });
  for (std::size_t at = 0; at < bytes.size(); at += step) {
    deframer.Feed(bytes.subspan(at, std::min(step, bytes.size() - at)));
  }
  return received;
}

TEST(Deframer, EveryLengthComesBackWhereverItIsCut) {
  std::mt19937 random(1);
  for (const std::size_t size :
       {0U, 1U, 2U, 236U, 237U, 238U, 239U, 253U, 254U, 255U, 508U, 65535U}) {
    Bytes payload(size);
    for (std::uint8_t& byte : payload) {
      byte = static_cast<std::uint8_t>(size % 2 == 0 ? 0xAA : random() % 3);
    }
    Bytes line;
    AppendFrame({}, payload, line);
    EXPECT_LE(line.size(), kMaxEncodedFrame + 1);
    EXPECT_EQ(std::ranges::count(line, 0), 1) << "the delimiter only";
    for (const std::size_t step : {std::size_t{1}, std::size_t{7}, line.size()}) {
      EXPECT_EQ(Deframe(line, step).payloads, std::vector<Bytes>({payload})) << size;
    }
  }
}

// Between two good frames, whatever is there: the good ones come, and no other.
TEST(Deframer, DamageLosesOnlyTheDamagedFrame) {
  const Bytes payload = {0x04, 0x01, 0, 0, 7};
  Bytes good;
  AppendFrame({.transaction = 9}, payload, good);
  const auto expect_two = [&](const Bytes& between) {
    Bytes line = good;
    line.insert(line.end(), between.begin(), between.end());
    line.push_back(0);
    line.insert(line.end(), good.begin(), good.end());
    const Received received = Deframe(line, 5);
    EXPECT_EQ(received.payloads, std::vector<Bytes>({payload, payload}));
    return received.drops;
  };
  for (std::size_t at = 0; at + 1 < good.size(); ++at) {
    for (const unsigned flip : {0x01U, 0x80U}) {
      Bytes damaged = good;
      damaged[at] ^= static_cast<std::uint8_t>(flip);
      expect_two(damaged);
    }
    expect_two(Bytes(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(at)));
  }
  std::mt19937 random(2);
  for (int round = 0; round < 200; ++round) {
    Bytes garbage(random() % 300);
    std::ranges::generate(garbage, [&] { return static_cast<std::uint8_t>(random()); });
    expect_two(garbage);
  }
  EXPECT_EQ(expect_two(Bytes(kMaxEncodedFrame + 1, 5)), (std::map<Drop, int>{{Drop::TooLong, 1}}));
  EXPECT_EQ(expect_two(Bytes(3, 0)), (std::map<Drop, int>{})) << "delimiters in a row";
}

TEST(LinkControl, CutAndForeignBodiesAreNoHello) {
  const Bytes hello = Encode(Hello{1, true, true, "version", "product"});
  const Bytes answer = Encode(HelloAnswer{1, true, 7, std::string(300, 'n'), {{1, 2}}});
  EXPECT_EQ(DecodeHelloAnswer(answer)->name.size(), 255);
  for (std::size_t size = 0; size < hello.size(); ++size) {
    EXPECT_FALSE(DecodeHello(ByteView(hello).first(size)));
  }
  for (std::size_t size = 0; size < answer.size(); ++size) {
    EXPECT_FALSE(DecodeHelloAnswer(ByteView(answer).first(size)));
  }
  EXPECT_FALSE(DecodeHello(answer));
  EXPECT_FALSE(DecodeHelloAnswer(hello));
  Bytes newer = hello;
  newer.push_back(1);
  EXPECT_TRUE(DecodeHello(newer)) << "a newer camera may say more";
  EXPECT_EQ(DecodeHello(Bytes{0, 1, 0, 2})->protocol_version, 2);
}

}  // namespace
}  // namespace orka::codec
