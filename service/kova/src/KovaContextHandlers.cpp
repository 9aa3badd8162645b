// The handlers that answer, choose or remember, by subject; those that only pass a message on are
// in KovaContextRelays.inc, the transfers of files in KovaContextTransfers.cpp.

#include "KovaContext.h"
#include "Log.h"

#include "zelt/ForkAndExec.h"
#include "zelt/Paths.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace zelt {
namespace {

constexpr const char* kToolLine = " --- zeltcli ----";

constexpr std::int32_t kDefaultDockKey = 9;
constexpr std::int32_t kStandardCableDockKey = 11;
constexpr std::uint32_t kDockOn = 0;
constexpr std::uint32_t kDockOff = 1;
constexpr const char* kNetworkGadgetScript = "/usr/sbin/rndis.sh";

bool IsTool(const ServiceIPC::MessageEnvelope& envelope) {
  return envelope.sender.starts_with("zeltcli-");
}

// Serial numbers and addresses of these types are of interest to the far end of the radio.
bool IsForCollaboration(std::uint32_t type) {
  return type == 1 || type == 2;
}

std::string DockStatusText(const MediaStreamNotification::InputNotification& notification) {
  return "[" + notification.GetTypeName() + "]: key " + std::to_string(notification.key()) +
         (notification.state() == MediaStreamNotification::InputNotification::ON ? " On" : " Off");
}

// True when the script ran and exited with 0; the core-dump bit of the status does not count.
bool RunNetworkGadgetScript() {
  const ForkAndExecResult result = ForkAndExecImpl([] {
    execl(kNetworkGadgetScript, kNetworkGadgetScript, nullptr);
    const char* const reason = strerrordesc_np(errno);  // strerror() may take a lock
    for (const char* const part :
         {"Failed to execute ", kNetworkGadgetScript, ": ", reason, "\n"}) {
      if (write(STDERR_FILENO, part, std::strlen(part)) < 0) {
        break;
      }
    }
    _Exit(1);
  });
  return (result.status & 0xFF7F) == 0;
}

}  // namespace

// --- Mechanisms that handlers share --------------------------------------------------------------

void KovaContext::AnswerRequester(const char* function, std::optional<std::string>& slot,
                                  const google::protobuf::MessageLite& answer, int level,
                                  std::string_view answer_text, std::string_view nobody_text) {
  if (!slot) {
    ZELT_LOG_AS(function, kLogError, kContextLog) << nobody_text;
    return;
  }
  ZELT_LOG_AS(function, level, kContextLog) << answer_text << *slot;
  SendMessage(answer, *slot);
  slot.reset();
}

bool KovaContext::RememberTool(const char* function, const MessageEnvelope& envelope) {
  if (!IsTool(envelope)) {
    return false;
  }
  ZELT_LOG_AS(function, kLogInfo, kContextLog) << kToolLine;
  state.cli_requester = envelope;
  return true;
}

bool KovaContext::AnswerTool(const char* function, const google::protobuf::MessageLite& answer) {
  if (!state.cli_requester) {
    return false;
  }
  ZELT_LOG_AS(function, kLogInfo, kContextLog) << kToolLine;
  SendIpcResponse(*state.cli_requester, answer);
  state.cli_requester.reset();
  return true;
}

void KovaContext::AcknowledgeTool(const char* function, const MessageEnvelope& envelope,
                                  const std::string& text) {
  if (IsTool(envelope)) {
    ZELT_LOG_AS(function, kLogInfo, kContextLog) << kToolLine;
    SendGenericResponse(envelope, true, text);
  }
}

// --- Queries whose answer goes to the one who asked ----------------------------------------------

