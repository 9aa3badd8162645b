#include "orka/ConversionTables.h"
#include "orka/codec/Codec.h"
#include "orka/codec/Frame.h"
#include "orka/codec/LinkControl.h"
#include "orka/codec/Texts.h"
#include "zelt/fake/MessageText.h"

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
using zelt::fake::FromText;
using Subscription = Kova::OpcodeSubscriptionMsg;
using Gatt = Kova::GattConfigMsg;
using Buttons = Kova::ButtonsSubscribtionMsg;
using Brightness = Kova::LedBrightnessSettingMsg;

// ------------------------------------------------------------------------------------------------
// The document.

// "header", "payload" and "on line" of each worked example, by the example's heading.
std::map<std::string, std::map<std::string, Bytes>> DocumentExamples() {
  std::map<std::string, std::map<std::string, Bytes>> examples;
  std::string heading;
  std::string field;
  bool inside = false;
  std::ifstream document(RADIO_LINK_DOCUMENT);
  for (std::string line; std::getline(document, line);) {
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
  const std::map<std::string, std::pair<pel::BaseMessage, Bytes>> expected = {
      {"Hello", {{.kind = 3}, Encode(Hello{1, true, false, "1.2.3", "camera"})}},
      {"HelloAnswer",
       {{.kind = 3}, Encode(HelloAnswer{1, true, 4096, "radio", {{0x17, 80}, {0x24, 1}}})}},
      {"KeepAlive", {{.kind = 3}, Encode(LinkControl::KeepAlive)}},
      {"Goodbye", {{.kind = 3}, Encode(LinkControl::Goodbye)}},
      {"Request", {{.transaction = 1}, EncodeToRadio(Kova::RtVersionRequest()).payload}},
      {"Response",
       {{.kind = 1, .transaction = 1},
        Answer("RtVersionResponse",
               FromText<Kova::RtVersionResponse>("version: 'R1.0' build_number: 7"))}},
      {"Broadcast",
       {{.kind = 2},
        Answer("CovertModeBroadcast", FromText<Kova::ToggleCovertModeMsg>("enabled: true"))}},
      {"FileAccessRequest",
       {{.transaction = 3},
        EncodeToRadio(qrx::FileAccessRequest{1, 2, 8U << 20U, "image.bin"}).payload}},
      {"TransferDataRequest",
       {{.transaction = 2},
        EncodeToRadio(qrx::TransferDataRequest{3, 258, 4}, Bytes{0xCA, 0xFE, 0, 1}).payload}},
      {"TransferDataResponse",
       {{.kind = 1, .transaction = 2},
        Answer("TransferDataResponse", qrx::TransferDataResponse{qrx::Result::Success, 258})}},
      {"FileAccessResponse",
       {{.kind = 1, .transaction = 3},
        Answer("FileAccessResponse",
               qrx::FileAccessResponse{qrx::Result::NoSpace, 8U << 20U, "image.bin"})}},
      {"FileHandleOpenResponse",
       {{.kind = 1, .transaction = 9},
        EncodeToRadio(FileHandleRespWrapper{0x1234, 0, 3, qrx::DirectoryDataType{{"a", "bc"}}})
            .payload}},
      {"Addresses",
       {{.address = 0x0102, .source = 0x0304, .destination = 0x0506, .transaction = 5},
        EncodeToRadio(Kova::HardwareIdRequest()).payload}},
      {"Code for a name",
       {{.transaction = 4}, EncodeToRadio(FromText<Brightness>("brightness: 'Medium'")).payload}},
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

template <class Union, std::size_t... indices>
Union Default(std::size_t index, std::index_sequence<indices...> /*alternatives*/) {
  using Make = Union (*)();
  static constexpr std::array<Make, sizeof...(indices)> kMakers = {
      [] { return Union(std::in_place_index<indices>); }...};
  return kMakers.at(index)();
}
template <class Union>
Union Default(std::size_t index) {
  return Default<Union>(index, std::make_index_sequence<std::variant_size_v<Union>>());
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

Bytes Payload(std::uint16_t opcode, const std::string& body) {
  Bytes payload;
  ByteWriter(payload).Put(opcode);
  payload.insert(payload.end(), body.begin(), body.end());
  return payload;
}

// The bytes of a message, with nothing changed.
template <class Union>
std::string BodyOf(const Union& message) {
  return std::visit(
      [](const auto& held) {
        if constexpr (requires { held.SerializeAsString(); }) {
          return held.SerializeAsString();
        } else {
          return std::string("a record");
        }
      },
      message);
}

// What goes as `on_line` when `sent` is sent, and what the note says of the rest.
struct SentRow {
  RadioOutgoingMessage sent;
  RadioOutgoingMessage on_line;
  const char* left_out = "";
};
template <class T>
SentRow Sent(const char* sent, const char* on_line, const char* left_out = "") {
  return {FromText<T>(sent), FromText<T>(on_line), left_out};
}

TEST(Codec, NamesGoAsCodesAndWhatNoTableKnowsAsItIs) {
  const SentRow rows[] = {
      Sent<Subscription>("request { codes: [4, 77] }", "request { codes: [0xB49B, 77] }"),
      Sent<Subscription>("request { codes: [0xB413, 0] }", "request { codes: 0xB413 }",
                         "subscription 46099"),
      Sent<Gatt>("get_request {}", "get_request {}"),
      Sent<Gatt>("get_request { names: [0, 42] }", "get_request { names: [1, 42] }"),
      Sent<Gatt>("set_request { properties { name: 7 value: '1' } properties { name: 11 } }",
                 "set_request { properties { name: 8 value: '1' } properties { name: 11 } }"),
      Sent<Buttons>("request { buttons { name: 'EButton' identifier: 1 } "
                    "buttons { name: 'onedot' identifier: 145 } buttons { identifier: 7 } "
                    "buttons { name: 'onedot' } }",
                    "request { buttons { identifier: 151 } buttons { identifier: 145 } "
                    "buttons { identifier: 7 } }",
                    "button \"onedot\""),
      Sent<Brightness>("brightness: 'Medium' intensity: 1", "intensity: 200"),
      Sent<Brightness>("intensity: 7", "intensity: 7"),
      Sent<Brightness>("brightness: 'Dim' intensity: 7", "intensity: 7"),
      Sent<Kova::VideoControlRequest>("action: 5", "action: 5"),
      Sent<Kova::VideoControlBroadcast>("action: 77", "action: 77"),
  };
  for (const auto& [sent, on_line, left_out] : rows) {
    const Encoded encoded = EncodeToRadio(sent);
    SCOPED_TRACE(encoded.row->name);
    EXPECT_EQ(encoded.error, "");
    EXPECT_EQ(encoded.note.empty(), *left_out == '\0') << encoded.note;
    EXPECT_THAT(encoded.note, HasSubstr(left_out));
    EXPECT_EQ(encoded.payload, Payload(encoded.row->opcode, BodyOf(on_line)));
    const auto decoded = DecodeToRadio(encoded.row->kind, encoded.payload);
    ASSERT_TRUE(decoded.message) << decoded.error;
    EXPECT_EQ(EncodeToRadio(*decoded.message).payload, encoded.payload);
  }
  const std::pair<RadioOutgoingMessage, const char*> refused[] = {
      {FromText<Subscription>("request { codes: 0xB413 }"), "subscription 46099"},
      {FromText<Gatt>("get_request { names: 10 }"), "GATT property 10"},  // else all are asked for
      {FromText<Gatt>("set_request { properties { name: 10 } }"), "GATT property 10"},
      {FromText<Buttons>("request { buttons { name: 'onedot' } }"), "button \"onedot\""},
      {FromText<Brightness>("brightness: 'Dim'"), "brightness \"Dim\""},
      {qrx::TransferDataRequest{3, 0, 1}, "0 bytes"},
  };
  for (const auto& [message, error] : refused) {
    const Encoded encoded = EncodeToRadio(message);
    EXPECT_THAT(encoded.error, HasSubstr(error));
    EXPECT_TRUE(encoded.payload.empty());
  }
  const auto many = FromText<Subscription>("request { codes: [0, 15, 17, 15, 17, 1176, 17, 17] }");
  EXPECT_THAT(EncodeToRadio(many).note, HasSubstr("subscription 1176 and 2 more"));
}

// What is told when `on_line` comes.
struct ComesRow {
  const char* row;
  RadioNotificationData on_line;
  RadioNotificationData told;
  const char* left_out = "";
};
template <class T>
ComesRow Comes(const char* row, const char* on_line, const char* told, const char* left_out = "") {
  return {row, FromText<T>(on_line), FromText<T>(told), left_out};
}

TEST(Codec, CodesComeAsNamesAndWhatNoTableKnowsAsItIs) {
  const ComesRow rows[] = {
      Comes<Subscription>("OpcodeSubscriptionResponse", "response { codes: [77, 0xB49B] }",
                          "response { codes: [77, 4] }"),
      Comes<Subscription>("OpcodeSubscriptionResponse", "response { codes: 5 }", "response {}",
                          "subscription 5"),
      Comes<Gatt>("GattConfigGetResponse",
                  "get_response { properties { name: 8 value: '1' } properties { name: 42 } "
                  "properties { name: 0 } }",
                  "get_response { properties { name: 7 value: '1' } properties { name: 42 } }",
                  "GATT property 0"),
      Comes<Gatt>("GattConfigSetResponse", "get_response { properties { name: 1 } }",
                  "get_response { properties { name: 0 } }"),
      Comes<Gatt>("GattConfigBroadcast", "broadcast { properties { name: 10 } }",
                  "broadcast { properties { name: 9 } }"),
      Comes<Buttons>(
          "ButtonsSubscribtionResponse",
          "response { buttons { identifier: 102 } buttons { name: 'x' identifier: 7 } }",
          "response { buttons { name: 'ThreeDots' identifier: 102 } buttons { identifier: 7 } }"),
      Comes<Brightness>("LedBrightnessResponse", "", "brightness: 'Off'"),
      Comes<Brightness>("LedBrightnessResponse", "brightness: 'x' intensity: 7", "intensity: 7"),
      Comes<Kova::VideoControlRequest>("VideoControlRequest", "action: 6", "action: 6"),
      Comes<Collaboration::RadioConnectionMsg>(
          "RadioConnection",
          "device_descriptors { attribute: 0x99 value: 1 } "
          "device_descriptors { attribute: 0x24 value: 2 } device_descriptors { value: 256 }",
          "device_descriptors { attribute: 4 value: 2 }", "attribute 153, attribute 0"),
  };
  for (const auto& [name, on_line, told, left_out] : rows) {
    SCOPED_TRACE(name);
    const MessageRow& row = *FindRow(Direction::FromRadio, name);
    const auto decoded = DecodeFromRadio(row.kind, Payload(row.opcode, BodyOf(on_line)));
    ASSERT_TRUE(decoded.message) << decoded.error;
    EXPECT_EQ(BodyOf(*decoded.message), BodyOf(told));
    EXPECT_EQ(decoded.note.empty(), *left_out == '\0') << decoded.note;
    EXPECT_THAT(decoded.note, HasSubstr(left_out));
    const auto again = DecodeFromRadio(row.kind, EncodeFromRadio(row, told).payload);
    ASSERT_TRUE(again.message) << again.error;
    EXPECT_EQ(BodyOf(*again.message), BodyOf(told));
  }
  const auto nine =
      FromText<Collaboration::RadioConnectionMsg>("device_descriptors { attribute: 9 value: 1 }");
  EXPECT_THAT(EncodeFromRadio(*FindRow(Direction::FromRadio, "RadioConnection"), nine).note,
              HasSubstr("attribute 9"));
}

// ------------------------------------------------------------------------------------------------
// Texts that are not UTF-8.

// A body with nothing but this text in this field.
std::string BodyWith(const TextField& field, std::string text) {
  for (std::size_t depth = field.path.size(); depth-- > 0;) {
    if (field.path[depth] != 0) {
      const std::string head = {static_cast<char>(unsigned{field.path[depth]} << 3U | 2U),
                                static_cast<char>(text.size())};
      text.insert(0, head);
    }
  }
  return text;
}

// A payload of this row as it is told, and as it is when it is sent back in the same row.
struct Passed {
  std::string note;
  std::string told;
  Bytes back;
};
Passed Pass(const MessageRow& row, const Bytes& payload) {
  const auto passed = [](const auto& decoded, const auto& encode) -> Passed {
    return decoded.message
               ? Passed{decoded.note, BodyOf(*decoded.message), encode(*decoded.message).payload}
               : Passed{decoded.error, "", {}};
  };
  if (row.direction == Direction::ToRadio) {
    return passed(DecodeToRadio(row.kind, payload),
                  [](const RadioOutgoingMessage& message) { return EncodeToRadio(message); });
  }
  return passed(DecodeFromRadio(row.kind, payload), [&](const RadioNotificationData& message) {
    return EncodeFromRadio(row, message);
  });
}

TEST(Texts, BytesThatAreNotUtf8ComeAndGoBackExactly) {
  // The second is UTF-8, but has a code point that stands for a byte.
  const std::pair<std::string, std::string> texts[] = {
      {"a\xFF\xC3\xA4\xED\xA0\x80z", "a\xEF\x9F\xBF\xC3\xA4"},
      {"\xEF\x9E\x81", "\xEF\x9F\xAF\xEF"}};
  int tried = 0;
  for (const MessageRow& row : kMessageTable) {
    for (const TextField& field : kTextFields) {
      std::string type(row.type);
      const std::size_t colons = type.find("::");
      if (colons == std::string::npos || type.replace(colons, 2, ".") != field.message) {
        continue;
      }
      SCOPED_TRACE(row.name);
      for (const auto& [text, told] : texts) {
        ++tried;
        const Bytes payload = Payload(row.opcode, BodyWith(field, text));
        const Passed passed = Pass(row, payload);
        EXPECT_THAT(passed.note, HasSubstr("not UTF-8, in field"));
        if (type == "Kova.ButtonsSubscribtionMsg" || type == "Kova.LedBrightnessSettingMsg") {
          continue;  // a name of theirs is not used
        }
        EXPECT_THAT(passed.told, HasSubstr(told));
        ASSERT_EQ(passed.back.size(), payload.size());
        EXPECT_TRUE(std::equal(payload.begin() + 2, payload.end(), passed.back.begin() + 2));
      }
    }
  }
  EXPECT_GE(tried, 50);
  EXPECT_EQ(
      Pass(*FindRow(Direction::FromRadio, "RtVersionResponse"), Payload(0x8401, "\x0A\x02\xC3\xA4"))
          .note,
      "");
}

TEST(Texts, EveryBodyIsReadOrRefusedAndEveryTextComesBack) {
  std::mt19937 random(3);
  for (int round = 0; round < 5000; ++round) {
    std::string bytes(random() % 40, '\0');
    std::ranges::generate(bytes, [&] {  // what makes escapes and fields comes often
      constexpr std::string_view kOften("\xEF\x9E\x9F\x80\x0A\x12\x02\x01");
      return random() % 5 == 0 ? static_cast<char>(random()) : kOften[random() % kOften.size()];
    });
    const std::string escaped = EscapeText(bytes);
    ASSERT_EQ(UnescapeText(escaped), bytes);
    Kova::RtVersionResponse version;
    version.set_version(escaped);
    ASSERT_TRUE(version.ParseFromString(version.SerializeAsString())) << "it is UTF-8";
    for (const char* row : {"RtVersionResponse", "BluetoothStatusResponse", "WlanControlResponse",
                            "ButtonsSubscribtionResponse"}) {
      const auto opcode = FindRow(Direction::FromRadio, row)->opcode;
      const auto decoded = DecodeFromRadio(pel::FrameKind::Response, Payload(opcode, bytes));
      ASSERT_NE(decoded.message.has_value(), !decoded.error.empty());
    }
  }
  EXPECT_THAT(DecodeFromRadio(pel::FrameKind::Response, Payload(0x8401, "\xFF")).error,
              HasSubstr("no Kova.RtVersionResponse"));
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
  std::vector<pel::BaseMessage> headers;
  std::vector<Bytes> payloads;
  std::map<Drop, int> drops;
};

Received Deframe(ByteView bytes, std::size_t step) {
  Received received;
  Deframer deframer(
      [&](const pel::BaseMessage& header, ByteView payload) {
        received.headers.push_back(header);
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
    for (const bool zeros : {true, false}) {
      Bytes payload(size, 0xAA);
      if (zeros) {
        std::ranges::generate(payload, [&] { return static_cast<std::uint8_t>(random() % 3); });
      }
      const pel::BaseMessage header{
          0x0102, 3, 4, 0x0506, 0x0708, 0x090A, static_cast<std::uint16_t>(size)};
      Bytes line;
      AppendFrame(header, payload, line);
      EXPECT_EQ(std::ranges::count(line, 0), 1) << "the delimiter only";
      EXPECT_EQ(line.size() == kMaxEncodedFrame + 1, size == 65535 && !zeros) << "the largest";
      for (const std::size_t step : {std::size_t{1}, std::size_t{7}, line.size()}) {
        const Received received = Deframe(line, step);
        EXPECT_EQ(received.headers, std::vector({header}));
        EXPECT_EQ(received.payloads, std::vector<Bytes>({payload})) << size;
      }
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
  // Its checksum is right, but it says that it has three bytes and has two.
  const Bytes wrong_length = {1, 1, 1, 1, 1, 1, 1, 1, 1, 2, 1, 8, 3, 4, 1, 0xFD, 0xF6, 0x1B, 0xBC};
  EXPECT_EQ(expect_two(wrong_length), (std::map<Drop, int>{{Drop::Malformed, 1}}));
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
