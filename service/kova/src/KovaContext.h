#pragma once

#include "KovaState.h"
#include "Log.h"
#include "PromisedRoom.h"
#include "RadioPart.h"
#include "RtConnectionState.h"

#include "orka/RadioProtocol.h"
#include "zelt/AsyncCallbackHandle.h"
#include "zelt/ConcurrentQueue.h"
#include "zelt/ConfigReaderIF.h"
#include "zelt/ServiceIPC.h"
#include "zelt/ServiceModel.h"
#include "zelt/TargetAttributes.h"
#include "zelt/UniqueFunction.h"

#include "Collaboration.pb.h"
#include "Kova.pb.h"
#include "MediaStreamNotification.pb.h"

#include <atomic>
#include <cstdint>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace zelt {

// The protobuf full name of T, which is its registration key and its topic.
template <class T>
const std::string& TypeName() {
  static const std::string name = T().GetTypeName();
  return name;
}

// True for the types that the service publishes.
template <class T>
constexpr bool IsTopic() {
#define KOVA_MESSAGE(from, goes, package, message, handler, answer, detail)
#define KOVA_TOPIC(package, message, handler) std::is_same_v<T, package::message> ||
#define KOVA_PUBLISHED(package, message) std::is_same_v<T, package::message> ||
  return
#include "kova/Accepted.def"
      false;  // NOLINT(readability-simplify-boolean-expr): each row ends with ||
}

// Every handler of the service, and all that they share. What they remember is one value, `state`.
//
// The IPC thread, the timers and the radio thread only push tasks onto the queue; the service
// thread, which drains it, is the only one that runs handlers and touches the state below, so none
// of it is locked. What more threads touch stands first, each with its lock.
//
// Whoever pushes is bounded. A message of a service is refused (Busy) when it would not fit into
// the queue, or, if it is for the radio, into what the link takes now. The radio is held back
// while too much of it waits. What was pushed runs, unless it belongs to something that is over: a
// timer that was closed, or a link that was stopped.
//
// Where each message and each new subscriber goes stands in kova/Accepted.def, where each
// notification goes in KovaContextDispatch.cpp.
class KovaContext {
 public:
  using MessageEnvelope = ServiceIPC::MessageEnvelope;

  // `configReader` may be empty: the real one is then made when it is first needed.
  explicit KovaContext(std::shared_ptr<ServiceModel> model,
                       std::unique_ptr<ConfigReaderIF> configReader = nullptr);
  KovaContext(const KovaContext&) = delete;
  KovaContext& operator=(const KovaContext&) = delete;
  virtual ~KovaContext();

  // Reads version, target and configuration, and makes the radio-protocol object. Empty arguments
  // stand for the real objects. A second call keeps the radio-protocol object that is there.
  virtual void Init(std::unique_ptr<orka::RadioProtocol> radio,
                    std::unique_ptr<TargetAttributesIF> target);
  // Stops the link for good: a later start is refused. Any thread.
  virtual void Deinit();
  // Starts the link, unless it is not stopped. Service thread.
  virtual void StartRadioProtocol();
  // Stops the link; what it has reported and is not handled yet does nothing any more. Any thread.
  virtual void StopRadioProtocol();
  // Makes every registration of the catalogue. Once, after Init.
  virtual void RegisterIpcCallbacks();

  // Sends to a named service. True when the platform has accepted it, which ours says at once;
  // whether the receiver takes it is not waited for.
  virtual bool SendMessage(const google::protobuf::MessageLite& message, std::string_view service);
  // Answers a received message, perhaps long after it came; the same result.
  virtual bool SendIpcResponse(const MessageEnvelope& envelope,
                               const google::protobuf::MessageLite& message);
  virtual void SendGenericResponse(const MessageEnvelope& envelope, bool success,
                                   const std::string& text);

  // What the service thread runs; any thread pushes.
  ConcurrentQueue<UniqueFunction<void()>>& TaskQueue() { return task_queue; }

  // The radio's name for a camera model; empty, and logged, for a model that it does not know.
  static std::string_view ConvertModelToProductId(std::string_view model);
  void ReadConfig();

  // Called on the radio thread. Never refuses, but holds the radio back when too much waits.
  void HandleRadioProtocolNotification(orka::NotifyMessage kind, orka::RadioNotificationData data);

