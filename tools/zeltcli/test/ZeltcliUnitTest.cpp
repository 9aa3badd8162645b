#include "Accepted.h"
#include "CliError.h"
#include "Commands.h"
#include "DateTime.h"
#include "FileProgress.h"
#include "JsonObject.h"
#include "MessageTypes.h"
#include "Output.h"
#include "TypesText.h"
#include "Words.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>

namespace zelt::cli {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

const MessageTypes& Types() {
  static const auto* const types = new MessageTypes;
  return *types;
}

// "what it says | what it advises", or what `act` gives when it does not fail.
template <class Act>
std::string Said(Act act) {
  try {
    return act();
  } catch (const CliError& error) {
    EXPECT_EQ(error.exit, Exit::Usage);
    return error.what() + (" | " + error.hint);
  }
}

TEST(MessageTypesTest, TypeNamesInAllSpellingsAndNearOnes) {
  const auto find = [](const char* name) {
    return Said([name] { return Types().Find(name).full_name(); });
  };
  for (const char* name : {"Kova.RtVersionMsg", "Kova::RtVersionMsg", "RtVersionMsg"}) {
    EXPECT_EQ(find(name), "Kova.RtVersionMsg");
  }
  EXPECT_THAT(find("kova.rtversonmsg"), HasSubstr("did you mean Kova.RtVersionMsg"));
  EXPECT_THAT(find("Battery"), HasSubstr("did you mean Kova.BatteryLevel"));
  EXPECT_THAT(find("Nonsensical"), HasSubstr("| zeltcli types lists them"));
  EXPECT_THAT(find("Kova.RtConnectionState"), HasSubstr("no message type")) << "an enumeration";
}

TEST(MessageTypesTest, JsonThatDoesNotFitNamesTheField) {
  const struct {
    const char* type;
    const char* json;
    const char* said;
  } cases[] = {
      {"RtVersionMsg", R"({"requst":{}})", "no field \"requst\" | did you mean request?"},
      {"RtVersionMsg", R"({"response":{"x":1}})",
       "no field \"response.x\" | Kova.RtVersionResponse has version, build_number"},
      {"RtVersionMsg", R"({"request":{"x":1}})", "| Kova.RtVersionRequest has no fields"},
      {"RtVersionMsg", R"({"response":{"build_number":-1}})",
       "field \"response.build_number\" cannot be -1 | expected uint32"},
      {"RtVersionMsg", R"({"request":{},"response":{}})",
       "only one field of RtVersionOneof can be set"},
      {"RtConnectionAction", R"({"action":"GO"})",
       R"(field "action" cannot be "GO" | expected START (0), STOP (1) or a number)"},
      {"OpcodeSubscriptionMsg", R"({"request":{"codes":[1,"X"]}})",
       R"(field "request.codes[1]" cannot be "X" | expected a list of SUBSCRIBE_BATTERY_LEVEL)"},
      {"BtMacAddressMsg", R"({"address":"!"})", "expected bytes in base64"},
      {"RtVersionMsg", R"({"request":)",
       "Expected a value. Here: the end. | zeltcli types Kova.RtVersionMsg shows its fields"},
      {"RtConnectionAction", "{\n\"action\":GO\n}",
       "Kova.RtConnectionAction: Unexpected token. Here: GO }"},
      {"RtVersionMsg", "[]", "Kova.RtVersionMsg: Root element must be a message"},
  };
  for (const auto& [type, json, said] : cases) {
    EXPECT_THAT(Said([&] { return Types().FromJson(Types().Find(type), json).Json(); }),
                HasSubstr(said))
        << json;
  }
}

TEST(MessageTypesTest, MessagesSurviveTheWayThroughJson) {
  const auto& type = Types().Find("OpcodeSubscriptionMsg");
  const char* const json = R"({"response":{"result":0,"codes":["SUBSCRIBE_EMERGENCY",99]}})";
  const auto message = Types().FromJson(type, json);
  EXPECT_EQ(MessageJson(Types(), {"", message.Type(), message.Bytes(), false}), json)
      << "a zero result is shown, an unnamed value kept";
  EXPECT_EQ(MessageJson(Types(), {"", "Kova.RtVersionMsg", "\xff\x01", false}),
            R"({"hex":"ff01"})");
  EXPECT_EQ(MessageJson(Types(), {"", "Foreign.Type", "", false}), R"({"hex":""})");
}

TEST(AcceptedTest, EveryTypeOfTheTablesExists) {
  const auto names = Types().Names();
  for (const AcceptedType& accepted : kAcceptedByKova) {
    EXPECT_THAT(names, Contains(accepted.type));
    if (accepted.answer == Answer::Response || accepted.answer == Answer::Message) {
      EXPECT_THAT(names, Contains(accepted.detail.substr(0, accepted.detail.find_first_of(",;"))));
    }
  }
  for (const std::string_view topic : kTopicsOfKova) {
    EXPECT_THAT(names, Contains(topic));
  }
  const Output plain(true);
  const auto text = [&](const char* type) { return TypeText(Types(), Types().Find(type), plain); };
  EXPECT_THAT(text("SetSocketParams"),
              testing::AllOf(HasSubstr("In, tools only."), HasSubstr("zelt.GenericResponse"),
                             HasSubstr("port: uint32  // 1 to 65535")));
  EXPECT_THAT(text("RtVersionMsg"),
              HasSubstr(R"(request Kova Kova.RtVersionMsg '{"request":{}}')"));
  EXPECT_THAT(text("UsbRouteMsg"), HasSubstr(R"(send Kova Kova.UsbRouteMsg '{"response":{)"));
  EXPECT_THAT(TypesText(plain), HasSubstr("the radio's answer goes to Battery"));
}

TEST(TextTest, HexAndJsonRefuseWhatTheyCannotCarry) {
  const auto hex = [](const char* text) { return Said([text] { return ToHex(FromHex(text)); }); };
  EXPECT_EQ(hex("0xB4:13 00"), "b41300");
  EXPECT_THAT(hex("b4g"), HasSubstr("\"g\" is no hexadecimal digit"));
  EXPECT_THAT(hex("b41"), HasSubstr("3 hexadecimal digits are no whole bytes"));
  EXPECT_EQ(JsonObject().Add("a\"\\", "\n\x1f").Add("b", true).Str(),
            R"({"a\"\\":"\u000a\u001f","b":true})");
  const std::string good = "\x7f\u00e9\u20ac\U0001f4fb";
  EXPECT_EQ(JsonObject::Quote(good), '"' + good + '"');
  for (const char* bad : {"\x80", "\xc0\x80", "\xe2\x82", "\xed\xa0\x80", "\xf5\x80\x80\x80"}) {
    EXPECT_THAT(JsonObject::Quote(bad), testing::MatchesRegex(R"("(\\ufffd)+")")) << ToHex(bad);
  }
}

