#pragma once

#include "orka/NotifyMessage.h"
#include "orka/RadioMessages.h"
#include "orka/codec/Conversions.h"
#include "orka/pel.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <variant>

// Every message of the link, once. The camera's encoder and decoder, the simulated radio, the
// document and the tests read this table.
namespace orka::codec {

enum class Direction : std::uint8_t { ToRadio, FromRadio };

enum class Body : std::uint8_t {
  Protobuf,   // the message's protobuf bytes
  Converted,  // the same, with the radio's codes in place of names (see Conversions.h)
  Record,     // packed big-endian
  Raw,        // bytes without a meaning here
};

inline constexpr auto kNoNotification = static_cast<NotifyMessage>(UINT32_MAX);

// A response has the opcode of its request with this added.
inline constexpr std::uint16_t kResponseBit = 0x8000;

// A message is found by direction, opcode and kind of frame.
struct MessageRow {
  Direction direction;
  std::uint16_t opcode;
  pel::FrameKind kind;
  std::string_view name;     // unique in its direction
  std::uint8_t alternative;  // in RadioOutgoingMessage or RadioNotificationData
  std::string_view type;     // of that alternative
  Body body;
  NotifyMessage notify;       // FromRadio only
  std::uint8_t message_case;  // ToRadio: the case of the message that goes as this row; 0: any
};

namespace table {

template <class T, class... Ts>
constexpr std::uint8_t IndexOf(const std::variant<Ts...>* /*type only*/) {
  const std::array matches = {std::is_same_v<T, Ts>...};
  return static_cast<std::uint8_t>(std::ranges::find(matches, true) - matches.begin());
}

template <class T>
constexpr Body BodyOf() {
  if constexpr (std::is_same_v<T, std::string>) {
    return Body::Raw;
  } else if constexpr (Converted<T>) {
    return Body::Converted;
  } else if constexpr (std::is_base_of_v<google::protobuf::MessageLite, T>) {
    return Body::Protobuf;
  } else {
    return Body::Record;
  }
}

// Gives "Kova::RtVersionRequest", "bytes", ...
template <class T>
constexpr std::string_view TypeName() {
  if constexpr (std::is_same_v<T, std::string>) {
    return "bytes";
  } else {
    const std::string_view function = __PRETTY_FUNCTION__;
    const std::size_t begin = function.find("T = ") + 4;
    return function.substr(begin, function.find_first_of(";]", begin) - begin);
  }
}

template <class T>
constexpr MessageRow ToRadio(std::uint16_t opcode, pel::FrameKind kind, std::string_view name,
                             std::uint8_t message_case = 0) {
  return {Direction::ToRadio,
          opcode,
          kind,
          name,
          IndexOf<T>(static_cast<const RadioOutgoingMessage*>(nullptr)),
          TypeName<T>(),
          BodyOf<T>(),
          kNoNotification,
          message_case};
}
template <class T>
constexpr MessageRow FromRadio(std::uint16_t opcode, pel::FrameKind kind, std::string_view name,
                               NotifyMessage notify) {
  return {Direction::FromRadio,
          opcode,
          kind,
          name,
          IndexOf<T>(static_cast<const RadioNotificationData*>(nullptr)),
          TypeName<T>(),
          BodyOf<T>(),
          notify,
          0};
}

constexpr auto kRequest = pel::FrameKind::Request;
constexpr auto kResponse = pel::FrameKind::Response;
constexpr auto kBroadcast = pel::FrameKind::Broadcast;
using N = NotifyMessage;

}  // namespace table

// Sorted by direction, opcode and kind. Where a type has several rows to the radio, the case of
// the message chooses; a message of no or another case goes as the first of them, and the radio
// judges it.
// clang-format off: one line a message
inline constexpr auto kMessageTable = std::to_array<MessageRow>({
    table::ToRadio<Kova::LocationInfoMsg>(0x000F, table::kRequest, "LocationRequest", 1),
    table::ToRadio<Collaboration::RadioEmergencyMsg>(0x0011, table::kRequest, "EmergencyRequest"),
    table::ToRadio<Kova::RtVersionRequest>(0x0401, table::kRequest, "RtVersionRequest"),
    table::ToRadio<Kova::HardwareIdRequest>(0x0402, table::kRequest, "HardwareIdRequest"),
    table::ToRadio<Kova::ShutdownRequest>(0x0405, table::kRequest, "ShutdownRequest"),
    table::ToRadio<Kova::FeedbackAction>(0x0408, table::kRequest, "FeedbackAction"),
    table::ToRadio<Kova::SerialNumberMsg>(0x0409, table::kRequest, "SerialNumberRequest", 1),
    table::ToRadio<Kova::BtMacAddressMsg>(0x040C, table::kRequest, "BtMacAddressRequest", 1),
    table::ToRadio<Kova::BatteryLevelRequest>(0x0413, table::kRequest, "BatteryLevelRequest"),
    table::ToRadio<Kova::ConfigurationSetMsg>(0x0420, table::kRequest, "ConfigurationSetRequest"),
    table::ToRadio<Kova::ButtonsSubscribtionMsg>(0x0421, table::kRequest, "ButtonsSubscribtionRequest"),
    table::ToRadio<Kova::LedBrightnessSettingMsg>(0x0422, table::kRequest, "LedBrightnessRequest"),
    table::ToRadio<Kova::BluetoothConfigMsg>(0x0431, table::kRequest, "BluetoothConfigRequest"),
    table::ToRadio<Kova::BluetoothStatusMsg>(0x0432, table::kRequest, "BluetoothStatusRequest"),
    table::ToRadio<Kova::GattConfigMsg>(0x0433, table::kRequest, "GattConfigGetRequest", 1),
    table::ToRadio<Kova::GattConfigMsg>(0x0434, table::kRequest, "GattConfigSetRequest", 4),
    table::ToRadio<Kova::GattConfigMsg>(0x0435, table::kRequest, "GattConfigResetRequest", 6),
    table::ToRadio<Kova::RadioWlanControlOutgoingMsg>(0x0479, table::kRequest, "WlanControlRequest"),
    table::ToRadio<Kova::RadioWlanHotspotControlOutgoingMsg>(0x047A, table::kRequest, "WlanHotspotControlRequest"),
    table::ToRadio<Kova::ToggleCovertModeMsg>(0x047F, table::kRequest, "CovertModeRequest"),
    table::ToRadio<Kova::RtFactoryResetRequest>(0x0483, table::kRequest, "FactoryResetRequest"),
    table::ToRadio<Kova::OpcodeSubscriptionMsg>(0x0484, table::kRequest, "OpcodeSubscriptionRequest"),
    table::ToRadio<Kova::MicStatusMsg>(0x0486, table::kRequest, "MicStatusRequest", 1),
    table::ToRadio<Kova::GetDateTimeReq>(0x0487, table::kRequest, "GetDateTimeRequest"),
    table::ToRadio<Kova::SetDateTimeReq>(0x0488, table::kRequest, "SetDateTimeRequest"),
    table::ToRadio<Kova::RtDebugLogMsg>(0x048C, table::kRequest, "DebugLogRequest"),
    table::ToRadio<qrx::FileAccessRequest>(0x048D, table::kRequest, "FileAccessRequest"),
    table::ToRadio<qrx::TransferDataRequest>(0x048E, table::kRequest, "TransferDataRequest"),
    table::ToRadio<Kova::RsmUpdateRequest>(0x048F, table::kRequest, "RsmUpdateRequest"),
    table::ToRadio<Kova::VideoControlRequest>(0x0498, table::kRequest, "VideoControlRequest"),
    table::ToRadio<Kova::RadioLteControlOutgoing>(0x049B, table::kRequest, "LteControlRequest"),
    table::ToRadio<Collaboration::IoTRegistrationRequest>(0x04A0, table::kRequest, "IoTRegistrationRequest"),
    table::ToRadio<Collaboration::IoTConnectionStatusQuery>(0x04A1, table::kRequest, "IoTConnectionStatusQuery"),
    table::ToRadio<Kova::ShutdownResponse>(0x8405, table::kResponse, "ShutdownResponse"),
    table::ToRadio<Kova::SerialNumberMsg>(0x8409, table::kResponse, "SerialNumberResponse", 2),
    table::ToRadio<Kova::BtMacAddressMsg>(0x840C, table::kResponse, "BtMacAddressResponse", 2),
    table::ToRadio<Kova::RadioStatusMsg>(0x8480, table::kResponse, "RadioStatusResponse", 2),
    table::ToRadio<Kova::UsbRouteMsg>(0x8481, table::kResponse, "UsbRouteResponse"),
    table::ToRadio<Kova::MicStatusMsg>(0x8486, table::kResponse, "MicStatusResponse", 2),
    table::ToRadio<Kova::FileAccessWriteResponse>(0x8489, table::kResponse, "FileAccessWriteResponse"),
    table::ToRadio<Kova::FileAccessCreateResponse>(0x848B, table::kResponse, "FileAccessCreateResponse"),
    table::ToRadio<Collaboration::VideoTagControlReply>(0x8497, table::kResponse, "VideoTagControlReply"),
    table::ToRadio<Kova::VideoControlResponse>(0x8498, table::kResponse, "VideoControlResponse"),
    table::ToRadio<Kova::UserPresenceInfoResponse>(0x849A, table::kResponse, "UserPresenceInfoResponse"),
    table::ToRadio<FileHandleRespWrapper>(0x849E, table::kResponse, "FileHandleOpenResponse"),
    table::ToRadio<Kova::AmbaUpdateStatus>(0xB407, table::kBroadcast, "AmbaUpdateStatus"),
    table::ToRadio<Kova::GattConfigMsg>(0xB436, table::kBroadcast, "GattConfigNotification", 7),
    table::ToRadio<Kova::RadioStatusMsg>(0xB480, table::kBroadcast, "RadioStatusBroadcast", 3),
    table::ToRadio<Kova::UsbStatus>(0xB482, table::kBroadcast, "UsbStatus"),
    table::ToRadio<Kova::MicStatusMsg>(0xB486, table::kBroadcast, "MicStatusBroadcast", 3),
    table::ToRadio<Kova::VideoControlBroadcast>(0xB498, table::kBroadcast, "VideoControlBroadcast"),
    table::ToRadio<Collaboration::IoTD2CDataMessage>(0xB4A2, table::kBroadcast, "IoTD2CData"),

    table::FromRadio<Kova::LocationInfoMsg>(0x000F, table::kBroadcast, "LocationBroadcast", table::N::LocationInfo),
    table::FromRadio<Collaboration::RadioEmergencyMsg>(0x0011, table::kBroadcast, "EmergencyBroadcast", table::N::RadioEmergency),
    table::FromRadio<Kova::ShutdownRequest>(0x0405, table::kRequest, "ShutdownRequest", table::N::ShutdownRequest),
    table::FromRadio<Kova::SerialNumberMsg>(0x0409, table::kRequest, "SerialNumberRequest", table::N::SerialNumber),
    table::FromRadio<Kova::BtMacAddressMsg>(0x040C, table::kRequest, "BtMacAddressRequest", table::N::BtMacAddress),
    table::FromRadio<Kova::RadioStatusMsg>(0x0480, table::kRequest, "RadioStatusRequest", table::N::RadioStatusRequest),
    table::FromRadio<Kova::UsbRouteMsg>(0x0481, table::kRequest, "UsbRouteRequest", table::N::UsbRouteRequest),
    table::FromRadio<std::string>(0x0482, table::kRequest, "UsbStatusRequest", table::N::UsbStatusRequest),
    table::FromRadio<Kova::MicStatusMsg>(0x0486, table::kRequest, "MicStatusRequest", table::N::MicStatus),
    table::FromRadio<Kova::FileAccessWriteRequest>(0x0489, table::kRequest, "FileAccessWriteRequest", table::N::FileAccessWriteRequest),
    table::FromRadio<Kova::FileAccessCreateRequest>(0x048B, table::kRequest, "FileAccessCreateRequest", table::N::FileAccessCreateRequest),
    table::FromRadio<std::string>(0x048E, table::kRequest, "TransferDataRequest", table::N::TransferDataRequest),
    table::FromRadio<Collaboration::VideoTagControlRequest>(0x0497, table::kRequest, "VideoTagControlRequest", table::N::VideoTagControlRequest),
    table::FromRadio<Kova::VideoControlRequest>(0x0498, table::kRequest, "VideoControlRequest", table::N::VideoControlRequest),
    table::FromRadio<Kova::UserPresenceInfoRequest>(0x049A, table::kRequest, "UserPresenceInfoRequest", table::N::UserPresenceInfoRequest),
    table::FromRadio<Kova::FileHandleOpenRequest>(0x049E, table::kRequest, "FileHandleOpenRequest", table::N::FileHandleOpenRequest),
    table::FromRadio<Kova::LocationInfoMsg>(0x800F, table::kResponse, "LocationResponse", table::N::LocationInfo),
    table::FromRadio<Collaboration::RadioEmergencyMsg>(0x8011, table::kResponse, "EmergencyResponse", table::N::RadioEmergency),
    table::FromRadio<Kova::RtVersionResponse>(0x8401, table::kResponse, "RtVersionResponse", table::N::RtVersion),
    table::FromRadio<Kova::HardwareIdResponse>(0x8402, table::kResponse, "HardwareIdResponse", table::N::HardwareId),
    table::FromRadio<Kova::ShutdownResponse>(0x8405, table::kResponse, "ShutdownResponse", table::N::ShutdownResponse),
    table::FromRadio<Kova::SerialNumberMsg>(0x8409, table::kResponse, "SerialNumberResponse", table::N::SerialNumber),
    table::FromRadio<Kova::BtMacAddressMsg>(0x840C, table::kResponse, "BtMacAddressResponse", table::N::BtMacAddress),
    table::FromRadio<Kova::BatteryLevel>(0x8413, table::kResponse, "BatteryLevelResponse", table::N::BatteryLevelResponse),
    table::FromRadio<Kova::ConfigurationSetMsg>(0x8420, table::kResponse, "ConfigurationSetResponse", table::N::ConfigurationSet),
    table::FromRadio<Kova::ButtonsSubscribtionMsg>(0x8421, table::kResponse, "ButtonsSubscribtionResponse", table::N::ButtonsSubscribtion),
    table::FromRadio<Kova::LedBrightnessSettingMsg>(0x8422, table::kResponse, "LedBrightnessResponse", table::N::LedBrightness),
    table::FromRadio<Kova::BluetoothConfigMsg>(0x8431, table::kResponse, "BluetoothConfigResponse", table::N::BluetoothConfig),
    table::FromRadio<Kova::BluetoothStatusMsg>(0x8432, table::kResponse, "BluetoothStatusResponse", table::N::BluetoothStatus),
    table::FromRadio<Kova::GattConfigMsg>(0x8433, table::kResponse, "GattConfigGetResponse", table::N::GattConfig),
    table::FromRadio<Kova::GattConfigMsg>(0x8434, table::kResponse, "GattConfigSetResponse", table::N::GattConfig),
    table::FromRadio<Kova::GattConfigMsg>(0x8435, table::kResponse, "GattConfigResetResponse", table::N::GattConfig),
    table::FromRadio<Kova::RadioWlanControlIncomingMsg>(0x8479, table::kResponse, "WlanControlResponse", table::N::WlanControl),
    table::FromRadio<Kova::RadioWlanHotspotControlIncomingMsg>(0x847A, table::kResponse, "WlanHotspotControlResponse", table::N::WlanHotspotControl),
    table::FromRadio<Kova::ToggleCovertModeMsg>(0x847F, table::kResponse, "CovertModeResponse", table::N::CovertModeResponse),
    table::FromRadio<Kova::RtFactoryResetResponse>(0x8483, table::kResponse, "FactoryResetResponse", table::N::FactoryReset),
    table::FromRadio<Kova::OpcodeSubscriptionMsg>(0x8484, table::kResponse, "OpcodeSubscriptionResponse", table::N::OpcodeSubscription),
    table::FromRadio<Kova::MicStatusMsg>(0x8486, table::kResponse, "MicStatusResponse", table::N::MicStatus),
    table::FromRadio<Kova::GetDateTimeResp>(0x8487, table::kResponse, "GetDateTimeResponse", table::N::GetDateTime),
    table::FromRadio<Kova::SetDateTimeResp>(0x8488, table::kResponse, "SetDateTimeResponse", table::N::SetDateTime),
    table::FromRadio<Kova::RtDebugLogMsg>(0x848C, table::kResponse, "DebugLogResponse", table::N::DebugLog),
    table::FromRadio<qrx::FileAccessResponse>(0x848D, table::kResponse, "FileAccessResponse", table::N::FileAccess),
    table::FromRadio<qrx::TransferDataResponse>(0x848E, table::kResponse, "TransferDataResponse", table::N::TransferData),
    table::FromRadio<Kova::RsmUpdateResponse>(0x848F, table::kResponse, "RsmUpdateResponse", table::N::RsmUpdate),
    table::FromRadio<Kova::VideoControlResponse>(0x8498, table::kResponse, "VideoControlResponse", table::N::VideoControlResponse),
    table::FromRadio<Kova::RadioLteControlIncoming>(0x849B, table::kResponse, "LteStatusResponse", table::N::LteStatus),
    table::FromRadio<Collaboration::IoTRegistrationResponse>(0x84A0, table::kResponse, "IoTRegistrationResponse", table::N::IoTRegistration),
    table::FromRadio<Collaboration::IoTConnectionStatus>(0x84A1, table::kResponse, "IoTConnectionStatusResponse", table::N::IoTConnectionStatus),
    table::FromRadio<Collaboration::RadioConnectionMsg>(0xB403, table::kBroadcast, "RadioConnection", table::N::RadioConnection),
    table::FromRadio<std::string>(0xB404, table::kBroadcast, "UpgradeInProcess", table::N::UpgradeInProcess),
    table::FromRadio<std::string>(0xB406, table::kBroadcast, "IgFailed", table::N::IgFailed),
    table::FromRadio<MediaStreamNotification::InputNotification>(0xB40A, table::kBroadcast, "Docking", table::N::Docking),
    table::FromRadio<MediaStreamNotification::InputNotification>(0xB40B, table::kBroadcast, "PhysicalUserInput", table::N::PhysicalUserInput),
    table::FromRadio<Kova::BatteryLevel>(0xB413, table::kBroadcast, "BatteryLevelBroadcast", table::N::BatteryLevelBroadcast),
    table::FromRadio<Kova::BluetoothConfigMsg>(0xB431, table::kBroadcast, "BluetoothConfigBroadcast", table::N::BluetoothConfig),
    table::FromRadio<Kova::BluetoothStatusMsg>(0xB432, table::kBroadcast, "BluetoothStatusBroadcast", table::N::BluetoothStatus),
    table::FromRadio<Kova::GattConfigMsg>(0xB433, table::kBroadcast, "GattConfigBroadcast", table::N::GattConfig),
    table::FromRadio<Kova::RadioWlanControlIncomingMsg>(0xB479, table::kBroadcast, "WlanStatusBroadcast", table::N::WlanControl),
    table::FromRadio<Kova::RadioWlanHotspotControlIncomingMsg>(0xB47A, table::kBroadcast, "WlanHotspotStatusBroadcast", table::N::WlanHotspotControl),
    table::FromRadio<Kova::ToggleCovertModeMsg>(0xB47F, table::kBroadcast, "CovertModeBroadcast", table::N::CovertModeBroadcast),
    table::FromRadio<std::string>(0xB483, table::kBroadcast, "FactoryResetAccepted", table::N::FactoryResetAccepted),
    table::FromRadio<Kova::RadioLuiError>(0xB485, table::kBroadcast, "LuiError", table::N::LuiError),
    table::FromRadio<Kova::MicStatusMsg>(0xB486, table::kBroadcast, "MicStatusBroadcast", table::N::MicStatus),
    table::FromRadio<Kova::FileAccessWriteSessionEnd>(0xB48A, table::kBroadcast, "FileAccessWriteSessionEnd", table::N::FileAccessWriteSessionEnd),
    table::FromRadio<Kova::RsmUpdateResponse>(0xB48F, table::kBroadcast, "RsmUpdateProgress", table::N::RsmUpdate),
    table::FromRadio<Kova::RadioLteControlIncoming>(0xB49B, table::kBroadcast, "LteStatusBroadcast", table::N::LteStatus),
    table::FromRadio<Collaboration::IoTConnectionStatus>(0xB4A1, table::kBroadcast, "IoTConnectionStatusBroadcast", table::N::IoTConnectionStatus),
    table::FromRadio<Collaboration::IoTC2DDataMessage>(0xB4A3, table::kBroadcast, "IoTC2DData", table::N::IoTC2DData),
});
// clang-format on

// Returns the row of a frame, or nothing when the opcode is unknown.
constexpr const MessageRow* FindRow(Direction direction, std::uint16_t opcode,
                                    pel::FrameKind kind) {
  const auto key = [](const MessageRow& row) {
    return std::tuple(row.direction, row.opcode, row.kind);
  };
  const auto* row =
      std::ranges::lower_bound(kMessageTable, std::tuple(direction, opcode, kind), {}, key);
  return row != kMessageTable.end() && key(*row) == std::tuple(direction, opcode, kind) ? row
                                                                                        : nullptr;
}

constexpr const MessageRow* FindRow(Direction direction, std::string_view name) {
  const auto* row = std::ranges::find_if(kMessageTable, [&](const MessageRow& candidate) {
    return candidate.direction == direction && candidate.name == name;
  });
  return row != kMessageTable.end() ? row : nullptr;
}

namespace table {

constexpr bool IsStrictlySorted() {
  return std::ranges::adjacent_find(kMessageTable, [](const auto& a, const auto& b) {
           return std::tuple(a.direction, a.opcode, a.kind) >=
                  std::tuple(b.direction, b.opcode, b.kind);
         }) == kMessageTable.end();
}

constexpr bool NamesAreUnique() {
  return std::ranges::all_of(kMessageTable, [](const MessageRow& row) {
    return FindRow(row.direction, row.name) == &row;
  });
}

// Each alternative has a row, and no row has an alternative that its union does not hold. The
// plain string is no message: it stands for a body that is not read.
constexpr bool AlternativesAreComplete(Direction direction, std::size_t count) {
  for (std::size_t alternative = 0; alternative < count; ++alternative) {
    if (std::ranges::none_of(kMessageTable, [&](const MessageRow& row) {
          return row.direction == direction && row.alternative == alternative;
        })) {
      return false;
    }
  }
  return std::ranges::all_of(kMessageTable, [&](const MessageRow& row) {
    return row.direction != direction || row.alternative < count;
  });
}

constexpr std::uint32_t LastKind() {
  std::uint32_t last = 0;
  for (const MessageRow& row : kMessageTable) {
    if (row.notify != kNoNotification) {
      last = std::max(last, static_cast<std::uint32_t>(row.notify));
    }
  }
  return last;
}

// Each kind that is no event of the link itself has a row, and one alternative only.
constexpr bool NotificationsAreComplete() {
  for (std::uint32_t kind = 0; kind <= LastKind(); ++kind) {
    const auto notify = static_cast<NotifyMessage>(kind);
    const bool of_the_link = notify == N::RadioConnected || notify == N::HandshakeCompleted ||
                             notify == N::ConnectionLost || notify == N::HandshakeFailed;
    int alternative = -1;
    for (const MessageRow& row : kMessageTable) {
      if (row.notify != notify) {
        continue;
      }
      if (alternative >= 0 && alternative != row.alternative) {
        return false;
      }
      alternative = row.alternative;
    }
    if (of_the_link == (alternative >= 0)) {
      return false;
    }
  }
  return true;
}

// Requests are 0x0xxx, responses 0x8xxx, broadcasts 0xBxxx; but below 0x0100 a broadcast has the
// opcode of the request for the same thing.
constexpr bool OpcodesFollowTheirKind() {
  return std::ranges::all_of(kMessageTable, [](const MessageRow& row) {
    const unsigned block = row.opcode & 0xF000U;
    switch (row.kind) {
      case pel::FrameKind::Request:
        return block == 0;
      case pel::FrameKind::Response:
        return block == kResponseBit;
      case pel::FrameKind::Broadcast:
        return block == 0xB000 || row.opcode < 0x0100;
      default:
        return false;
    }
  });
}

static_assert(IsStrictlySorted(), "sort by direction, opcode and kind; each only once");
static_assert(NamesAreUnique());
static_assert(AlternativesAreComplete(Direction::ToRadio,
                                      std::variant_size_v<RadioOutgoingMessage>));
static_assert(AlternativesAreComplete(Direction::FromRadio,
                                      std::variant_size_v<RadioNotificationData>));
static_assert(NotificationsAreComplete());
static_assert(OpcodesFollowTheirKind());

}  // namespace table
}  // namespace orka::codec
