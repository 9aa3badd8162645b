// Every notification of the radio, the payload that it must carry, and the handler that it goes to.

#include "HandlerSignature.h"
#include "KovaContext.h"
#include "Log.h"

#include <algorithm>
#include <array>
#include <limits>
#include <ranges>
#include <type_traits>
#include <variant>

namespace zelt {

struct Dispatch {
  using Context = KovaContext;
  using Data = orka::RadioNotificationData;
  using N = orka::NotifyMessage;

  static constexpr std::size_t kNotRead = std::numeric_limits<std::size_t>::max();

  struct Row {
    N kind;
    std::size_t alternative;             // of the payload; kNotRead: whatever it is
    int level;                           // of `text`
    const char* text;                    // logged on arrival; nullptr: nothing is
    void (*post)(KovaContext&, Data&&);  // queues the handler; nullptr: there is none
  };

  // The alternative that holds a T; one past the last when none does.
  template <class T, class... Ts>
  static constexpr std::size_t IndexOf(const std::variant<Ts...>* /*type only*/) {
    constexpr std::array kMatches = {std::is_same_v<T, Ts>...};
    return static_cast<std::size_t>(std::ranges::find(kMatches, true) - kMatches.begin());
  }

  // Returns what a payload takes beside its record.
  static std::size_t Bytes(const google::protobuf::MessageLite& message) {
    return message.ByteSizeLong();
  }
  static std::size_t Bytes(const orka::qrx::FileAccessResponse& response) {
    return response.file_name.size();
  }
  static std::size_t Bytes(const orka::qrx::TransferDataResponse&) { return 0; }

  // Queues the handler with the payload, which must be of the alternative.
  template <std::size_t alternative, auto handler>
  static void PostWithPayload(KovaContext& context, Data&& data) {
    auto message = std::get<alternative>(std::move(data));
    const std::size_t bytes = Bytes(message);
    context.PushFromRadio([&context, message = std::move(message)] { (context.*handler)(message); },
                          bytes);
  }

  template <auto handler>
  static void PostLinkEvent(KovaContext& context, Data&&) {
    context.PushFromRadio(context.LinkEvent([&context] { (context.*handler)(); }), 0);
  }

  static void PostRadioConnected(KovaContext& context, Data&&) {
    Collaboration::RadioConnectionMsg message;
    message.set_connected(true);
    message.set_link_connected(false);
    context.PushFromRadio([&context, message] { context.HandleRadioConnection(message); }, 0);
  }

  // The payload is what the handler takes.
  template <auto handler>
  static constexpr Row To(N kind, const char* text = nullptr) {
    constexpr std::size_t kAlternative =
        IndexOf<typename HandlerSignature<decltype(handler)>::Message>(
            static_cast<const Data*>(nullptr));
    static_assert(kAlternative < std::variant_size_v<Data>, "no notification carries that");
    return {kind, kAlternative, kLogInfo, text, &PostWithPayload<kAlternative, handler>};
  }
  // What the link itself reports: not handled any more once the link has been stopped.
  template <auto handler>
  static constexpr Row Event(N kind) {
    return {kind, kNotRead, kLogInfo, nullptr, &PostLinkEvent<handler>};
  }
  static constexpr Row RadioConnected() {
    return {N::RadioConnected, kNotRead, kLogInfo, nullptr, &PostRadioConnected};
  }
  static constexpr Row LoggedOnly(N kind, int level, const char* text) {
    return {kind, kNotRead, level, text, nullptr};
  }

