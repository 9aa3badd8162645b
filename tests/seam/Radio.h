// The radio library as the service describes it, and no more. Its radio is there at once, and knows
// its version.
#pragma once

#include "Platform.h"

#include "Collaboration.pb.h"
#include "Kova.pb.h"
#include "MediaStreamNotification.pb.h"

#include <functional>
#include <memory>
#include <ostream>
#include <variant>
#include <vector>

namespace orka {

namespace qrx {

enum class Result : std::uint8_t { Success = 0 };
std::ostream& operator<<(std::ostream& stream, Result result);

struct FileAccessRequest {
  std::uint8_t operation = 0;
  std::uint32_t access_code = 0;
  std::uint32_t file_size = 0;
  std::string file_name;
};
struct FileAccessResponse {
  Result result = Result::Success;
  std::uint32_t file_size = 0;
  std::string file_name;
};
struct TransferDataRequest {
  std::uint16_t kind = 0;
  std::uint16_t chunk_number = 0;
  std::uint16_t data_size = 0;
};
struct TransferDataResponse {
  Result result = Result::Success;
  std::uint16_t chunk_number = 0;
};

using DeviceDescriptors = std::vector<std::pair<std::uint8_t, std::uint8_t>>;
void AddDeviceDescriptorsToProtoMsg(Collaboration::RadioConnectionMsg& message,
                                    const DeviceDescriptors& descriptors);

}  // namespace qrx

namespace pel {
struct BaseMessage {
  std::uint16_t address = 0;
  std::uint8_t kind = 0;
  std::uint8_t flags = 0;
  std::uint16_t source = 0;
  std::uint16_t destination = 0;
  std::uint16_t transaction = 0;
  std::uint16_t length = 0;
};
}  // namespace pel

inline constexpr std::uint64_t kFileHandleFailed = 0x0111849C;
struct FileHandleRespWrapper {
  std::uint16_t handle_id = 0;
  std::uint64_t status = 0;
  std::uint16_t attributes = 0;
  std::variant<std::monostate, std::string> data;
};

using RadioOutgoingMessage = std::variant<
    Collaboration::RadioEmergencyMsg, Collaboration::VideoTagControlReply, Kova::LocationInfoMsg,
    Kova::SerialNumberMsg, Kova::BtMacAddressMsg, Kova::ShutdownResponse, Kova::ShutdownRequest,
    Kova::AmbaUpdateStatus, Kova::FeedbackAction, Kova::ConfigurationSetMsg,
    Kova::ButtonsSubscribtionMsg, Kova::BluetoothConfigMsg, Kova::BluetoothStatusMsg,
    Kova::GattConfigMsg, Kova::LedBrightnessSettingMsg, Kova::ToggleCovertModeMsg,
    Kova::RadioStatusMsg, Kova::RadioWlanControlOutgoingMsg, Kova::BatteryLevelRequest,
    Kova::UsbRouteMsg, Kova::UsbStatus, Kova::RtFactoryResetRequest, Kova::OpcodeSubscriptionMsg,
    Kova::MicStatusMsg, Kova::GetDateTimeReq, Kova::SetDateTimeReq, Kova::FileAccessWriteResponse,
    Kova::FileAccessCreateResponse, Kova::RtDebugLogMsg, qrx::FileAccessRequest,
    qrx::TransferDataRequest, Kova::RsmUpdateRequest, Kova::RadioWlanHotspotControlOutgoingMsg,
    Kova::RadioLteControlOutgoing, Kova::VideoControlBroadcast, Kova::VideoControlRequest,
    Kova::VideoControlResponse, FileHandleRespWrapper, Kova::RtVersionRequest,
    Kova::HardwareIdRequest, Kova::UserPresenceInfoResponse, Collaboration::IoTRegistrationRequest,
    Collaboration::IoTConnectionStatusQuery, Collaboration::IoTD2CDataMessage>;

using RadioNotificationData = std::variant<
    std::string, MediaStreamNotification::InputNotification, Collaboration::RadioEmergencyMsg,
    Collaboration::RadioConnectionMsg, Collaboration::VideoTagControlRequest,
    Kova::OpcodeSubscriptionMsg, Kova::ShutdownRequest, Kova::ShutdownResponse,
    Kova::RtVersionResponse, Kova::HardwareIdResponse, Kova::SerialNumberMsg, Kova::BtMacAddressMsg,
    Kova::ConfigurationSetMsg, Kova::ButtonsSubscribtionMsg, Kova::BluetoothConfigMsg,
    Kova::BluetoothStatusMsg, Kova::GattConfigMsg, Kova::LedBrightnessSettingMsg,
    Kova::ToggleCovertModeMsg, Kova::RadioStatusMsg, Kova::LocationInfoMsg,
    Kova::RadioWlanControlIncomingMsg, Kova::UsbRouteMsg, Kova::RtFactoryResetResponse,
    Kova::BatteryLevel, Kova::MicStatusMsg, Kova::GetDateTimeResp, Kova::SetDateTimeResp,
    Kova::FileAccessWriteRequest, Kova::FileAccessWriteSessionEnd, Kova::FileAccessCreateRequest,
    Kova::RtDebugLogMsg, qrx::FileAccessResponse, qrx::TransferDataResponse,
    Kova::RsmUpdateResponse, Kova::RadioLuiError, Kova::RadioWlanHotspotControlIncomingMsg,
    Kova::RadioLteControlIncoming, Kova::VideoControlRequest, Kova::VideoControlResponse,
    Kova::FileHandleOpenRequest, Kova::UserPresenceInfoRequest, Collaboration::IoTC2DDataMessage,
    Collaboration::IoTRegistrationResponse, Collaboration::IoTConnectionStatus>;

// From 0 on.
// clang-format off: as a text
enum class NotifyMessage : std::uint32_t {
  RadioConnected, HandshakeCompleted, RadioConnection, ConnectionLost, RadioEmergency,
  HandshakeFailed, ShutdownRequest, ShutdownResponse, LocationInfo, RtVersion, HardwareId,
  SerialNumber, BtMacAddress, Docking, ButtonsSubscribtion, ConfigurationSet, PhysicalUserInput,
  BluetoothConfig, BluetoothStatus, LedBrightness, FactoryResetAccepted, GattConfig,
  BatteryLevelResponse, BatteryLevelBroadcast, CovertModeResponse, CovertModeBroadcast,
  UsbStatusRequest, RadioStatusRequest, WlanControl, UsbRouteRequest, WlanHotspotControl,
  MicStatus, FactoryReset, OpcodeSubscription, GetDateTime, SetDateTime, VideoTagControlRequest,
  RsmUpdate, FileAccessWriteRequest, FileAccessWriteSessionEnd, FileAccessCreateRequest,
  FileAccess, TransferDataRequest, TransferData, UpgradeInProcess, DebugLog, LuiError, IgFailed,
  LteStatus, VideoControlRequest, VideoControlResponse, FileHandleOpenRequest,
  UserPresenceInfoRequest, IoTC2DData, IoTRegistration, IoTConnectionStatus
};
// clang-format on

struct SocketSettings {
  std::string address;
  std::uint32_t port = 0;
};
struct UartSettings {
  std::string device;
  std::uint32_t baud_rate = 0, stop_bits = 0, data_bits = 0, parity = 0, flow_control = 0,
                read_timeout = 0;
  bool modem_control = false, exclusive = false;
};
enum class SendResult { Sent };

class RadioProtocol {
 public:
  using NotificationCallback = std::function<void(NotifyMessage, RadioNotificationData)>;
  RadioProtocol(std::shared_ptr<zelt::ServiceModel> model, const std::string& version,
                const std::string& productId);
  virtual ~RadioProtocol() = default;
  bool StartSocket(const SocketSettings& settings, std::uint32_t linkAddress,
                   std::uint32_t handshakeTimeout);
  bool StartUart(const UartSettings& settings, std::uint32_t linkAddress,
                 std::uint32_t handshakeTimeout);
  void Stop();
  void RegisterCallback(NotificationCallback callback) { callback_ = std::move(callback); }
  SendResult SendToRadio(const RadioOutgoingMessage& message, std::uint32_t selector);
  SendResult SendTransferData(const qrx::TransferDataRequest& request, std::uint32_t selector,
                              std::unique_ptr<std::vector<std::uint8_t>> data);
  std::uint16_t GetMaxTransferDataSize() { return 1024; }
  void SetIdentifyAsCamera(bool identifyAsCamera);
  void SetUseTetheredConnection(bool useTetheredConnection);
  FileHandleRespWrapper MakeFileHandleResponse(const Kova::FileHandleOpenResponse&) { return {}; }
  qrx::DeviceDescriptors GetDeviceDescriptors() { return {}; }
  bool IsRadioConnected() { return connected_; }
  void HoldReceiving() {}
  void ContinueReceiving() {}
  static constexpr std::size_t kSendOverhead = 0;
  std::size_t GetSendRoom() { return SIZE_MAX; }
  std::pair<bool, std::vector<std::uint8_t>> InjectQRXMessage(gsl::span<const std::uint8_t>,
                                                              const pel::BaseMessage&) {
    return {};
  }

 private:
  const std::string version_;
  NotificationCallback callback_;
  bool connected_ = false;
};

}  // namespace orka
