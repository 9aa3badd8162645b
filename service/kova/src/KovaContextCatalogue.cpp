// Every message that the service accepts, and the handler that it goes to.

#include "KovaContext.h"
#include "Log.h"

#include <google/protobuf/arena.h>

#include <algorithm>
#include <array>
#include <set>
#include <string_view>

namespace zelt {

struct Catalogue {
  using Envelope = ServiceIPC::MessageEnvelope;
  using Context = KovaContext;

  enum class Form {
    Message,       // the handler takes the message
    Envelope,      // the handler takes envelope and message, to remember or answer the sender
    ToolOnly,      // the same, but only for messages of a zeltcli tool
    Subscription,  // the handler takes the name of a new subscriber of the topic
  };

  // Where a message goes: only what is for the radio needs room at the link.
  enum class Goes { ToRadio, NoFurther };

  struct Entry {
    Form form;
    std::string_view message;  // tells the types apart when this is compiled
    AsyncCallbackHandle (*registration)(KovaContext&);
  };

  template <class T>
  static constexpr std::string_view Distinct() {
    return __PRETTY_FUNCTION__;
  }

  // A message in an arena, which knows what memory it takes: many empty parts take thirty times
  // what they took on the bus.
  template <class T>
  struct Parsed {
    google::protobuf::Arena arena;
    T& message = *google::protobuf::Arena::CreateMessage<T>(&arena);
  };

  // The work of a typed registration: parse, log, queue a task with copies. Busy leaves through
  // here when there is no room for it.
  template <Form form, Goes goes, class T, auto handler>
  static AsyncCallbackHandle RegisterTyped(KovaContext& context) {
    return context.service_ipc->RegisterCallbackImpl(
        TypeName<T>(), std::nullopt,
        [&context](const Envelope& envelope, std::string_view payload) {
          auto parsed = std::make_unique<Parsed<T>>();
          if (!parsed->message.ParseFromArray(payload.data(), static_cast<int>(payload.size()))) {
            ZELT_LOG_AS("RegisterCallback", kLogError, kIpcLog)
                << "Failed to unpack IPC message of type " << TypeName<T>();
            return;
          }
          ZELT_LOG_AS("RegisterCallback", kLogVerbose, kIpcLog)
              << "Calling ipc callback for " << TypeName<T>();
          ZELT_LOG_AS("RegisterCallback", kLogDebug, kIpcLog)
              << "Received [" << TypeName<T>() << "] from [" << envelope.sender << "]";
          if (form == Form::ToolOnly && !envelope.sender.starts_with("zeltcli-")) {
            return;
          }
          auto room = goes == Goes::ToRadio ? context.PromiseRoom(payload.size())
                                            : PromisedRoom(context.promised_to_radio, 0);
          const std::size_t bytes =
              KovaContext::kTaskBytes + payload.size() + parsed->arena.SpaceAllocated();
          const auto push = [&](auto task) {
            context.task_queue.Push(std::move(task), envelope.sender, bytes);
          };
          if constexpr (form == Form::Message) {
            push([&context, parsed = std::move(parsed), room = std::move(room)] {
              (context.*handler)(parsed->message);
            });
          } else {
            // `envelope = envelope`: a plain copy would be const, and copied again by every move.
            push([&context, envelope = envelope, parsed = std::move(parsed),
                  room = std::move(room)] { (context.*handler)(envelope, parsed->message); });
          }
        });
  }

  // Subscribers whose announcement waits: telling them twice would tell them the same.
  struct Announced {
    std::mutex mutex;
    std::set<std::string, std::less<>> names;  // guarded by mutex
  };

