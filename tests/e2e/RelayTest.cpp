// One message of every form through real processes, from the tool to the radio and back.

#include "Stack.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace e2e {
namespace {

struct ToRadio {
  const char* type;
  const char* json;
  const char* line;  // what the radio says of it
};

// A message of each form that Kova gives to the radio.
constexpr ToRadio kToRadio[] = {
    {"Kova.UsbStatus", R"({"connected":true})", "<- UsbStatus 0x"},
    {"Kova.RtVersionMsg", R"({"request":{}})", "<- RtVersionRequest 0x0401 "},
    {"Kova.RadioStatusMsg", R"({"broadcast":{"recording":true}})", "<- RadioStatusBroadcast 0x"},
    {"Kova.SetDateTimeMsg", R"({"request":{"date_time":{"year":2026,"month":1,"day":3}}})",
     "<- SetDateTimeRequest 0x"},
    {"Collaboration.RadioEmergencyMsg", R"({"state":"RAISED"})", "<- EmergencyRequest 0x"},
    {"Kova.FileHandleOpenResponse", R"({"file_name":"a","handle_id":9,"size":12})",
     "<- FileHandleOpenResponse 0x"},
    {"Kova.InjectQrxRequest", R"({"payload":"BAE="})", "<- RtVersionRequest 0x0401 "},
    // The radio leaves after this one.
    {"Kova.ShutdownRequest", R"({"reason":"BATTERY_LOW"})", "<- ShutdownRequest 0x"},
};

TEST(Relay, MessagesReachTheRadio) {
  Stack stack;
  stack.StartAll();
  EXPECT_TRUE(stack.radio->Output().contains(
      R"(hello of "ZPX" version "1.2.3 build 45", protocol 1, camera 1, tethered 1)"))
      << stack.radio->Output();
  stack.Radio({"notify", "FileHandleOpenRequest", R"({"file_name":"a","handle_id":9})"});
  stack.kova->WaitForLine("Publishing [Kova.FileHandleOpenRequest]");
  for (const ToRadio& row : kToRadio) {
    SCOPED_TRACE(row.type);
    stack.radio->Mark();
    const ToolResult sent = stack.Tool({"send", "Kova", row.type, row.json});
    ASSERT_EQ(sent.status, 0) << sent.output;
    stack.radio->WaitForLine(row.line);
  }
}

struct FromRadio {
  const char* name;
  const char* json;
  const char* destination;  // a service, or a topic (with a point)
  const char* text;         // in what it gets
};

// To every service that Kova knows; by a number in the message; to subscribers; the link's status.
constexpr FromRadio kFromRadio[] = {
    {"EmergencyBroadcast", R"({"state":"RAISED"})", "Collaboration", "RadioEmergencyMsg"},
    {"PhysicalUserInput", R"({"key":3})", "Controller", "InputNotification"},
    {"BatteryLevelBroadcast", R"({"percent":51})", "Battery", "Kova.BatteryLevel"},
    {"GattConfigBroadcast", R"({"broadcast":{}})", "SmartControl", "Kova.GattConfigMsg"},
    {"RsmUpdateResponse", "{}", "Upgrade", "Kova.RsmUpdateResponse"},
    {"SerialNumberRequest", R"({"type":1})", "Collaboration", "Kova.SerialNumberMsg"},
    {"SerialNumberRequest", R"({"type":3})", "RsmControl", "Kova.SerialNumberMsg"},
    {"Docking", R"({"key":7})", "MediaStreamNotification.InputNotification", R"("key":7)"},
    {"FileAccessWriteRequest", R"({"file_name":"w"})", "Kova.FileAccessWriteRequest",
     R"("file_name":"w")"},
    {"UpgradeInProcess", "", "Kova.RTConnectionStatus", "UPGRADE_IN_PROCESS"},
};

TEST(Relay, NotificationsReachTheirServiceOrTopic) {
  Stack stack;
  stack.StartAll();
  std::map<std::string, std::unique_ptr<Process>> receivers;
  for (const FromRadio& row : kFromRadio) {
    auto& receiver = receivers[row.destination];
    if (!receiver) {
      const bool topic = std::string(row.destination).contains('.');
      receiver = topic ? stack.Run("zeltcli", {"subscribe", row.destination})
                       : stack.Run("zeltcli", {"listen", "--as", row.destination});
      receiver->WaitForLine(topic ? "subscribed" : "listening");
    }
  }
  for (const FromRadio& row : kFromRadio) {
    SCOPED_TRACE(row.name);
    receivers[row.destination]->Mark();
    stack.Radio({"notify", row.name, row.json});
    receivers[row.destination]->WaitForLine(row.text);
  }
}

}  // namespace
}  // namespace e2e