  static constexpr auto Rows();
};

// clang-format off: one line a row
constexpr auto Dispatch::Rows() {
  return std::to_array<Row>({
      RadioConnected(),
      Event<&Context::HandleRtHandshakeCompleted>(N::HandshakeCompleted),
      To<&Context::HandleRadioConnection>(N::RadioConnection),
      Event<&Context::HandleConnectionIsLost>(N::ConnectionLost),
      To<&Context::HandleRadioEmergencyResponse>(N::RadioEmergency),
      Event<&Context::HandleRtHandshakeFailed>(N::HandshakeFailed),
      To<&Context::HandleShutdownRequest>(N::ShutdownRequest),
      To<&Context::HandleShutdownResponse>(N::ShutdownResponse),
      To<&Context::HandleLocationInformationIncoming>(N::LocationInfo),
      To<&Context::HandleRtVersionResponse>(N::RtVersion),
      To<&Context::HandleHardwareIdResponse>(N::HardwareId),
      To<&Context::HandleSerialNumberIncomingMsg>(N::SerialNumber),
      To<&Context::HandleBtMacAddrIncomingMsg>(N::BtMacAddress),
      To<&Context::HandleDockingNotification>(N::Docking),
      To<&Context::HandleButtonsSubscribtionResponse>(N::ButtonsSubscribtion),
      To<&Context::HandleConfigurationSetResponse>(N::ConfigurationSet),
      To<&Context::HandlePhysicalUserInput>(N::PhysicalUserInput),
      To<&Context::HandleBluetoothConfigIncommingMsg>(N::BluetoothConfig),
      To<&Context::HandleBluetoothStatusIncommingMsg>(N::BluetoothStatus),
      To<&Context::HandleLedBrightnessSettingResponse>(N::LedBrightness),
      LoggedOnly(N::FactoryResetAccepted, kLogInfo, "Got Factory Reset response notification"),
      To<&Context::HandleGattConfigIncommingMsg>(N::GattConfig),
      To<&Context::HandleBatteryLevel>(N::BatteryLevelResponse),
      To<&Context::HandleBatteryLevel>(N::BatteryLevelBroadcast),
      To<&Context::HandleSetCovertModeResponse>(N::CovertModeResponse),
      To<&Context::HandleSetCovertModeBroadcast>(N::CovertModeBroadcast),
      LoggedOnly(N::UsbStatusRequest, kLogInfo, "Got USB Status request notification"),
      To<&Context::HandleRadioStatusRequest>(N::RadioStatusRequest),
      To<&Context::HandleWlanControlIncomingMsg>(N::WlanControl),
      To<&Context::HandleUsbRouteRequest>(N::UsbRouteRequest),
      To<&Context::HandleWlanHotspotControlIncomingMsg>(N::WlanHotspotControl),
      To<&Context::HandleMicStatusResponse>(N::MicStatus),
      To<&Context::HandleRtFactoryResetResponse>(N::FactoryReset),
      To<&Context::HandleOpcodeSubscriptionResponse>(N::OpcodeSubscription),
      To<&Context::HandleGetDateTimeResponse>(N::GetDateTime),
      To<&Context::HandleSetDateTimeResponse>(N::SetDateTime),
      To<&Context::HandleVideoTagControlRequest>(N::VideoTagControlRequest),
      To<&Context::HandleRsmUpdateResponse>(N::RsmUpdate),
      To<&Context::HandleFileAccessWriteRequest>(N::FileAccessWriteRequest),
      To<&Context::HandleFileAccessWriteSessionEnd>(N::FileAccessWriteSessionEnd),
      To<&Context::HandleFileAccessCreateRequest>(N::FileAccessCreateRequest),
      To<&Context::HandleFileAccessResponse>(N::FileAccess),
      LoggedOnly(N::TransferDataRequest, kLogDebug, "Got Transfer Data request notification"),
      To<&Context::HandleTransferDataResponse>(N::TransferData),
      Event<&Context::HandleRtUpgradeInProcess>(N::UpgradeInProcess),
      To<&Context::HandleRtDebugLogResponse>(N::DebugLog),
      To<&Context::HandleRadioLuiError>(N::LuiError),
      Event<&Context::HandleIgFailed>(N::IgFailed),
      To<&Context::HandleLteStatusIncomingMsg>(N::LteStatus),
      To<&Context::HandleRadioVideoControlRequest>(N::VideoControlRequest),
      To<&Context::HandleRadioVideoControlResponse>(N::VideoControlResponse),
      To<&Context::HandleFileHandleOpenRequest>(N::FileHandleOpenRequest),
      To<&Context::HandleUserPresenceInfoRequest>(N::UserPresenceInfoRequest, "Event User Presence Info Request"),
      To<&Context::HandleIoTC2DDataMessage>(N::IoTC2DData, "Event IoT C2D Data Message Incoming"),
      To<&Context::HandleIoTRegisterResponse>(N::IoTRegistration, "Event IoT Register Response"),
      To<&Context::HandleIoTConnectionStatusIncoming>(N::IoTConnectionStatus, "Event IoT Connection Status Response"),
  });
}
// clang-format on

namespace {

constexpr auto kDispatch = Dispatch::Rows();

// Each row stands at the index of its kind.
static_assert(std::ranges::equal(kDispatch, std::views::iota(std::size_t{0}, kDispatch.size()), {},
                                 [](const Dispatch::Row& row) {
                                   return static_cast<std::size_t>(row.kind);
                                 }),
              "a row for each kind, in the order of their numbers");
// Every alternative that can come reaches a handler, but for 0, which carries no message.
static_assert(
    std::ranges::all_of(std::views::iota(std::size_t{1},
                                         std::variant_size_v<orka::RadioNotificationData>),
                        [](std::size_t alternative) {
                          return std::ranges::count(kDispatch, alternative,
                                                    &Dispatch::Row::alternative) > 0;
                        }),
    "no handler takes one of the payloads");

}  // namespace

void KovaContext::HandleRadioProtocolNotification(orka::NotifyMessage kind,
                                                  orka::RadioNotificationData data) {
  const auto index = static_cast<std::size_t>(kind);
  if (index >= kDispatch.size()) {
    return;
  }
  const Dispatch::Row& row = kDispatch[index];
  if (row.text != nullptr) {
    KOVA_LOG(row.level) << row.text;
  }
  if (row.post == nullptr) {
    return;
  }
  if (row.alternative != Dispatch::kNotRead && row.alternative != data.index()) {
    KOVA_LOG(kLogError) << "Message type [" << index
                        << "] and data type (index in variant =" << data.index() << ") mismatch";
    return;
  }
  row.post(*this, std::move(data));
}

}  // namespace zelt