  // Never refused: one task for each subscriber is bounded by the bus, and nobody could tell him.
  template <class T, auto handler>
  static AsyncCallbackHandle RegisterSubscription(KovaContext& context) {
    return context.service_ipc->AddSubscribeHandlerImpl(
        [&context, announced = std::make_shared<Announced>()](std::string_view payload) {
          {
            const std::lock_guard lock(announced->mutex);
            if (!announced->names.emplace(payload).second) {
              return;
            }
          }
          context.task_queue.PushAlways([&context, announced, subscriber = std::string(payload)] {
            {
              const std::lock_guard lock(announced->mutex);
              announced->names.erase(subscriber);
            }
            (context.*handler)(subscriber);
          });
        },
        TypeName<T>());
  }

  template <class T, auto handler, Goes goes = Goes::ToRadio>
  static constexpr Entry Message() {
    return {Form::Message, Distinct<T>(), &RegisterTyped<Form::Message, goes, T, handler>};
  }
  template <class T, auto handler, Goes goes = Goes::ToRadio>
  static constexpr Entry WithEnvelope() {
    return {Form::Envelope, Distinct<T>(), &RegisterTyped<Form::Envelope, goes, T, handler>};
  }
  template <class T, auto handler, Goes goes = Goes::ToRadio>
  static constexpr Entry ToolOnly() {
    return {Form::ToolOnly, Distinct<T>(), &RegisterTyped<Form::ToolOnly, goes, T, handler>};
  }
  template <class T, auto handler>
  static constexpr Entry Subscription() {
    return {Form::Subscription, Distinct<T>(), &RegisterSubscription<T, handler>};
  }