KovaContext::Sent KovaContext::SendRtVersionRequest(const MessageEnvelope& envelope,
                                                    const Kova::RtVersionMsg& message) {
  if (message.RtVersionOneof_case() != Kova::RtVersionMsg::kRequest) {
    KOVA_LOG(kLogError) << "RT version request is not a request";
    return std::nullopt;
  }
  if (state.rt_version_requester) {
    KOVA_LOG(kLogError) << "Already have a requester: " << *state.rt_version_requester;
  }
  state.rt_version_requester = envelope.sender;
  KOVA_LOG(kLogDebug) << "Send RT version request";
  return ToRadio(message.request(), RadioPart::Itself);
}

void KovaContext::HandleRtVersionResponse(const Kova::RtVersionResponse& response) {
  Kova::RtVersionMsg answer;
  *answer.mutable_response() = response;
  AnswerRequester(__func__, state.rt_version_requester, answer, kLogInfo,
                  "Handle RT version response to ",
                  "Cannot send RT version response, requester is not set");
}

KovaContext::Sent KovaContext::SendHardwareIdRequest(const MessageEnvelope& envelope,
                                                     const Kova::HardwareIdMsg& message) {
  if (message.HardwareIdOneof_case() != Kova::HardwareIdMsg::kRequest) {
    KOVA_LOG(kLogError) << "HardwareId request is not a request";
    return std::nullopt;
  }
  if (state.hardware_id_requester) {
    KOVA_LOG(kLogError) << "Already have a requester: " << *state.hardware_id_requester;
  }
  state.hardware_id_requester = envelope.sender;
  KOVA_LOG(kLogDebug) << "Send HardwareId request";
  return ToRadio(message.request(), RadioPart::Itself);
}

void KovaContext::HandleHardwareIdResponse(const Kova::HardwareIdResponse& response) {
  Kova::HardwareIdMsg answer;
  *answer.mutable_response() = response;
  AnswerRequester(__func__, state.hardware_id_requester, answer, kLogInfo,
                  "Handle HardwareId response to ",
                  "Cannot send HardwareId response, requester is not set");
}

KovaContext::Sent KovaContext::SendLedBrightnessSettingRequest(
    const MessageEnvelope& envelope, const Kova::LedBrightnessSettingMsg& message) {
  state.led_brightness_requester = envelope.sender;
  KOVA_LOG(kLogDebug) << "Send LedBrightnessSetting request";
  return ToRadio(message, RadioPart::Itself);
}

void KovaContext::HandleLedBrightnessSettingResponse(
    const Kova::LedBrightnessSettingMsg& response) {
  AnswerRequester(__func__, state.led_brightness_requester, response, kLogInfo,
                  "Handle LedBrightnessSetting Response to ",
                  "Cannot forward brithness setting response, requester is not set");
}

KovaContext::Sent KovaContext::SendGetDateTimeRequest(const MessageEnvelope& envelope,
                                                      const Kova::GetDateTimeReq& message) {
  KOVA_LOG(kLogVerbose) << "Send GetDateTime Request";
  if (!RememberTool(__func__, envelope)) {
    state.get_date_time_requester = envelope.sender;
  }
  return ToRadio(message, RadioPart::Situation);
}

void KovaContext::HandleGetDateTimeResponse(const Kova::GetDateTimeResp& response) {
  if (!AnswerTool(__func__, response)) {
    AnswerRequester(__func__, state.get_date_time_requester, response, kLogDebug,
                    "Handle GetDateTime Response to ",
                    "Cannot forward GetDateTimeg response, requester is not set");
  }
}

KovaContext::Sent KovaContext::HandleSetDateTimeMsg(const MessageEnvelope& envelope,
                                                    const Kova::SetDateTimeMsg& message) {
  if (message.SetDateTimeOneof_case() != Kova::SetDateTimeMsg::kRequest) {
    KOVA_LOG(kLogError) << "Wrong type of the message! Expected request";
    return std::nullopt;
  }
  return SendSetDateTimeRequest(envelope, message.request());
}

KovaContext::Sent KovaContext::SendSetDateTimeRequest(const MessageEnvelope& envelope,
                                                      const Kova::SetDateTimeReq& message) {
  KOVA_LOG(kLogVerbose) << "Send SetDateTime Request";
  if (!RememberTool(__func__, envelope)) {
    state.set_date_time_requester = envelope.sender;
  }
  return ToRadio(message, RadioPart::Itself);
}

