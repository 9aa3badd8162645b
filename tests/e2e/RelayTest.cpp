// Every message and every notification through real processes, from the tool to the radio and back.

#include "Stack.h"

#include <gtest/gtest.h>

#include <fstream>

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace e2e {
namespace {

// The opcode that the document of the link gives to a message of the camera. Its tables have one
// message a row, opcode, kind and name first; those of the camera come first.
std::string DocumentedOpcode(const std::string& name) {
  std::ifstream document(std::string(KOVA_SOURCE_DIR) + "/docs/radio-link.md");
  for (std::string line;
       std::getline(document, line) && line != "### From the radio to the camera";) {
    if (line.starts_with("| 0x") && line.contains("| " + name + " |")) {
      return line.substr(2, 6);
    }
  }
  return "";
}

struct ToRadio {
  const char* type;
  const char* json;
  const char* wire_name;
};

// The typed messages of the catalogue that go to the radio.
constexpr ToRadio kToRadio[] = {
    {"Kova.ShutdownResponse", R"({"result":1})", "ShutdownResponse"},
    {"Kova.SerialNumberMsg", R"({"type":1})", "SerialNumberRequest"},
    {"Kova.BtMacAddressMsg", R"({"type":1})", "BtMacAddressRequest"},
    {"Kova.RtVersionMsg", R"({"request":{}})", "RtVersionRequest"},
    {"Kova.HardwareIdMsg", R"({"request":{}})", "HardwareIdRequest"},
    {"Kova.AmbaUpdateStatus", R"({"status":"READY"})", "AmbaUpdateStatus"},
    {"Kova.RtDebugLogMsg", R"({"request":{"maxBytes":100}})", "DebugLogRequest"},
    {"Kova.FeedbackAction", R"({"kind":"TONE"})", "FeedbackAction"},
    {"Kova.ConfigurationSetMsg", R"({"request":{"configurationId":3}})", "ConfigurationSetRequest"},
    {"Kova.ButtonsSubscribtionMsg",
     R"({"request":{"buttons":[{"name":"EButton","subscribed":true}]}})",
     "ButtonsSubscribtionRequest"},
    {"Kova.LedBrightnessSettingMsg", R"({"brightness":"Low"})", "LedBrightnessRequest"},
    {"Kova.RadioStatusMsg", R"({"response":{"recording":true}})", "RadioStatusResponse"},
    {"Kova.RadioStatusMsg", R"({"broadcast":{"recording":true}})", "RadioStatusBroadcast"},
    {"Kova.BatteryLevelRequest", "{}", "BatteryLevelRequest"},
    {"Kova.UsbStatus", R"({"connected":true})", "UsbStatus"},
    {"Kova.BluetoothConfigMsg", R"({"request":{"mode":"MODE_ON"}})", "BluetoothConfigRequest"},
    {"Kova.BluetoothStatusMsg", R"({"request":{}})", "BluetoothStatusRequest"},
    {"Kova.GattConfigMsg", R"({"getRequest":{"names":["GATT_MTU"]}})", "GattConfigGetRequest"},
    {"Kova.GattConfigMsg", R"({"notification":{"characteristic":7}})", "GattConfigNotification"},
    {"Kova.RtFactoryResetRequest", "{}", "FactoryResetRequest"},
    {"Collaboration.RadioEmergencyMsg", R"({"state":"RAISED"})", "EmergencyRequest"},
    {"Collaboration.VideoTagControlReply", R"({"requestId":4})", "VideoTagControlReply"},
    {"Kova.LocationInfoMsg", R"({"request":{}})", "LocationRequest"},
    {"Kova.OpcodeSubscriptionMsg",
     R"({"request":{"subscribe":true,"codes":["SUBSCRIBE_LUI_ERROR"]}})",
     "OpcodeSubscriptionRequest"},
    {"Kova.ToggleCovertModeMsg", R"({"enabled":true})", "CovertModeRequest"},
    {"Kova.UsbRouteMsg", R"({"response":{"route":"CAMERA"}})", "UsbRouteResponse"},
    {"Kova.MicStatusMsg", R"({"request":{}})", "MicStatusRequest"},
    {"Kova.GetDateTimeReq", "{}", "GetDateTimeRequest"},
    {"Kova.SetDateTimeReq", R"({"dateTime":{"year":2026,"month":1,"day":2}})",
     "SetDateTimeRequest"},
    {"Kova.SetDateTimeMsg", R"({"request":{"dateTime":{"year":2026,"month":1,"day":3}}})",
     "SetDateTimeRequest"},
    {"Kova.RsmUpdateRequest", R"({"fileName":"rsm.bin"})", "RsmUpdateRequest"},
    {"Kova.RadioWlanControlOutgoingMsg", R"({"action":"SCAN"})", "WlanControlRequest"},
    {"Kova.RadioLteControlOutgoing", R"({"action":"STATUS"})", "LteControlRequest"},
    {"Kova.RadioWlanHotspotControlOutgoingMsg", R"({"action":"STATUS"})",
     "WlanHotspotControlRequest"},
    {"Kova.VideoControlRequest", R"({"requestId":5,"action":"VIDEO_ACTION_SNAPSHOT"})",
     "VideoControlRequest"},
    {"Kova.VideoControlResponse", R"({"requestId":5})", "VideoControlResponse"},
    {"Kova.VideoControlBroadcast", R"({"recording":true})", "VideoControlBroadcast"},
    {"Kova.FileHandleOpenResponse", R"({"fileName":"a","handleId":9,"size":12})",
     "FileHandleOpenResponse"},
    {"Kova.UserPresenceInfoResponse", R"({"present":true})", "UserPresenceInfoResponse"},
    {"Collaboration.IoTD2CDataMessage", R"({"topic":"t"})", "IoTD2CData"},
    {"Collaboration.IoTRegistrationRequest", R"({"deviceId":"d"})", "IoTRegistrationRequest"},
    {"Collaboration.IoTConnectionStatusQuery", "{}", "IoTConnectionStatusQuery"},
    // These need something to go before.
    {"Kova.FileAccessWriteResponse", R"({"requestId":1})", "FileAccessWriteResponse"},
    {"Kova.FileAccessCreateResponse", R"({"requestId":1})", "FileAccessCreateResponse"},
    {"Kova.TransferFirmwareRequest", R"({"sourceFilePath":"IMAGE","targetFileName":"fw"})",
     "FileAccessRequest"},
    {"Kova.InjectQrxRequest", R"({"payload":"BAE="})", "RtVersionRequest"},  // 0x0401
    // The radio leaves after this one.
    {"Kova.ShutdownRequest", R"({"reason":"BATTERY_LOW"})", "ShutdownRequest"},
};

TEST(Relay, EveryMessageReachesTheRadioAsItsDocumentedOpcode) {
  Stack stack;
  stack.StartAll();
  stack.LinkUp();
  WriteFile(stack.Folder() / "image", std::string(5000, 'x'));
  stack.Radio({"notify", "FileAccessWriteRequest", R"({"fileName":"w","requestId":1})"});
  stack.Radio({"notify", "FileAccessCreateRequest", R"({"fileName":"c","requestId":1})"});
  stack.kova->WaitForLine("Publishing [Kova.FileAccessCreateRequest]");
  for (const ToRadio& row : kToRadio) {
    SCOPED_TRACE(row.type);
    std::string json = row.json;
    if (const std::size_t image = json.find("IMAGE"); image != std::string::npos) {
      json.replace(image, 5, (stack.Folder() / "image").string());
    }
    const std::string opcode = DocumentedOpcode(row.wire_name);
    ASSERT_NE(opcode, "") << row.wire_name << " is not documented";
    stack.radio->Mark();
    const ToolResult sent = stack.Tool({"send", "Kova", row.type, json});
    ASSERT_EQ(sent.status, 0) << sent.output;
    stack.radio->WaitForLine("<- " + std::string(row.wire_name) + " " + opcode);
  }
}

struct FromRadio {
  const char* name;
  const char* json;
  const char* destination;  // a service, or a topic (with a point)
  const char* type;
};

constexpr FromRadio kFromRadio[] = {
    {"RadioConnection", R"({"connected":true})", "Collaboration",
     "Collaboration.RadioConnectionMsg"},
    {"EmergencyBroadcast", R"({"state":"RAISED"})", "Collaboration",
     "Collaboration.RadioEmergencyMsg"},
    {"ShutdownRequest", "{}", "Controller", "Kova.ShutdownRequest"},
    {"ShutdownResponse", "{}", "Controller", "Kova.ShutdownResponse"},
    {"LocationBroadcast", R"({"broadcast":{"latitude":50}})", "Collaboration",
     "Kova.LocationInfoMsg"},
    {"SerialNumberRequest", R"({"type":1})", "Collaboration", "Kova.SerialNumberMsg"},
    {"SerialNumberRequest", R"({"type":3})", "RsmControl", "Kova.SerialNumberMsg"},
    {"BtMacAddressRequest", R"({"type":2})", "Collaboration", "Kova.BtMacAddressMsg"},
    {"BtMacAddressRequest", R"({"type":0})", "RsmControl", "Kova.BtMacAddressMsg"},
    {"Docking", R"({"key":7})", "MediaStreamNotification.InputNotification",
     "MediaStreamNotification.InputNotification"},
    {"ButtonsSubscribtionResponse", R"({"response":{}})", "RsmControl",
     "Kova.ButtonsSubscribtionMsg"},
    {"ConfigurationSetResponse", R"({"response":{}})", "RsmControl", "Kova.ConfigurationSetMsg"},
    {"PhysicalUserInput", R"({"key":3})", "Controller",
     "MediaStreamNotification.InputNotification"},
    {"BluetoothConfigBroadcast", R"({"broadcast":{}})", "Kova.BluetoothConfigMsg",
     "Kova.BluetoothConfigMsg"},
    {"BluetoothStatusBroadcast", R"({"broadcast":{}})", "Kova.BluetoothStatusMsg",
     "Kova.BluetoothStatusMsg"},
    {"GattConfigBroadcast", R"({"broadcast":{}})", "SmartControl", "Kova.GattConfigMsg"},
    {"BatteryLevelResponse", R"({"percent":50})", "Battery", "Kova.BatteryLevel"},
    {"BatteryLevelBroadcast", R"({"percent":51})", "Battery", "Kova.BatteryLevel"},
    {"CovertModeResponse", "{}", "Controller", "Kova.ToggleCovertModeMsg"},
    {"CovertModeBroadcast", "{}", "Controller", "Kova.ToggleCovertModeMsg"},
    {"RadioStatusRequest", R"({"request":{}})", "RsmControl", "Kova.RadioStatusMsg"},
    {"WlanStatusBroadcast", "{}", "Collaboration", "Kova.RadioWlanControlIncomingMsg"},
    {"UsbRouteRequest", R"({"request":{}})", "RsmControl", "Kova.UsbRouteMsg"},
    {"WlanHotspotStatusBroadcast", "{}", "Collaboration",
     "Kova.RadioWlanHotspotControlIncomingMsg"},
    {"MicStatusBroadcast", R"({"broadcast":{}})", "RsmControl", "Kova.MicStatusMsg"},
    {"OpcodeSubscriptionResponse", R"({"response":{}})", "RsmControl",
     "Kova.OpcodeSubscriptionMsg"},
    {"VideoTagControlRequest", "{}", "Collaboration", "Collaboration.VideoTagControlRequest"},
    {"RsmUpdateResponse", "{}", "Upgrade", "Kova.RsmUpdateResponse"},
    {"FileAccessWriteRequest", R"({"fileName":"w"})", "Kova.FileAccessWriteRequest",
     "Kova.FileAccessWriteRequest"},
    {"FileAccessWriteSessionEnd", "{}", "Kova.FileAccessWriteSessionEnd",
     "Kova.FileAccessWriteSessionEnd"},
    {"FileAccessCreateRequest", R"({"fileName":"c"})", "Kova.FileAccessCreateRequest",
     "Kova.FileAccessCreateRequest"},
    {"UpgradeInProcess", "", "Kova.RTConnectionStatus", "UPGRADE_IN_PROCESS"},
    {"DebugLogResponse", R"({"response":{}})", "RsmControl", "Kova.RtDebugLogMsg"},
    {"LuiError", R"({"code":8})", "Controller", "Kova.RadioLuiError"},
    {"IgFailed", "", "Kova.RTConnectionStatus", "IG_FAILED"},
    {"LteStatusBroadcast", "{}", "Collaboration", "Kova.RadioLteControlIncoming"},
    {"VideoControlRequest", "{}", "Collaboration", "Kova.VideoControlRequest"},
    {"VideoControlResponse", "{}", "Collaboration", "Kova.VideoControlResponse"},
    {"FileHandleOpenRequest", R"({"fileName":"h"})", "Kova.FileHandleOpenRequest",
     "Kova.FileHandleOpenRequest"},
    {"UserPresenceInfoRequest", "{}", "Collaboration", "Kova.UserPresenceInfoRequest"},
    {"IoTC2DData", "{}", "Collaboration", "Collaboration.IoTC2DDataMessage"},
    {"IoTRegistrationResponse", "{}", "Collaboration", "Collaboration.IoTRegistrationResponse"},
    {"IoTConnectionStatusBroadcast", "{}", "Collaboration", "Collaboration.IoTConnectionStatus"},
};

// Notifications that go nowhere, or to whoever asked, by the line that they leave in the log.
constexpr FromRadio kToTheLog[] = {
    {"RtVersionResponse", "{}", "Cannot send RT version response, requester is not set", ""},
    {"HardwareIdResponse", "{}", "Cannot send HardwareId response, requester is not set", ""},
    {"LedBrightnessResponse", R"({"brightness":"Low"})",
     "Cannot forward brithness setting response, requester is not set", ""},
    {"GetDateTimeResponse", "{}", "Cannot forward GetDateTimeg response, requester is not set", ""},
    {"SetDateTimeResponse", "{}", "Cannot forward setDateTimeg response, requester is not set", ""},
    {"FactoryResetAccepted", "", "Got Factory Reset response notification", ""},
    {"UsbStatusRequest", "", "Got USB Status request notification", ""},
    {"FactoryResetResponse", "{}", "Handle Rt Factory Reset Response", ""},
    {"TransferDataRequest", "", "Got Transfer Data request notification", ""},
};

TEST(Relay, EveryNotificationReachesItsServiceOrTopic) {
  Stack stack;
  stack.StartAll();
  stack.LinkUp();
  std::map<std::string, std::unique_ptr<Process>> receivers;
  for (const FromRadio& row : kFromRadio) {
    auto& receiver = receivers[row.destination];
    if (!receiver) {
      const bool topic = std::string(row.destination).contains('.');
      receiver = topic ? stack.ToolInBackground({"subscribe", row.destination})
                       : stack.ToolInBackground({"listen", "--as", row.destination});
      receiver->WaitForLine(topic ? "subscribed" : "listening");
    }
  }
  for (const FromRadio& row : kFromRadio) {
    SCOPED_TRACE(row.name);
    Process& receiver = *receivers[row.destination];
    receiver.Mark();
    stack.Radio({"notify", row.name, row.json});
    receiver.WaitForLine(row.type);
  }
  for (const FromRadio& row : kToTheLog) {
    SCOPED_TRACE(row.name);
    stack.kova->Mark();
    stack.Radio({"notify", row.name, row.json});
    stack.kova->WaitForLine(row.destination);
  }
}

}  // namespace
}  // namespace e2e