  static constexpr std::array<Entry, 51> Entries();
};

// clang-format off: one line an entry
constexpr std::array<Catalogue::Entry, 51> Catalogue::Entries() {
  return {{
      Message<Kova::RtConnectionAction, &Context::HandleRtConnectionAction, Goes::NoFurther>(),
      Message<Kova::ShutdownResponse, &Context::SendShutdownResponse>(),
      Message<Kova::ShutdownRequest, &Context::SendShutdownRequest>(),
      Message<Kova::SerialNumberMsg, &Context::SendSerialNumberMsg>(),
      Message<Kova::BtMacAddressMsg, &Context::SendBtMacAddrMsg>(),
      WithEnvelope<Kova::RtVersionMsg, &Context::SendRtVersionRequest>(),
      WithEnvelope<Kova::HardwareIdMsg, &Context::SendHardwareIdRequest>(),
      Message<Kova::AmbaUpdateStatus, &Context::SendAmbaUpdateStatus>(),
      Message<Kova::RtDebugLogMsg, &Context::SendRtDebugLogRequest>(),
      WithEnvelope<Kova::FeedbackAction, &Context::SendFeedbackAction>(),
      Message<Kova::ConfigurationSetMsg, &Context::SendConfigurationSetRequest>(),
      Message<Kova::ButtonsSubscribtionMsg, &Context::SendButtonsSubscribtionRequest>(),
      WithEnvelope<Kova::LedBrightnessSettingMsg, &Context::SendLedBrightnessSettingRequest>(),
      Message<Kova::RadioStatusMsg, &Context::SendRadioStatus>(),
      Message<Kova::BatteryLevelRequest, &Context::SendBatteryLevelRequest>(),
      Message<Kova::UsbStatus, &Context::SendUsbStatus>(),
      WithEnvelope<Kova::BluetoothConfigMsg, &Context::SendBluetoothConfigRequest>(),
      WithEnvelope<Kova::BluetoothStatusMsg, &Context::SendBluetoothStatusRequest>(),
      WithEnvelope<Kova::GattConfigMsg, &Context::SendGattConfigMsg>(),
      ToolOnly<Kova::SetSocketParams, &Context::HandleSetSocketParams, Goes::NoFurther>(),
      ToolOnly<Kova::ClearSocketParams, &Context::HandleClearSocketParams, Goes::NoFurther>(),
      ToolOnly<Kova::RtFactoryResetRequest, &Context::SendRtFactoryResetRequest>(),
      ToolOnly<Kova::InjectQrxRequest, &Context::HandleInjectQrxRequest>(),
      Message<Collaboration::RadioEmergencyMsg, &Context::SendRadioEmergencyRequest>(),
      Message<Collaboration::VideoTagControlReply, &Context::SendVideoTagControlReply>(),
      WithEnvelope<Kova::LocationInfoMsg, &Context::SendLocationInformationRequest>(),
      WithEnvelope<Kova::OpcodeSubscriptionMsg, &Context::SendOpcodeSubscriptionRequest>(),
      Message<Kova::ToggleCovertModeMsg, &Context::SetCovertMode>(),
      Subscription<Kova::RTConnectionStatus, &Context::RtConnectionStatusSubscribeHandler>(),
      Subscription<MediaStreamNotification::InputNotification, &Context::DockStatusSubscribeHandler>(),
      Subscription<Collaboration::RadioConnectionMsg, &Context::RadioConnectionSubscribeHandler>(),
      Message<Kova::UsbRouteMsg, &Context::SendUsbRouteResponse>(),
      Message<Kova::MicStatusMsg, &Context::SendMicStatusRequest>(),
      WithEnvelope<Kova::GetDateTimeReq, &Context::SendGetDateTimeRequest>(),
      WithEnvelope<Kova::SetDateTimeReq, &Context::SendSetDateTimeRequest>(),
      WithEnvelope<Kova::SetDateTimeMsg, &Context::HandleSetDateTimeMsg>(),
      WithEnvelope<Kova::TransferFirmwareRequest, &Context::HandleTransferFirmwareRequest>(),
      Message<Kova::FileAccessWriteResponse, &Context::SendFileAccessWriteResponse>(),
      Message<Kova::RsmUpdateRequest, &Context::SendRsmUpdateRequest>(),
      Message<Kova::RadioWlanControlOutgoingMsg, &Context::SendWlanControlRequest>(),
      Message<Kova::RadioLteControlOutgoing, &Context::SendLteStatusReqMsg>(),
      Message<Kova::RadioWlanHotspotControlOutgoingMsg, &Context::SendWlanHotspotControlRequest>(),
      WithEnvelope<Kova::VideoControlRequest, &Context::HandleBwcVideoControlRequest>(),
      Message<Kova::VideoControlResponse, &Context::HandleVideoControlResponse>(),
      Message<Kova::VideoControlBroadcast, &Context::HandleVideoControlBroadcast>(),
      Message<Kova::FileHandleOpenResponse, &Context::HandleFileHandleOpenResponse>(),
      Message<Kova::FileAccessCreateResponse, &Context::SendFileAccessCreateResponse>(),
      Message<Kova::UserPresenceInfoResponse, &Context::HandleUserPresenceInfoResponse>(),
      Message<Collaboration::IoTD2CDataMessage, &Context::HandleIoTD2CDataMessage>(),
      Message<Collaboration::IoTRegistrationRequest, &Context::HandleIoTRegisterRequest>(),
      Message<Collaboration::IoTConnectionStatusQuery, &Context::HandleIoTConnectionStatusQueryRequest>(),
  }};
}
// clang-format on

namespace {

constexpr auto kCatalogue = Catalogue::Entries();

constexpr auto CountOf(Catalogue::Form form) {
  return std::ranges::count(kCatalogue, form, &Catalogue::Entry::form);
}
static_assert(CountOf(Catalogue::Form::Message) == 30);
static_assert(CountOf(Catalogue::Form::Envelope) == 14);
static_assert(CountOf(Catalogue::Form::ToolOnly) == 4);
static_assert(CountOf(Catalogue::Form::Subscription) == 3);
static_assert(std::ranges::all_of(kCatalogue, [](const Catalogue::Entry& entry) {
  return std::ranges::count(kCatalogue, entry.message, &Catalogue::Entry::message) == 1;
}));

}  // namespace

void KovaContext::RegisterIpcCallbacks() {
  registration_handles.reserve(registration_handles.size() + kCatalogue.size());
  for (const Catalogue::Entry& entry : kCatalogue) {
    registration_handles.push_back(entry.registration(*this));
  }
}

}  // namespace zelt