void KovaContext::HandleSetDateTimeResponse(const Kova::SetDateTimeResp& response) {
  KOVA_LOG(kLogDebug) << "Handle SetDateTime Response with result " << response.result();
  if (!AnswerTool(__func__, response)) {
    Kova::SetDateTimeMsg answer;
    answer.mutable_response()->set_result(response.result());
    AnswerRequester(__func__, state.set_date_time_requester, answer, kLogDebug,
                    "Handle SetDateTime Response to ",
                    "Cannot forward setDateTimeg response, requester is not set");
  }
}

bool KovaContext::HandleSerialNumberIncomingMsg(const Kova::SerialNumberMsg& message) {
  if (IsForCollaboration(message.type())) {
    KOVA_LOG(kLogInfo) << "Handle SerialNumber incoming message from Radio";
    return SendMessage(message, "Collaboration");
  }
  KOVA_LOG(kLogInfo) << "Handle SerialNumber incoming message";
  return SendMessage(message, "RsmControl");
}

bool KovaContext::HandleBtMacAddrIncomingMsg(const Kova::BtMacAddressMsg& message) {
  KOVA_LOG(kLogInfo) << "Handle BtMacAddress incoming message ";
  return SendMessage(message, IsForCollaboration(message.type()) ? "Collaboration" : "RsmControl");
}

// --- Docking, USB, power, shutdown ---------------------------------------------------------------

void KovaContext::DockStatusSubscribeHandler(std::string_view subscriber) {
  if (!state.last_dock_status) {
    KOVA_LOG(kLogInfo) << "No dock status to send";
    return;
  }
  MediaStreamNotification::InputNotification message;
  message.set_key(state.last_dock_status->first);
  message.set_state(static_cast<MediaStreamNotification::InputNotification::State>(
      state.last_dock_status->second));
  KOVA_LOG(kLogInfo) << "Sending " << DockStatusText(message);
  SendMessage(message, subscriber);
}

void KovaContext::HandleDockingNotification(
    const MediaStreamNotification::InputNotification& notification) {
  MediaStreamNotification::InputNotification message = notification;
  const auto dock = static_cast<std::uint32_t>(message.state());
  if (dock == kDockOn && message.key() == kStandardCableDockKey &&
      access(DoIgnoreDockForStandardCableFile().c_str(), F_OK) != -1) {
    KOVA_LOG(kLogInfo)
        << "override do_ignore_dock_for_standard_cable exists, Ignoring dock for standard cable and executing rndis.sh";
    if (RunNetworkGadgetScript()) {
      KOVA_LOG(kLogInfo) << "Executed rndis.sh successfully";
      return;
    }
    KOVA_LOG(kLogError) << "Failed to execute rndis.sh, not ignoring dock for standard cable";
  }
  if (dock == kDockOff) {
    message.set_key(state.last_dock_status ? state.last_dock_status->first : kDefaultDockKey);
  }
  state.last_dock_status = {message.key(), dock};
  Publish(message);
  KOVA_LOG(kLogInfo) << "Publishing " << DockStatusText(message);
}

KovaContext::Sent KovaContext::SendUsbRouteResponse(const Kova::UsbRouteMsg& message) {
  if (message.UsbRouteOneof_case() != Kova::UsbRouteMsg::kResponse) {
    KOVA_LOG(kLogError) << "Wrong type of the message!";
    return std::nullopt;
  }
  KOVA_LOG(kLogDebug) << "Send usb route response";
  return ToRadio(message, RadioPart::Itself);
}

KovaContext::Sent KovaContext::SendRtFactoryResetRequest(
    const MessageEnvelope& envelope, const Kova::RtFactoryResetRequest& message) {
  KOVA_LOG(kLogInfo) << "Send Rt Factory Reset Request";
  const auto result = ToRadio(message, RadioPart::Itself);
  RememberTool(__func__, envelope);
  return result;
}