TEST(DateTimeTest, OnlyTimesThatExistAreTaken) {
  setenv("TZ", "XXX-5:30", 1);  // east of Greenwich
  tzset();
  const auto text = [](const char* given) {
    return Said([given] {
      auto message = Types().New("Kova.SetDateTimeReq");
      SetDateTime(message, "date_time", given);
      return DateTimeText(message, "date_time");
    });
  };
  EXPECT_EQ(text("2024-02-29T10:00"), "2024-02-29 10:00:00 +05:30");
  EXPECT_EQ(text("2026-1-2 3:04:05Z"), "2026-01-02 03:04:05 +00:00");
  EXPECT_EQ(text("2026-01-02 03:04:05 -0930"), "2026-01-02 03:04:05 -09:30");
  EXPECT_THAT(text("now"), HasSubstr("+05:30"));
  EXPECT_THAT(text("2025-02-29 10:00"), HasSubstr("no such day"));
  EXPECT_THAT(text("1969-12-31 10:00"), HasSubstr("no such day"));
  EXPECT_THAT(text("2026-01-01 24:00"), HasSubstr("no such time of day"));
  EXPECT_THAT(text("2026-01-01 10:00+15:00"), HasSubstr("beyond -12:00 to +14:00"));
  EXPECT_THAT(text("tomorrow"), HasSubstr("its form is wrong"));
}

TEST(ProgressTest, PositionOfTheReaderIsSeenAndDrawn) {
  const std::string path = testing::TempDir() + "image." + std::to_string(getpid());
  std::ofstream(path) << std::string(1000, 'x');
  std::string own_name;
  std::ifstream("/proc/self/comm") >> own_name;
  EXPECT_FALSE(FileProgress(path, own_name).Position()) << "nobody has it open";

  std::ifstream reader;
  reader.rdbuf()->pubsetbuf(nullptr, 0);
  reader.open(path);
  std::string part(400, ' ');
  reader.read(part.data(), 400);
  FileProgress progress(path, own_name);
  EXPECT_EQ(progress.Position(), 400U);
  EXPECT_FALSE(FileProgress(path, "nobody").Position());
  reader.close();
  const std::ifstream another("/proc/self/comm");  // may have the same number
  EXPECT_FALSE(progress.Position());
  std::filesystem::remove(path);

  EXPECT_THAT(Progress::Line("x", 0x80000, 0x100000, 2),
              HasSubstr("[###############---------------] 50 %  0.5 of 1.0 MiB  2.0 s"));
  EXPECT_EQ(Progress::Line("x", std::nullopt, 9, 0.25), "x -  0.2 s");
}

TEST(CompletionTest, CandidatesFitThePlace) {
  Arguments arguments;
  const Command* chosen = nullptr;
  const auto app = MakeApp(arguments, chosen);
  const auto complete = [&app](const std::vector<std::string>& words) {
    return Completions(*app, words);
  };
  EXPECT_THAT(complete({"li"}), ElementsAre("link", "listen"));
  EXPECT_THAT(complete({"link", ""}), ElementsAre("down", "keep", "status", "up", "watch"));
  EXPECT_THAT(complete({"link", "keep", "o"}), ElementsAre("off", "on"));
  EXPECT_THAT(complete({"--timeout", "5", "video", "sn"}), ElementsAre("snapshot"));
  EXPECT_THAT(complete({"--timeout", ""}), IsEmpty());
  EXPECT_THAT(complete({"send", "Kova", "Kova.SetS"}), ElementsAre("Kova.SetSocketParams"));
  EXPECT_THAT(complete({"send", "Kova", "Kova::SetS"}), ElementsAre("Kova::SetSocketParams"));
  EXPECT_THAT(complete({"firmware", "push", "x"}), ElementsAre("FILE"));
  EXPECT_THAT(complete({"firmware", "push", "x", "--a"}), ElementsAre("--as"));
  EXPECT_THAT(complete({"send", "Kova", "Kova.RtV"}), ElementsAre("Kova.RtVersionMsg"));
  EXPECT_THAT(complete({"types", "Kova.RtVersionRe"}), testing::SizeIs(2));
  EXPECT_THAT(complete({"send", "Kova", "Kova.RtVersionMsg", "@x"}), ElementsAre("FILE"));
  EXPECT_THAT(complete({"__"}), IsEmpty());
}

}  // namespace
}  // namespace zelt::cli
