// Every notification of the radio, the payload that it must carry, and the handler that it goes to.

#include "KovaContext.h"
#include "Log.h"

#include <algorithm>
#include <array>
#include <limits>
#include <ranges>

namespace zelt {

struct Dispatch {
  using Context = KovaContext;
  using Data = orka::RadioNotificationData;

  static constexpr std::size_t kNotRead = std::numeric_limits<std::size_t>::max();

  struct Row {
    std::uint32_t kind;
    std::size_t alternative;             // of the payload; kNotRead: whatever it is
    int level;                           // of `text`
    const char* text;                    // logged on arrival; nullptr: nothing is
    void (*post)(KovaContext&, Data&&);  // queues the handler; nullptr: there is none
  };

  // What a payload takes beside its record.
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

  template <std::size_t alternative, auto handler>
  static constexpr Row To(std::uint32_t kind, const char* text = nullptr) {
    return {kind, alternative, kLogInfo, text, &PostWithPayload<alternative, handler>};
  }
  // What the link itself reports: not handled any more once the link has been stopped.
  template <auto handler>
  static constexpr Row Event(std::uint32_t kind) {
    return {kind, kNotRead, kLogInfo, nullptr, &PostLinkEvent<handler>};
  }
  static constexpr Row LoggedOnly(std::uint32_t kind, int level, const char* text) {
    return {kind, kNotRead, level, text, nullptr};
  }

  static constexpr std::array<Row, orka::kNotifyMessageCount> Rows();
};

// clang-format off: one line a row
constexpr std::array<Dispatch::Row, orka::kNotifyMessageCount> Dispatch::Rows() {
  return {{
      Row{0, kNotRead, kLogInfo, nullptr, &PostRadioConnected},
      Event<&Context::HandleRtHandshakeCompleted>(1),
      To<3, &Context::HandleRadioConnection>(2),
      Event<&Context::HandleConnectionIsLost>(3),
      To<2, &Context::HandleRadioEmergencyResponse>(4),
      Event<&Context::HandleRtHandshakeFailed>(5),
      To<6, &Context::HandleShutdownRequest>(6),
      To<7, &Context::HandleShutdownResponse>(7),
      To<20, &Context::HandleLocationInformationIncoming>(8),
      To<8, &Context::HandleRtVersionResponse>(9),
      To<9, &Context::HandleHardwareIdResponse>(10),
      To<10, &Context::HandleSerialNumberIncomingMsg>(11),
      To<11, &Context::HandleBtMacAddrIncomingMsg>(12),
      To<1, &Context::HandleDockingNotification>(13),
      To<13, &Context::HandleButtonsSubscribtionResponse>(14),
      To<12, &Context::HandleConfigurationSetResponse>(15),
      To<1, &Context::HandlePhysicalUserInput>(16),
      To<14, &Context::HandleBluetoothConfigIncommingMsg>(17),
      To<15, &Context::HandleBluetoothStatusIncommingMsg>(18),
      To<17, &Context::HandleLedBrightnessSettingResponse>(19),
      LoggedOnly(20, kLogInfo, "Got Factory Reset response notification"),
      To<16, &Context::HandleGattConfigIncommingMsg>(21),
      To<24, &Context::HandleBatteryLevel>(22),
      To<24, &Context::HandleBatteryLevel>(23),
      To<18, &Context::HandleSetCovertModeResponse>(24),
      To<18, &Context::HandleSetCovertModeBroadcast>(25),
      LoggedOnly(26, kLogInfo, "Got USB Status request notification"),
      To<19, &Context::HandleRadioStatusRequest>(27),
      To<21, &Context::HandleWlanControlIncomingMsg>(28),
      To<22, &Context::HandleUsbRouteRequest>(29),
      To<36, &Context::HandleWlanHotspotControlIncomingMsg>(30),
      To<25, &Context::HandleMicStatusResponse>(31),
      To<23, &Context::HandleRtFactoryResetResponse>(32),
      To<5, &Context::HandleOpcodeSubscriptionResponse>(33),
      To<26, &Context::HandleGetDateTimeResponse>(34),
      To<27, &Context::HandleSetDateTimeResponse>(35),
      To<4, &Context::HandleVideoTagControlRequest>(36),
      To<34, &Context::HandleRsmUpdateResponse>(37),
      To<28, &Context::HandleFileAccessWriteRequest>(38),
      To<29, &Context::HandleFileAccessWriteSessionEnd>(39),
      To<30, &Context::HandleFileAccessCreateRequest>(40),
      To<32, &Context::HandleFileAccessResponse>(41),
      LoggedOnly(42, kLogDebug, "Got Transfer Data request notification"),
      To<33, &Context::HandleTransferDataResponse>(43),
      Event<&Context::HandleRtUpgradeInProcess>(44),
      To<31, &Context::HandleRtDebugLogResponse>(45),
      To<35, &Context::HandleRadioLuiError>(46),
      Event<&Context::HandleIgFailed>(47),
      To<37, &Context::HandleLteStatusIncomingMsg>(48),
      To<38, &Context::HandleRadioVideoControlRequest>(49),
      To<39, &Context::HandleRadioVideoControlResponse>(50),
      To<40, &Context::HandleFileHandleOpenRequest>(51),
      To<41, &Context::HandleUserPresenceInfoRequest>(52, "Event User Presence Info Request"),
      To<42, &Context::HandleIoTC2DDataMessage>(53, "Event IoT C2D Data Message Incoming"),
      To<43, &Context::HandleIoTRegisterResponse>(54, "Event IoT Register Response"),
      To<44, &Context::HandleIoTConnectionStatusIncoming>(55, "Event IoT Connection Status Response"),
  }};
}
// clang-format on

namespace {

constexpr auto kDispatch = Dispatch::Rows();

// Each row stands at the index of its kind.
static_assert(std::ranges::equal(kDispatch,
                                 std::views::iota(std::uint32_t{0},
                                                  std::uint32_t{orka::kNotifyMessageCount}),
                                 {}, &Dispatch::Row::kind));
// Every alternative that can come reaches a handler, but for 0, which carries no message.
static_assert(std::ranges::all_of(
    std::views::iota(std::size_t{1}, std::variant_size_v<orka::RadioNotificationData>),
    [](std::size_t alternative) {
      return std::ranges::count(kDispatch, alternative, &Dispatch::Row::alternative) > 0;
    }));

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
    KOVA_LOG(kLogError) << "Message type [" << row.kind
                        << "] and data type (index in variant =" << data.index() << ") mismatch";
    return;
  }
  row.post(*this, std::move(data));
}

}  // namespace zelt