void KovaContext::HandleRtFactoryResetResponse(const Kova::RtFactoryResetResponse& response) {
  KOVA_LOG(kLogInfo) << "Handle Rt Factory Reset Response";
  if (state.cli_requester) {
    KOVA_LOG(kLogDebug) << " ---Handle Rt Factory Reset Response to zeltcli ----";
    SendIpcResponse(*state.cli_requester, response);
    state.cli_requester.reset();
  }
}

// --- Settings and subscriptions ------------------------------------------------------------------

KovaContext::Sent KovaContext::SendOpcodeSubscriptionRequest(
    const MessageEnvelope& envelope, const Kova::OpcodeSubscriptionMsg& message) {
  KOVA_LOG(kLogDebug) << "Send OpcodeSubscription request";
  const auto result = ToRadio(message, RadioPart::Itself);
  RememberTool(__func__, envelope);
  return result;
}

void KovaContext::HandleOpcodeSubscriptionResponse(const Kova::OpcodeSubscriptionMsg& message) {
  KOVA_LOG(kLogInfo) << "Handle OpcodeSubscription response";
  if (!AnswerTool(__func__, message)) {
    SendMessage(message, "RsmControl");
  }
}

KovaContext::Sent KovaContext::SendBluetoothConfigRequest(const MessageEnvelope& envelope,
                                                          const Kova::BluetoothConfigMsg& message) {
  KOVA_LOG(kLogDebug) << "Send BluetoothConfig request";
  const auto result = ToRadio(message, RadioPart::Itself);
  RememberTool(__func__, envelope);
  return result;
}

void KovaContext::HandleBluetoothConfigIncommingMsg(const Kova::BluetoothConfigMsg& message) {
  KOVA_LOG(kLogInfo) << "Handle BluetoothConfig response";
  if (!AnswerTool(__func__, message)) {
    Publish(message);
  }
}

KovaContext::Sent KovaContext::SendBluetoothStatusRequest(const MessageEnvelope& envelope,
                                                          const Kova::BluetoothStatusMsg& message) {
  KOVA_LOG(kLogDebug) << "Send BluetoothStatus request";
  const auto result = ToRadio(message, RadioPart::Itself);
  RememberTool(__func__, envelope);
  return result;
}

void KovaContext::HandleBluetoothStatusIncommingMsg(const Kova::BluetoothStatusMsg& message) {
  KOVA_LOG(kLogInfo) << "Handle BluetoothStatus incomming msg";
  if (!AnswerTool(__func__, message)) {
    Publish(message);
  }
}

KovaContext::Sent KovaContext::SendGattConfigMsg(const MessageEnvelope& envelope,
                                                 const Kova::GattConfigMsg& message) {
  KOVA_LOG(kLogDebug) << "Send GattConfig message";
  const auto result = ToRadio(message, RadioPart::Itself);
  if (message.GattConfigOneof_case() == Kova::GattConfigMsg::kNotification) {
    AcknowledgeTool(__func__, envelope, "request sent");
  } else {
    RememberTool(__func__, envelope);
  }
  return result;
}

void KovaContext::HandleGattConfigIncommingMsg(const Kova::GattConfigMsg& message) {
  KOVA_LOG(kLogInfo) << "Handle GattConfig incomming Msg";
  if (!AnswerTool(__func__, message)) {
    SendMessage(message, "SmartControl");
  }
}

KovaContext::Sent KovaContext::SendFeedbackAction(const MessageEnvelope& envelope,
                                                  const Kova::FeedbackAction& message) {
  KOVA_LOG(kLogDebug) << "Send FeedbackAction";
  const auto result = ToRadio(message, RadioPart::Itself);
  AcknowledgeTool(__func__, envelope, "request sent");
  return result;
}