 private:
  friend struct Catalogue;
  friend struct Dispatch;
  struct FileAccessWrite;
  struct FileAccessCreate;

  // What became of a message for the radio; nothing when it was dropped before it was sent.
  using Sent = std::optional<orka::SendResult>;

#include "KovaContextRelays.inc"

  // --- Link to the radio -----------------------------------------------------------------------
  void HandleRtConnectionAction(const Kova::RtConnectionAction& message);
  void RtConnectionStatusSubscribeHandler(std::string_view subscriber);
  void RadioConnectionSubscribeHandler(std::string_view subscriber);
  // Events of the link: called with link_mutex held, see LinkEvent().
  void HandleRtHandshakeCompleted();
  void HandleConnectionIsLost();
  void HandleRtHandshakeFailed();
  void HandleRtUpgradeInProcess();
  void HandleIgFailed();
  bool HandleRadioConnection(const Collaboration::RadioConnectionMsg& message);

  // With link_mutex held.
  void RegisterRadioProtocolCallback();
  void SetConnectionState(const char* function, RtConnectionState status);
  void UpdateConnectionStatus(RtConnectionState status);
  void PublishKovaConnectionStatus(RtConnectionState status);

  // --- Queries whose answer goes to the one who asked ------------------------------------------
  Sent SendRtVersionRequest(const MessageEnvelope& envelope, const Kova::RtVersionMsg& message);
  void HandleRtVersionResponse(const Kova::RtVersionResponse& response);
  Sent SendHardwareIdRequest(const MessageEnvelope& envelope, const Kova::HardwareIdMsg& message);
  void HandleHardwareIdResponse(const Kova::HardwareIdResponse& response);
  Sent SendLedBrightnessSettingRequest(const MessageEnvelope& envelope,
                                       const Kova::LedBrightnessSettingMsg& message);
  void HandleLedBrightnessSettingResponse(const Kova::LedBrightnessSettingMsg& response);
  Sent SendGetDateTimeRequest(const MessageEnvelope& envelope, const Kova::GetDateTimeReq& message);
  void HandleGetDateTimeResponse(const Kova::GetDateTimeResp& response);
  Sent HandleSetDateTimeMsg(const MessageEnvelope& envelope, const Kova::SetDateTimeMsg& message);
  Sent SendSetDateTimeRequest(const MessageEnvelope& envelope, const Kova::SetDateTimeReq& message);
  void HandleSetDateTimeResponse(const Kova::SetDateTimeResp& response);
  bool HandleSerialNumberIncomingMsg(const Kova::SerialNumberMsg& message);
  bool HandleBtMacAddrIncomingMsg(const Kova::BtMacAddressMsg& message);

  // --- Firmware transfer -----------------------------------------------------------------------
  void HandleTransferFirmwareRequest(const MessageEnvelope& envelope,
                                     const Kova::TransferFirmwareRequest& request);
  void HandleFileAccessResponse(const orka::qrx::FileAccessResponse& response);
  void HandleTransferDataResponse(const orka::qrx::TransferDataResponse& response);
  void HandleFileAccessTimeout();
  void HandleTransferDataTimeout();
  void StartFileTransfer();
  void SendNextChunk();
  bool SendFileChunk();
  void AbortFileTransfer();
  void SendTransferFirmwareResponse(bool success);

  // --- Files that the radio asks for -----------------------------------------------------------
  void HandleFileAccessWriteRequest(const Kova::FileAccessWriteRequest& request);
  Sent SendFileAccessWriteResponse(const Kova::FileAccessWriteResponse& response);
  void HandleFileAccessWriteResponseTimeout();
  void HandleFileAccessCreateRequest(const Kova::FileAccessCreateRequest& request);
  Sent SendFileAccessCreateResponse(const Kova::FileAccessCreateResponse& response);
  void HandleFileAccessCreateResponseTimeout();
  void HandleFileAccessWriteSessionEnd(const Kova::FileAccessWriteSessionEnd& message);
  void HandleFileHandleOpenRequest(const Kova::FileHandleOpenRequest& request);
  void HandleFileHandleOpenTimeout(std::uint16_t handle_id, const std::string& file_name);
  Sent HandleFileHandleOpenResponse(const Kova::FileHandleOpenResponse& response);

