#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace zelt::cli {

// Where the answer to a message goes that a tool sends to Kova.
enum class Answer : std::uint8_t {
  None,       // there is none
  Response,   // to the request itself
  Message,    // as a message to the tool's own name
  Elsewhere,  // the radio's answer goes to another service, or is published
};

struct AcceptedType {
  std::string_view type;
  Answer answer;
  std::string_view detail;  // the type of the answer, or who gets it
};

inline constexpr auto kAcceptedByKova = std::to_array<AcceptedType>({
    {"Kova.RtConnectionAction", Answer::None, "published as Kova.RTConnectionStatus"},
    {"Kova.ShutdownResponse", Answer::None, ""},
    {"Kova.ShutdownRequest", Answer::Elsewhere, "Controller"},
    {"Kova.SerialNumberMsg", Answer::Elsewhere, "Collaboration or RsmControl"},
    {"Kova.BtMacAddressMsg", Answer::Elsewhere, "Collaboration or RsmControl"},
    {"Kova.RtVersionMsg", Answer::Message, "Kova.RtVersionMsg"},
    {"Kova.HardwareIdMsg", Answer::Message, "Kova.HardwareIdMsg"},
    {"Kova.AmbaUpdateStatus", Answer::None, ""},
    {"Kova.RtDebugLogMsg", Answer::Elsewhere, "RsmControl"},
    {"Kova.FeedbackAction", Answer::Response, "zelt.GenericResponse"},
    {"Kova.ConfigurationSetMsg", Answer::Elsewhere, "RsmControl"},
    {"Kova.ButtonsSubscribtionMsg", Answer::Elsewhere, "RsmControl"},
    {"Kova.LedBrightnessSettingMsg", Answer::Message, "Kova.LedBrightnessSettingMsg"},
    {"Kova.RadioStatusMsg", Answer::None, ""},
    {"Kova.BatteryLevelRequest", Answer::Elsewhere, "Battery"},
    {"Kova.UsbStatus", Answer::None, ""},
    {"Kova.BluetoothConfigMsg", Answer::Response, "Kova.BluetoothConfigMsg"},
    {"Kova.BluetoothStatusMsg", Answer::Response, "Kova.BluetoothStatusMsg"},
    {"Kova.GattConfigMsg", Answer::Response,
     "Kova.GattConfigMsg, zelt.GenericResponse to a "
     "notification"},
    {"Kova.SetSocketParams", Answer::Response, "zelt.GenericResponse"},
    {"Kova.ClearSocketParams", Answer::Response, "zelt.GenericResponse"},
    {"Kova.RtFactoryResetRequest", Answer::Response, "Kova.RtFactoryResetResponse"},
    {"Kova.InjectQrxRequest", Answer::Response, "Kova.InjectQrxResponse"},
    {"Collaboration.RadioEmergencyMsg", Answer::Elsewhere, "Collaboration"},
    {"Collaboration.VideoTagControlReply", Answer::None, ""},
    {"Kova.LocationInfoMsg", Answer::Response,
     "zelt.GenericResponse; the location itself goes to "
     "Collaboration"},
    {"Kova.OpcodeSubscriptionMsg", Answer::Response, "Kova.OpcodeSubscriptionMsg"},
    {"Kova.ToggleCovertModeMsg", Answer::Elsewhere, "Controller"},
    {"Kova.UsbRouteMsg", Answer::None, ""},
    {"Kova.MicStatusMsg", Answer::Elsewhere, "RsmControl"},
    {"Kova.GetDateTimeReq", Answer::Response, "Kova.GetDateTimeResp"},
    {"Kova.SetDateTimeReq", Answer::Response, "Kova.SetDateTimeResp"},
    {"Kova.SetDateTimeMsg", Answer::Response, "Kova.SetDateTimeResp"},
    {"Kova.TransferFirmwareRequest", Answer::Response, "Kova.TransferFirmwareResponse"},
    {"Kova.FileAccessWriteResponse", Answer::None, ""},
    {"Kova.RsmUpdateRequest", Answer::Elsewhere, "Upgrade"},
    {"Kova.RadioWlanControlOutgoingMsg", Answer::Elsewhere, "Collaboration"},
    {"Kova.RadioLteControlOutgoing", Answer::Elsewhere, "Collaboration"},
    {"Kova.RadioWlanHotspotControlOutgoingMsg", Answer::Elsewhere, "Collaboration"},
    {"Kova.VideoControlRequest", Answer::Response, "Kova.VideoControlResponse"},
    {"Kova.VideoControlResponse", Answer::None, ""},
    {"Kova.VideoControlBroadcast", Answer::None, ""},
    {"Kova.FileHandleOpenResponse", Answer::None, ""},
    {"Kova.FileAccessCreateResponse", Answer::None, ""},
    {"Kova.UserPresenceInfoResponse", Answer::None, ""},
    {"Collaboration.IoTD2CDataMessage", Answer::None, ""},
    {"Collaboration.IoTRegistrationRequest", Answer::Elsewhere, "Collaboration"},
    {"Collaboration.IoTConnectionStatusQuery", Answer::Elsewhere, "Collaboration"},
});
static_assert(kAcceptedByKova.size() == 48);

inline constexpr auto kTopicsOfKova = std::to_array<std::string_view>({
    "Collaboration.RadioConnectionMsg",
    "Kova.BluetoothConfigMsg",
    "Kova.BluetoothStatusMsg",
    "Kova.FileAccessCreateRequest",
    "Kova.FileAccessWriteRequest",
    "Kova.FileAccessWriteSessionEnd",
    "Kova.FileHandleOpenRequest",
    "Kova.RTConnectionStatus",
    "MediaStreamNotification.InputNotification",
});

// Nothing known: nullptr.
constexpr const AcceptedType* FindAccepted(std::string_view type) {
  for (const AcceptedType& accepted : kAcceptedByKova) {
    if (accepted.type == type) {
      return &accepted;
    }
  }
  return nullptr;
}

}  // namespace zelt::cli