void KovaContext::HandleSetSocketParams(const MessageEnvelope& envelope,
                                        const Kova::SetSocketParams& message) {
  KOVA_LOG(kLogInfo) << "Recieved socket parameters";
  {
    const std::lock_guard lock(socket_settings_mutex);
    state.socket_settings = {.address = message.ip(), .port = message.port()};
  }
  KOVA_LOG(kLogInfo) << "Set socket params. Ip is " << state.socket_settings->address
                     << " and the port is: " << state.socket_settings->port;
  SendGenericResponse(envelope, true, "");
}

void KovaContext::HandleClearSocketParams(const MessageEnvelope& envelope,
                                          const Kova::ClearSocketParams&) {
  KOVA_LOG(kLogInfo) << "Clearing socket parameters";
  {
    const std::lock_guard lock(socket_settings_mutex);
    state.socket_settings.reset();
  }
  SendGenericResponse(envelope, true, "");
}

// --- Video, location, collaboration, IoT ---------------------------------------------------------

bool KovaContext::HandleRadioLuiError(const Kova::RadioLuiError& message) {
  KOVA_LOG(kLogInfo) << "Handle Radio LUI error " << message.code();
  return SendMessage(message, "Controller");
}

KovaContext::Sent KovaContext::SendRadioStatus(const Kova::RadioStatusMsg& message) {
  switch (message.RadioStatusOneof_case()) {
    case Kova::RadioStatusMsg::kBroadcast:
      KOVA_LOG(kLogDebug) << "Send radio status broadcast";
      break;
    case Kova::RadioStatusMsg::kResponse:
      KOVA_LOG(kLogDebug) << "Send radio status response";
      break;
    default:
      KOVA_LOG(kLogError) << "Wrong type of the message!";
      return std::nullopt;
  }
  return ToRadio(message, RadioPart::Itself);
}

KovaContext::Sent KovaContext::SendLocationInformationRequest(
    const MessageEnvelope& envelope, const Kova::LocationInfoMsg& message) {
  if (message.LocationInfoOneof_case() != Kova::LocationInfoMsg::kRequest) {
    return std::nullopt;
  }
  KOVA_LOG(kLogVerbose) << "Send Location Information request";
  const auto result = ToRadio(message, RadioPart::Situation);
  AcknowledgeTool(__func__, envelope, "Request sent");
  return result;
}

KovaContext::Sent KovaContext::HandleBwcVideoControlRequest(
    const MessageEnvelope& envelope, const Kova::VideoControlRequest& message) {
  KOVA_LOG(kLogInfo) << "Handle Cli Video Control Request";
  RememberTool(__func__, envelope);
  return ToRadio(message, message.radio_send_selector());
}

void KovaContext::HandleRadioVideoControlResponse(const Kova::VideoControlResponse& response) {
  KOVA_LOG(kLogInfo) << "Handle video control Response from Radio";
  if (!AnswerTool(__func__, response)) {
    SendMessage(response, "Collaboration");
  }
}

void KovaContext::HandleInjectQrxRequest(const MessageEnvelope& envelope,
                                         const Kova::InjectQrxRequest& request) {
  KOVA_LOG(kLogInfo) << "Handle Inject Qrx Request";
  const Kova::PelHeader& header = request.header();
  const orka::pel::BaseMessage base{.address = static_cast<std::uint16_t>(header.h1()),
                                    .kind = static_cast<std::uint8_t>(header.h2()),
                                    .flags = static_cast<std::uint8_t>(header.h3()),
                                    .source = static_cast<std::uint16_t>(header.h4()),
                                    .destination = static_cast<std::uint16_t>(header.h5()),
                                    .transaction = static_cast<std::uint16_t>(header.h6()),
                                    .length = static_cast<std::uint16_t>(header.h7())};
  const std::vector<std::uint8_t> payload(request.payload().begin(), request.payload().end());
  const auto [success, reply] = radio_protocol->InjectQRXMessage(payload, base);
  Kova::InjectQrxResponse response;
  response.set_result(success ? 0 : 1);
  response.set_payload(reply.data(), reply.size());
  SendIpcResponse(envelope, response);
}

}  // namespace zelt