  // --- Docking, USB, power, shutdown -----------------------------------------------------------
  void DockStatusSubscribeHandler(std::string_view subscriber);
  void HandleDockingNotification(const MediaStreamNotification::InputNotification& notification);
  Sent SendUsbRouteResponse(const Kova::UsbRouteMsg& message);
  Sent SendRtFactoryResetRequest(const MessageEnvelope& envelope,
                                 const Kova::RtFactoryResetRequest& message);
  void HandleRtFactoryResetResponse(const Kova::RtFactoryResetResponse& response);

  // --- Settings and subscriptions --------------------------------------------------------------
  Sent SendOpcodeSubscriptionRequest(const MessageEnvelope& envelope,
                                     const Kova::OpcodeSubscriptionMsg& message);
  void HandleOpcodeSubscriptionResponse(const Kova::OpcodeSubscriptionMsg& message);
  Sent SendBluetoothConfigRequest(const MessageEnvelope& envelope,
                                  const Kova::BluetoothConfigMsg& message);
  void HandleBluetoothConfigIncommingMsg(const Kova::BluetoothConfigMsg& message);
  Sent SendBluetoothStatusRequest(const MessageEnvelope& envelope,
                                  const Kova::BluetoothStatusMsg& message);
  void HandleBluetoothStatusIncommingMsg(const Kova::BluetoothStatusMsg& message);
  Sent SendGattConfigMsg(const MessageEnvelope& envelope, const Kova::GattConfigMsg& message);
  void HandleGattConfigIncommingMsg(const Kova::GattConfigMsg& message);
  Sent SendFeedbackAction(const MessageEnvelope& envelope, const Kova::FeedbackAction& message);
  void HandleSetSocketParams(const MessageEnvelope& envelope, const Kova::SetSocketParams& message);
  void HandleClearSocketParams(const MessageEnvelope& envelope,
                               const Kova::ClearSocketParams& message);

  // --- Video, location, collaboration, IoT -----------------------------------------------------
  bool HandleRadioLuiError(const Kova::RadioLuiError& message);
  Sent SendRadioStatus(const Kova::RadioStatusMsg& message);
  Sent SendLocationInformationRequest(const MessageEnvelope& envelope,
                                      const Kova::LocationInfoMsg& message);
  Sent HandleBwcVideoControlRequest(const MessageEnvelope& envelope,
                                    const Kova::VideoControlRequest& message);
  void HandleRadioVideoControlResponse(const Kova::VideoControlResponse& response);
  void HandleInjectQrxRequest(const MessageEnvelope& envelope,
                              const Kova::InjectQrxRequest& request);

  // --- Mechanisms that handlers share ----------------------------------------------------------

  // Sends `message` as its alternative of the outgoing union. The number is that of a RadioPart, or
  // what a message carries.
  template <class T>
  orka::SendResult ToRadio(const T& message, std::uint32_t radio_send_selector) {
    return radio_protocol->SendToRadio(orka::RadioOutgoingMessage(std::in_place_type<T>, message),
                                       radio_send_selector);
  }
  template <class T>
  orka::SendResult ToRadio(const T& message, RadioPart part) {
    return ToRadio(message, std::to_underlying(part));
  }

  // Sends to every subscriber; nobody looks at the outcome.
  template <class T>
  void Publish(const T& message) {
    static_assert(IsTopic<T>(), "a line for it is missing in kova/Accepted.def");
    static_cast<void>(service_ipc->PublishImpl(TypeName<T>(), message.SerializeAsString()));
  }

  // Counts a message of `bytes` bytes for the radio against what the link takes, for as long as the
  // result lives. Throws Busy when the link has no room for it.
  PromisedRoom PromiseRoom(std::size_t bytes);

  // Makes the task of something that the link reports. It runs `handler` with link_mutex held,
  // unless the link has been stopped since this was called.
  auto LinkEvent(UniqueFunction<void()> handler) {
    return [this, session = link_session.load(), handler = std::move(handler)]() mutable {
      const std::lock_guard lock(link_mutex);
      if (session == link_session) {
        handler();
      }
    };
  }

  // Queues what the radio reported, with a payload of `bytes` bytes, and holds the radio back when
  // much waits; it goes on as soon as half of that has been taken.
  template <class Task>
  void PushFromRadio(Task task, std::size_t bytes) {
    task_queue.PushAlways(
        [this, task = std::move(task)]() mutable {
          ContinueReceivingWhenCaughtUp();
          task();
        },
        kRadioSource, kTaskBytes + bytes);
    HoldReceivingWhenBehind();
  }
  void HoldReceivingWhenBehind();
  void ContinueReceivingWhenCaughtUp();

  // A one-shot timer of 5 s whose expiry runs as a task of the service thread. Closing the handle
  // also withdraws an expiry that is queued already. Service thread only.
  AsyncCallbackHandle StartTimer(std::string_view name, UniqueFunction<void()> on_expiry);

  // Sends `answer` to the service in `slot` and empties it; drops it when nobody is in the slot.
  void AnswerRequester(const char* function, std::optional<std::string>& slot,
                       const google::protobuf::MessageLite& answer, int level,
                       std::string_view answer_text, std::string_view nobody_text);

  // The tool's slot. Requests of tools overwrite it, the first answer that looks takes it. Both
  // log their line under the name of the handler that calls. RememberTool: false, and nothing
  // done, when the sender is no tool. AnswerTool: false when the slot is empty.
  bool RememberTool(const char* function, const MessageEnvelope& envelope);
  bool AnswerTool(const char* function, const google::protobuf::MessageLite& answer);
  // For requests that the radio does not answer: tells a tool at once that it was sent.
  void AcknowledgeTool(const char* function, const MessageEnvelope& envelope,
                       const std::string& text);

  template <class Traits>
  void ReceiveFileRequest(const char* function, const typename Traits::Request& request,
                          UniqueFunction<void()> on_timeout);
  template <class Traits>
  Sent AnswerFileRequest(const char* function, const typename Traits::Response& response);
  template <class Traits>
  void FailFileRequest(const char* function);

  // --- State -----------------------------------------------------------------------------------
  // How many tasks wait before a message is refused; of one sender, a quarter of it.
  static constexpr QueueLoad kTaskLimit{.number = 16384, .bytes = std::size_t{64} << 20U};
  // What a task takes beside its message: queue, closure, envelope.
  static constexpr std::size_t kTaskBytes = 512;
  static constexpr std::string_view kRadioSource = "the radio";  // no sender's name has a blank

  // What more threads touch. First, so that it outlives the radio and the timers, which use it.

  std::atomic<std::size_t> promised_to_radio{0};  // bytes; tasks that wait hold shares of it
  ConcurrentQueue<UniqueFunction<void()>> task_queue{kTaskLimit};

  // Held while the link is started and stopped, and from the look whether something belongs to its
  // session to the publication of the status that comes of it: so whoever stops it has the last
  // word. No callback of the platform or the radio takes it.
  std::mutex link_mutex;
  RtConnectionState connection_state = RtConnectionState::Disconnected;  // guarded by link_mutex
  bool link_is_over = false;                                             // guarded by link_mutex
  // Changes when the link has been stopped, under link_mutex. The radio thread reads it, but not
  // while it changes: the link's own stop waits until no notification is running.
  std::atomic<std::uint64_t> link_session{0};

  // Held from the look at what waits of the radio to the call that comes of it.
  std::mutex receiving_mutex;
  bool receiving_held = false;  // guarded by receiving_mutex

  // Service thread only.

  KovaState state;
  std::mutex socket_settings_mutex;  // held while those of the state are written

  std::vector<AsyncCallbackHandle> registration_handles;
  std::unique_ptr<orka::RadioProtocol> radio_protocol;
  std::shared_ptr<ServiceModel> service_model;
  std::shared_ptr<ServiceIPC> service_ipc;
  std::unique_ptr<ConfigReaderIF> config_reader;
  std::unique_ptr<TargetAttributesIF> target_attributes;
  std::string version_text;

  std::ifstream firmware_stream;  // the image of the transfer, open
  std::unique_ptr<std::vector<std::uint8_t>> pending_chunk;
  AsyncCallbackHandle file_access_timer;
  AsyncCallbackHandle transfer_data_timer;
  AsyncCallbackHandle file_access_write_timer;
  AsyncCallbackHandle file_access_create_timer;
  std::map<std::string, AsyncCallbackHandle> file_handle_open_timers;  // by file name
};

}  // namespace zelt
