#include "KovaContext.h"
#include "Log.h"

#include "zelt/FileSize.h"
#include "zelt/ForkAndExec.h"
#include "zelt/Paths.h"
#include "zelt/RegularFile.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace zelt {
namespace {

constexpr const char* kToolLine = " --- zeltcli ----";

// What the radio takes for a firmware image.
constexpr std::uint8_t kOperationWrite = 1;
constexpr std::uint32_t kAccessReplace = 2;
constexpr std::uint16_t kTransferFileData = 3;

// What the radio is told when nobody on the camera answers it.
constexpr std::uint32_t kWriteNotAnswered = 19;
constexpr std::uint32_t kCreateNotAnswered = 8;

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
      static_cast<void>(write(STDERR_FILENO, part, std::strlen(part)));
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
  cli_requester = envelope;
  return true;
}

bool KovaContext::AnswerTool(const char* function, const google::protobuf::MessageLite& answer) {
  if (!cli_requester) {
    return false;
  }
  ZELT_LOG_AS(function, kLogInfo, kContextLog) << kToolLine;
  SendIpcResponse(*cli_requester, answer);
  cli_requester.reset();
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
  if (rt_version_requester) {
    KOVA_LOG(kLogError) << "Already have a requester: " << *rt_version_requester;
  }
  rt_version_requester = envelope.sender;
  KOVA_LOG(kLogDebug) << "Send RT version request";
  return ToRadio(message.request(), 0);
}

void KovaContext::HandleRtVersionResponse(const Kova::RtVersionResponse& response) {
  Kova::RtVersionMsg answer;
  *answer.mutable_response() = response;
  AnswerRequester(__func__, rt_version_requester, answer, kLogInfo,
                  "Handle RT version response to ",
                  "Cannot send RT version response, requester is not set");
}

KovaContext::Sent KovaContext::SendHardwareIdRequest(const MessageEnvelope& envelope,
                                                     const Kova::HardwareIdMsg& message) {
  if (message.HardwareIdOneof_case() != Kova::HardwareIdMsg::kRequest) {
    KOVA_LOG(kLogError) << "HardwareId request is not a request";
    return std::nullopt;
  }
  if (hardware_id_requester) {
    KOVA_LOG(kLogError) << "Already have a requester: " << *hardware_id_requester;
  }
  hardware_id_requester = envelope.sender;
  KOVA_LOG(kLogDebug) << "Send HardwareId request";
  return ToRadio(message.request(), 0);
}

void KovaContext::HandleHardwareIdResponse(const Kova::HardwareIdResponse& response) {
  Kova::HardwareIdMsg answer;
  *answer.mutable_response() = response;
  AnswerRequester(__func__, hardware_id_requester, answer, kLogInfo,
                  "Handle HardwareId response to ",
                  "Cannot send HardwareId response, requester is not set");
}

KovaContext::Sent KovaContext::SendLedBrightnessSettingRequest(
    const MessageEnvelope& envelope, const Kova::LedBrightnessSettingMsg& message) {
  led_brightness_requester = envelope.sender;
  KOVA_LOG(kLogDebug) << "Send LedBrightnessSetting request";
  return ToRadio(message, 0);
}

void KovaContext::HandleLedBrightnessSettingResponse(
    const Kova::LedBrightnessSettingMsg& response) {
  AnswerRequester(__func__, led_brightness_requester, response, kLogInfo,
                  "Handle LedBrightnessSetting Response to ",
                  "Cannot forward brithness setting response, requester is not set");
}

KovaContext::Sent KovaContext::SendGetDateTimeRequest(const MessageEnvelope& envelope,
                                                      const Kova::GetDateTimeReq& message) {
  KOVA_LOG(kLogVerbose) << "Send GetDateTime Request";
  if (!RememberTool(__func__, envelope)) {
    get_date_time_requester = envelope.sender;
  }
  return ToRadio(message, 1);
}

void KovaContext::HandleGetDateTimeResponse(const Kova::GetDateTimeResp& response) {
  if (!AnswerTool(__func__, response)) {
    AnswerRequester(__func__, get_date_time_requester, response, kLogDebug,
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
    set_date_time_requester = envelope.sender;
  }
  return ToRadio(message, 0);
}

void KovaContext::HandleSetDateTimeResponse(const Kova::SetDateTimeResp& response) {
  KOVA_LOG(kLogDebug) << "Handle SetDateTime Response with result " << response.result();
  if (!AnswerTool(__func__, response)) {
    Kova::SetDateTimeMsg answer;
    answer.mutable_response()->set_result(response.result());
    AnswerRequester(__func__, set_date_time_requester, answer, kLogDebug,
                    "Handle SetDateTime Response to ",
                    "Cannot forward setDateTimeg response, requester is not set");
  }
}

KovaContext::Sent KovaContext::SendSerialNumberMsg(const Kova::SerialNumberMsg& message) {
  KOVA_LOG(kLogDebug) << "Send SerNumber request";
  return ToRadio(message, message.type());
}

bool KovaContext::HandleSerialNumberIncomingMsg(const Kova::SerialNumberMsg& message) {
  if (IsForCollaboration(message.type())) {
    KOVA_LOG(kLogInfo) << "Handle SerialNumber incoming message from Radio";
    return SendMessage(message, "Collaboration");
  }
  KOVA_LOG(kLogInfo) << "Handle SerialNumber incoming message";
  return SendMessage(message, "RsmControl");
}

KovaContext::Sent KovaContext::SendBtMacAddrMsg(const Kova::BtMacAddressMsg& message) {
  KOVA_LOG(kLogDebug) << "Send BtMacAddress request";
  return ToRadio(message, message.type());
}

bool KovaContext::HandleBtMacAddrIncomingMsg(const Kova::BtMacAddressMsg& message) {
  KOVA_LOG(kLogInfo) << "Handle BtMacAddress incoming message ";
  return SendMessage(message, IsForCollaboration(message.type()) ? "Collaboration" : "RsmControl");
}

// --- Firmware transfer ---------------------------------------------------------------------------

void KovaContext::HandleTransferFirmwareRequest(const MessageEnvelope& envelope,
                                                const Kova::TransferFirmwareRequest& request) {
  RememberTool(__func__, envelope);
  KOVA_LOG(kLogInfo) << "Handle TransferFirmware request from  " << envelope.sender;

  // What exists but has no size (a FIFO, a device, a directory) is not opened: that could hold the
  // service up.
  const std::string& path = request.source_file_path();
  std::ifstream stream = OpenRegularFile(path);
  const auto size = GetFileSize(path);
  std::error_code ignored;
  if (!stream.is_open() && (size || !std::filesystem::exists(path, ignored))) {
    KOVA_LOG(kLogError) << "Error: Could not open source file " << path;
    SendTransferFirmwareResponse(false);
    return;
  }
  if (!size) {
    KOVA_LOG(kLogError) << "Failed to get size of provided firmware image : " << path;
    SendTransferFirmwareResponse(false);
    return;
  }

  const auto file_size = static_cast<std::uint32_t>(*size);
  ToRadio(orka::qrx::FileAccessRequest{.operation = kOperationWrite,
                                       .access_code = kAccessReplace,
                                       .file_size = file_size,
                                       .file_name = request.target_file_name()},
          0);
  firmware_transfer.source_path = path;
  firmware_transfer.target_name = request.target_file_name();
  firmware_transfer.source_stream = std::move(stream);
  firmware_transfer.state = TransferState::AwaitingFileAccess;
  firmware_transfer.file_size = file_size;
  file_access_timer = StartTimer("File Access timer", [this] { HandleFileAccessTimeout(); });
}

void KovaContext::HandleFileAccessResponse(const orka::qrx::FileAccessResponse& response) {
  KOVA_LOG(kLogInfo) << "Received FileAccessResponse from RT for [" << response.file_name
                     << "] with result [" << response.result << "]";
  if (firmware_transfer.state != TransferState::AwaitingFileAccess ||
      response.file_name != firmware_transfer.target_name ||
      response.file_size != firmware_transfer.file_size) {
    return;
  }
  file_access_timer.Close();
  if (response.result != orka::qrx::Result::Success) {
    AbortFileTransfer();
    return;
  }
  firmware_transfer.state = TransferState::AccessGranted;
  StartFileTransfer();
}

void KovaContext::StartFileTransfer() {
  KOVA_LOG(kLogInfo) << "Starting transfer of " << firmware_transfer.source_path
                     << " with size: " << firmware_transfer.file_size;
  firmware_transfer.state = TransferState::Transferring;
  firmware_transfer.remaining_bytes = firmware_transfer.file_size;
  firmware_transfer.chunk_number = 0;
  SendNextChunk();
}

void KovaContext::SendNextChunk() {
  if (!SendFileChunk()) {
    AbortFileTransfer();
    return;
  }
  transfer_data_timer = StartTimer("Transfer data timer", [this] { HandleTransferDataTimeout(); });
}

bool KovaContext::SendFileChunk() {
  const std::uint32_t limit = radio_protocol->GetMaxTransferDataSize();
  const std::uint32_t size = std::min(firmware_transfer.remaining_bytes, limit);
  pending_chunk = std::make_unique<std::vector<std::uint8_t>>(size);
  std::ifstream& stream = firmware_transfer.source_stream;
  stream.read(reinterpret_cast<char*>(pending_chunk->data()), size);
  const auto bytes_read = static_cast<std::uint32_t>(stream.gcount());
  if (!stream.good() || bytes_read < 1) {
    KOVA_LOG(kLogError) << "Failed to read file";
    return false;
  }
  firmware_transfer.remaining_bytes -= bytes_read;
  KOVA_LOG(kLogVerbose) << "Read:" << bytes_read
                        << ", remaining: " << firmware_transfer.remaining_bytes;
  KOVA_LOG(kLogVerbose) << "Transferring file " << firmware_transfer.source_path << ", chunk #"
                        << firmware_transfer.chunk_number << ", with size: " << bytes_read;
  radio_protocol->SendTransferData({.kind = kTransferFileData,
                                    .chunk_number = firmware_transfer.chunk_number,
                                    .data_size = static_cast<std::uint16_t>(bytes_read)},
                                   0, std::move(pending_chunk));
  return true;
}

void KovaContext::HandleTransferDataResponse(const orka::qrx::TransferDataResponse& response) {
  KOVA_LOG(kLogVerbose) << "Received TransferDataResponse from RT for chunk#"
                        << response.chunk_number << "] with result [" << response.result << "]";
  if (firmware_transfer.state != TransferState::Transferring ||
      response.chunk_number != firmware_transfer.chunk_number) {
    return;
  }
  transfer_data_timer.Close();
  if (response.result != orka::qrx::Result::Success) {
    AbortFileTransfer();
  } else if (firmware_transfer.remaining_bytes != 0) {
    ++firmware_transfer.chunk_number;
    SendNextChunk();
  } else {
    KOVA_LOG(kLogInfo) << "Completed transfer of " << firmware_transfer.source_path;
    firmware_transfer.state = TransferState::Completed;
    firmware_transfer.source_stream.close();
    SendTransferFirmwareResponse(true);
  }
}

void KovaContext::HandleFileAccessTimeout() {
  KOVA_LOG(kLogError) << "FileAccessResponse was not received from RT for "
                      << firmware_transfer.target_name;
  AbortFileTransfer();
}

void KovaContext::HandleTransferDataTimeout() {
  KOVA_LOG(kLogError) << "FileTransferResponse was not received from RT for "
                      << firmware_transfer.target_name;
  AbortFileTransfer();
}

void KovaContext::AbortFileTransfer() {
  firmware_transfer.source_stream.close();
  firmware_transfer = FirmwareTransfer();
  SendTransferFirmwareResponse(false);
}

void KovaContext::SendTransferFirmwareResponse(bool success) {
  KOVA_LOG(kLogDebug) << "Sending TransferFirmwareResponse";
  Kova::TransferFirmwareResponse response;
  response.set_result(success ? 0 : 1);
  if (!AnswerTool(__func__, response)) {
    SendMessage(response, "Upgrade");
  }
}

// --- Files that the radio asks for ---------------------------------------------------------------

struct KovaContext::FileAccessWrite {
  using Request = Kova::FileAccessWriteRequest;
  using Response = Kova::FileAccessWriteResponse;
  static constexpr auto kPending = &KovaContext::pending_file_access_write;
  static constexpr auto kTimer = &KovaContext::file_access_write_timer;
  static constexpr int kPublishLevel = kLogDebug;
  static constexpr std::string_view kTimerName = "File access write response timer";
  static constexpr std::string_view kNothingPending =
      "No pending 'File Access Write' request - ignoring response";
  static constexpr std::string_view kReply = "Send file access write reply";
  static constexpr std::string_view kTimedOut =
      "File access write response was not received from any service. Sending a failure reply...";

  static Response Failure(const Request& request) {
    Response response;
    response.set_file_name(request.file_name());
    response.set_request_id(request.request_id());
    response.set_file_size(request.file_size());
    response.set_offset(request.offset());
    response.set_append(request.append());
    response.set_overwrite(request.overwrite());
    response.set_compressed(request.compressed());
    response.set_local_path("");
    response.set_status(kWriteNotAnswered);
    return response;
  }
};

struct KovaContext::FileAccessCreate {
  using Request = Kova::FileAccessCreateRequest;
  using Response = Kova::FileAccessCreateResponse;
  static constexpr auto kPending = &KovaContext::pending_file_access_create;
  static constexpr auto kTimer = &KovaContext::file_access_create_timer;
  static constexpr int kPublishLevel = kLogInfo;
  static constexpr std::string_view kTimerName = "File access create response timer";
  static constexpr std::string_view kNothingPending =
      "No pending 'File Access Create' request - ignoring response";
  static constexpr std::string_view kReply = "Send file access create reply";
  static constexpr std::string_view kTimedOut =
      "File access create response was not received from any service. Sending a failure reply...";

  static Response Failure(const Request& request) {
    Response response;
    response.set_file_name(request.file_name());
    response.set_request_id(request.request_id());
    response.set_file_size(request.file_size());
    response.set_file_type(request.file_type());
    response.set_overwrite(request.overwrite());
    response.set_temporary(request.temporary());
    response.set_status(kCreateNotAnswered);
    return response;
  }
};

template <class Traits>
void KovaContext::ReceiveFileRequest(const char* function, const typename Traits::Request& request,
                                     UniqueFunction<void()> on_timeout) {
  Publish(request);
  ZELT_LOG_AS(function, Traits::kPublishLevel, kContextLog)
      << "Publishing [" << request.GetTypeName() << "]";
  this->*Traits::kPending = request;
  this->*Traits::kTimer = StartTimer(Traits::kTimerName, std::move(on_timeout));
}

template <class Traits>
KovaContext::Sent KovaContext::AnswerFileRequest(const char* function,
                                                 const typename Traits::Response& response) {
  auto& pending = this->*Traits::kPending;
  if (!pending) {
    ZELT_LOG_AS(function, kLogInfo, kContextLog) << Traits::kNothingPending;
    return std::nullopt;
  }
  if (response.request_id() != pending->request_id()) {
    ZELT_LOG_AS(function, kLogInfo, kContextLog)
        << "Received response for a previous request - ignoring response";
    return std::nullopt;
  }
  ZELT_LOG_AS(function, kLogInfo, kContextLog) << Traits::kReply;
  (this->*Traits::kTimer).Close();
  pending.reset();
  return ToRadio(response, 0);
}

template <class Traits>
void KovaContext::FailFileRequest(const char* function) {
  auto& pending = this->*Traits::kPending;
  if (!pending) {  // StartTimer withdraws what was closed: only a call from elsewhere comes here
    return;
  }
  ZELT_LOG_AS(function, kLogError, kContextLog) << Traits::kTimedOut;
  const auto failure = Traits::Failure(*pending);
  pending.reset();
  ToRadio(failure, 0);
}

void KovaContext::HandleFileAccessWriteRequest(const Kova::FileAccessWriteRequest& request) {
  ReceiveFileRequest<FileAccessWrite>(__func__, request,
                                      [this] { HandleFileAccessWriteResponseTimeout(); });
}

KovaContext::Sent KovaContext::SendFileAccessWriteResponse(
    const Kova::FileAccessWriteResponse& response) {
  return AnswerFileRequest<FileAccessWrite>(__func__, response);
}

void KovaContext::HandleFileAccessWriteResponseTimeout() {
  FailFileRequest<FileAccessWrite>(__func__);
}

void KovaContext::HandleFileAccessCreateRequest(const Kova::FileAccessCreateRequest& request) {
  ReceiveFileRequest<FileAccessCreate>(__func__, request,
                                       [this] { HandleFileAccessCreateResponseTimeout(); });
}

KovaContext::Sent KovaContext::SendFileAccessCreateResponse(
    const Kova::FileAccessCreateResponse& response) {
  return AnswerFileRequest<FileAccessCreate>(__func__, response);
}

void KovaContext::HandleFileAccessCreateResponseTimeout() {
  FailFileRequest<FileAccessCreate>(__func__);
}

void KovaContext::HandleFileAccessWriteSessionEnd(const Kova::FileAccessWriteSessionEnd& message) {
  KOVA_LOG(kLogDebug) << "Handle file access write session end - Publishing message";
  Publish(message);
}

void KovaContext::HandleFileHandleOpenRequest(const Kova::FileHandleOpenRequest& request) {
  Publish(request);
  KOVA_LOG(kLogInfo) << "Publishing [" << request.GetTypeName() << "]";
  file_handle_open_timers[request.file_name()] = StartTimer(
      "File handle open timer",
      [this, handle_id = static_cast<std::uint16_t>(request.handle_id()),
       file_name = request.file_name()] { HandleFileHandleOpenTimeout(handle_id, file_name); });
}

void KovaContext::HandleFileHandleOpenTimeout(std::uint16_t handle_id,
                                              const std::string& file_name) {
  KOVA_LOG(kLogInfo) << "File handle open timeout for " << file_name;
  const auto timer = file_handle_open_timers.find(file_name);
  if (timer == file_handle_open_timers.end()) {  // as above
    KOVA_LOG(kLogInfo) << "No timer found for " << file_name;
    return;
  }
  timer->second.Close();
  file_handle_open_timers.erase(timer);
  ToRadio(orka::FileHandleRespWrapper{.handle_id = handle_id,
                                      .status = orka::kFileHandleFailed,
                                      .attributes = 0,
                                      .data = std::monostate()},
          0);
}

KovaContext::Sent KovaContext::HandleFileHandleOpenResponse(
    const Kova::FileHandleOpenResponse& response) {
  KOVA_LOG(kLogInfo) << "Handle File Handle Open Response";
  const auto result = ToRadio(radio_protocol->MakeFileHandleResponse(response), 0);
  file_handle_open_timers.erase(response.file_name());
  return result;
}

// --- Docking, USB, power, shutdown ---------------------------------------------------------------

void KovaContext::DockStatusSubscribeHandler(std::string_view subscriber) {
  if (!last_dock_status) {
    KOVA_LOG(kLogInfo) << "No dock status to send";
    return;
  }
  MediaStreamNotification::InputNotification message;
  message.set_key(last_dock_status->first);
  message.set_state(
      static_cast<MediaStreamNotification::InputNotification::State>(last_dock_status->second));
  KOVA_LOG(kLogInfo) << "Sending " << DockStatusText(message);
  SendMessage(message, subscriber);
}

void KovaContext::HandleDockingNotification(
    const MediaStreamNotification::InputNotification& notification) {
  MediaStreamNotification::InputNotification message = notification;
  const auto state = static_cast<std::uint32_t>(message.state());
  if (state == kDockOn && message.key() == kStandardCableDockKey &&
      access(DoIgnoreDockForStandardCableFile().c_str(), F_OK) != -1) {
    KOVA_LOG(kLogInfo)
        << "override do_ignore_dock_for_standard_cable exists, Ignoring dock for standard cable and executing rndis.sh";
    if (RunNetworkGadgetScript()) {
      KOVA_LOG(kLogInfo) << "Executed rndis.sh successfully";
      return;
    }
    KOVA_LOG(kLogError) << "Failed to execute rndis.sh, not ignoring dock for standard cable";
  }
  if (state == kDockOff) {
    message.set_key(last_dock_status ? last_dock_status->first : kDefaultDockKey);
  }
  last_dock_status = {message.key(), state};
  Publish(message);
  KOVA_LOG(kLogInfo) << "Publishing " << DockStatusText(message);
}

KovaContext::Sent KovaContext::SendShutdownRequest(const Kova::ShutdownRequest& message) {
  KOVA_LOG(kLogInfo) << "Send Shutdown request";
  return ToRadio(message, 0);
}

bool KovaContext::HandleShutdownRequest(const Kova::ShutdownRequest& message) {
  KOVA_LOG(kLogInfo) << "Handle ShutdownRequest";
  return SendMessage(message, "Controller");
}

KovaContext::Sent KovaContext::SendShutdownResponse(const Kova::ShutdownResponse& message) {
  KOVA_LOG(kLogInfo) << "Send ShutdownResponse";
  return ToRadio(message, 0);
}

bool KovaContext::HandleShutdownResponse(const Kova::ShutdownResponse& message) {
  KOVA_LOG(kLogInfo) << "Received Shutdown Response from RT";
  return SendMessage(message, "Controller");
}

KovaContext::Sent KovaContext::SendAmbaUpdateStatus(const Kova::AmbaUpdateStatus& message) {
  KOVA_LOG(kLogInfo) << "Send Amba ready status";
  return ToRadio(message, 0);
}

KovaContext::Sent KovaContext::SendRtDebugLogRequest(const Kova::RtDebugLogMsg& message) {
  KOVA_LOG(kLogDebug) << "Send RT debug log request";
  return ToRadio(message, 0);
}

bool KovaContext::HandleRtDebugLogResponse(const Kova::RtDebugLogMsg& message) {
  KOVA_LOG(kLogVerbose) << "Handle RT Debug log response response";
  return SendMessage(message, "RsmControl");
}

KovaContext::Sent KovaContext::SendBatteryLevelRequest(const Kova::BatteryLevelRequest& message) {
  KOVA_LOG(kLogVerbose) << "Handle BatteryLevelRequest";
  return ToRadio(message, 0);
}

bool KovaContext::HandleBatteryLevel(const Kova::BatteryLevel& message) {
  KOVA_LOG(kLogDebug) << "Handle BatteryLevel";
  return SendMessage(message, "Battery");
}

bool KovaContext::HandleUsbRouteRequest(const Kova::UsbRouteMsg& message) {
  KOVA_LOG(kLogDebug) << "Handle UsbRouteRequest";
  return SendMessage(message, "RsmControl");
}

KovaContext::Sent KovaContext::SendUsbRouteResponse(const Kova::UsbRouteMsg& message) {
  if (message.UsbRouteOneof_case() != Kova::UsbRouteMsg::kResponse) {
    KOVA_LOG(kLogError) << "Wrong type of the message!";
    return std::nullopt;
  }
  KOVA_LOG(kLogDebug) << "Send usb route response";
  return ToRadio(message, 0);
}

KovaContext::Sent KovaContext::SendUsbStatus(const Kova::UsbStatus& message) {
  KOVA_LOG(kLogDebug) << "Send USB status";
  return ToRadio(message, 0);
}

KovaContext::Sent KovaContext::SendRtFactoryResetRequest(
    const MessageEnvelope& envelope, const Kova::RtFactoryResetRequest& message) {
  KOVA_LOG(kLogInfo) << "Send Rt Factory Reset Request";
  const auto result = ToRadio(message, 0);
  RememberTool(__func__, envelope);
  return result;
}

void KovaContext::HandleRtFactoryResetResponse(const Kova::RtFactoryResetResponse& response) {
  KOVA_LOG(kLogInfo) << "Handle Rt Factory Reset Response";
  if (cli_requester) {
    KOVA_LOG(kLogDebug) << " ---Handle Rt Factory Reset Response to zeltcli ----";
    SendIpcResponse(*cli_requester, response);
    cli_requester.reset();
  }
}

// --- Settings and subscriptions ------------------------------------------------------------------

KovaContext::Sent KovaContext::SendOpcodeSubscriptionRequest(
    const MessageEnvelope& envelope, const Kova::OpcodeSubscriptionMsg& message) {
  KOVA_LOG(kLogDebug) << "Send OpcodeSubscription request";
  const auto result = ToRadio(message, 0);
  RememberTool(__func__, envelope);
  return result;
}

void KovaContext::HandleOpcodeSubscriptionResponse(const Kova::OpcodeSubscriptionMsg& message) {
  KOVA_LOG(kLogInfo) << "Handle OpcodeSubscription response";
  if (!AnswerTool(__func__, message)) {
    SendMessage(message, "RsmControl");
  }
}

KovaContext::Sent KovaContext::SendConfigurationSetRequest(
    const Kova::ConfigurationSetMsg& message) {
  KOVA_LOG(kLogDebug) << "Send Configuration set request";
  return ToRadio(message, 0);
}

bool KovaContext::HandleConfigurationSetResponse(const Kova::ConfigurationSetMsg& message) {
  KOVA_LOG(kLogInfo) << "Handle Configuration set response";
  return SendMessage(message, "RsmControl");
}

KovaContext::Sent KovaContext::SendButtonsSubscribtionRequest(
    const Kova::ButtonsSubscribtionMsg& message) {
  KOVA_LOG(kLogDebug) << "Send Buttons Subscribtion request";
  return ToRadio(message, 0);
}

bool KovaContext::HandleButtonsSubscribtionResponse(const Kova::ButtonsSubscribtionMsg& message) {
  KOVA_LOG(kLogInfo) << "Handle Buttons Subscribtion Response";
  return SendMessage(message, "RsmControl");
}

KovaContext::Sent KovaContext::SendBluetoothConfigRequest(const MessageEnvelope& envelope,
                                                          const Kova::BluetoothConfigMsg& message) {
  KOVA_LOG(kLogDebug) << "Send BluetoothConfig request";
  const auto result = ToRadio(message, 0);
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
  const auto result = ToRadio(message, 0);
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
  const auto result = ToRadio(message, 0);
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

KovaContext::Sent KovaContext::SetCovertMode(const Kova::ToggleCovertModeMsg& message) {
  KOVA_LOG(kLogDebug) << "Send Covert mode request";
  return ToRadio(message, 0);
}

bool KovaContext::HandleSetCovertModeResponse(const Kova::ToggleCovertModeMsg& message) {
  KOVA_LOG(kLogInfo) << "Handle Radio Profile Control response";
  return SendMessage(message, "Controller");
}

bool KovaContext::HandleSetCovertModeBroadcast(const Kova::ToggleCovertModeMsg& message) {
  KOVA_LOG(kLogInfo) << "Handle Radio Profile Control Broadcast";
  return SendMessage(message, "Controller");
}

KovaContext::Sent KovaContext::SendFeedbackAction(const MessageEnvelope& envelope,
                                                  const Kova::FeedbackAction& message) {
  KOVA_LOG(kLogDebug) << "Send FeedbackAction";
  const auto result = ToRadio(message, 0);
  AcknowledgeTool(__func__, envelope, "request sent");
  return result;
}

bool KovaContext::HandlePhysicalUserInput(
    const MediaStreamNotification::InputNotification& message) {
  KOVA_LOG(kLogInfo) << "Handle pysical user input";
  return SendMessage(message, "Controller");
}

void KovaContext::HandleSetSocketParams(const MessageEnvelope& envelope,
                                        const Kova::SetSocketParams& message) {
  KOVA_LOG(kLogInfo) << "Recieved socket parameters";
  {
    const std::lock_guard lock(socket_settings_mutex);
    socket_settings = {.address = message.ip(), .port = message.port()};
  }
  KOVA_LOG(kLogInfo) << "Set socket params. Ip is " << socket_settings->address
                     << " and the port is: " << socket_settings->port;
  SendGenericResponse(envelope, true, "");
}

void KovaContext::HandleClearSocketParams(const MessageEnvelope& envelope,
                                          const Kova::ClearSocketParams&) {
  KOVA_LOG(kLogInfo) << "Clearing socket parameters";
  {
    const std::lock_guard lock(socket_settings_mutex);
    socket_settings.reset();
  }
  SendGenericResponse(envelope, true, "");
}

// --- Video, location, collaboration, IoT ---------------------------------------------------------

KovaContext::Sent KovaContext::SendRadioEmergencyRequest(
    const Collaboration::RadioEmergencyMsg& message) {
  KOVA_LOG(kLogDebug) << "Send Emergency request";
  return ToRadio(message, 1);
}

bool KovaContext::HandleRadioEmergencyResponse(const Collaboration::RadioEmergencyMsg& message) {
  KOVA_LOG(kLogDebug) << "Handle Emergency response";
  return SendMessage(message, "Collaboration");
}

bool KovaContext::HandleVideoTagControlRequest(
    const Collaboration::VideoTagControlRequest& message) {
  KOVA_LOG(kLogDebug) << "Handle VideoTagControl Request";
  return SendMessage(message, "Collaboration");
}

KovaContext::Sent KovaContext::SendVideoTagControlReply(
    const Collaboration::VideoTagControlReply& message) {
  KOVA_LOG(kLogDebug) << "Send VideoTagControl reply";
  return ToRadio(message, 1);
}

bool KovaContext::HandleRadioVideoControlRequest(const Kova::VideoControlRequest& message) {
  KOVA_LOG(kLogInfo) << "Handle video control Request ";
  return SendMessage(message, "Collaboration");
}

KovaContext::Sent KovaContext::HandleVideoControlResponse(
    const Kova::VideoControlResponse& message) {
  KOVA_LOG(kLogInfo) << "Handle video control Response from Collaboration service";
  return ToRadio(message, message.radio_send_selector());
}

KovaContext::Sent KovaContext::HandleVideoControlBroadcast(
    const Kova::VideoControlBroadcast& message) {
  KOVA_LOG(kLogInfo) << "Handle video control Broadcast";
  return ToRadio(message, message.radio_send_selector());
}

bool KovaContext::HandleLocationInformationIncoming(const Kova::LocationInfoMsg& message) {
  KOVA_LOG(kLogVerbose) << "Handling incoming Location Information msg";
  return SendMessage(message, "Collaboration");
}

bool KovaContext::HandleRadioLuiError(const Kova::RadioLuiError& message) {
  KOVA_LOG(kLogInfo) << "Handle Radio LUI error " << message.code();
  return SendMessage(message, "Controller");
}

bool KovaContext::HandleRadioStatusRequest(const Kova::RadioStatusMsg& message) {
  KOVA_LOG(kLogInfo) << "Handle radio status request";
  return SendMessage(message, "RsmControl");
}

bool KovaContext::HandleWlanControlIncomingMsg(const Kova::RadioWlanControlIncomingMsg& message) {
  KOVA_LOG(kLogDebug) << "Handle Wlan Control Incoming Msg";
  return SendMessage(message, "Collaboration");
}

KovaContext::Sent KovaContext::SendWlanControlRequest(
    const Kova::RadioWlanControlOutgoingMsg& message) {
  KOVA_LOG(kLogDebug) << "Send RadioWlanControlOutgoingMsg";
  return ToRadio(message, 2);
}

bool KovaContext::HandleWlanHotspotControlIncomingMsg(
    const Kova::RadioWlanHotspotControlIncomingMsg& message) {
  KOVA_LOG(kLogDebug) << "Handle Wlan Hotspot Control incoming Msg";
  return SendMessage(message, "Collaboration");
}

KovaContext::Sent KovaContext::SendWlanHotspotControlRequest(
    const Kova::RadioWlanHotspotControlOutgoingMsg& message) {
  KOVA_LOG(kLogDebug) << "Send WlanHotspotControlOutgoingMsg";
  return ToRadio(message, 2);
}

bool KovaContext::HandleLteStatusIncomingMsg(const Kova::RadioLteControlIncoming& message) {
  KOVA_LOG(kLogInfo) << "Handle LTE status message";
  return SendMessage(message, "Collaboration");
}

KovaContext::Sent KovaContext::SendLteStatusReqMsg(const Kova::RadioLteControlOutgoing& message) {
  KOVA_LOG(kLogInfo) << "Send LTE status request";
  return ToRadio(message, 2);
}

KovaContext::Sent KovaContext::SendMicStatusRequest(const Kova::MicStatusMsg& message) {
  KOVA_LOG(kLogDebug) << "Send Mic Status Request";
  return ToRadio(message, 0);
}

bool KovaContext::HandleMicStatusResponse(const Kova::MicStatusMsg& message) {
  KOVA_LOG(kLogDebug) << "Handle HandleMicStatus Response to rsmService";
  return SendMessage(message, "RsmControl");
}

KovaContext::Sent KovaContext::SendRsmUpdateRequest(const Kova::RsmUpdateRequest& message) {
  KOVA_LOG(kLogInfo) << "Send RsmUpdate request";
  return ToRadio(message, 0);
}

bool KovaContext::HandleRsmUpdateResponse(const Kova::RsmUpdateResponse& message) {
  KOVA_LOG(kLogInfo) << "Handle RsmUpdate response";
  return SendMessage(message, "Upgrade");
}

bool KovaContext::HandleUserPresenceInfoRequest(const Kova::UserPresenceInfoRequest& message) {
  KOVA_LOG(kLogInfo) << "Handle User Presence Info Request";
  return SendMessage(message, "Collaboration");
}

KovaContext::Sent KovaContext::HandleUserPresenceInfoResponse(
    const Kova::UserPresenceInfoResponse& message) {
  KOVA_LOG(kLogInfo) << "Handle User Presence Info Response";
  return ToRadio(message, message.radio_send_selector());
}

bool KovaContext::HandleIoTC2DDataMessage(const Collaboration::IoTC2DDataMessage& message) {
  KOVA_LOG(kLogInfo) << "Handle IoT C2D Data Message";
  return SendMessage(message, "Collaboration");
}

KovaContext::Sent KovaContext::HandleIoTD2CDataMessage(
    const Collaboration::IoTD2CDataMessage& message) {
  KOVA_LOG(kLogInfo) << "Handle IoT D2C Data Message";
  return ToRadio(message, 2);
}

KovaContext::Sent KovaContext::HandleIoTRegisterRequest(
    const Collaboration::IoTRegistrationRequest& message) {
  KOVA_LOG(kLogInfo) << "Handle IoT Register Request";
  return ToRadio(message, 2);
}

bool KovaContext::HandleIoTRegisterResponse(const Collaboration::IoTRegistrationResponse& message) {
  KOVA_LOG(kLogInfo) << "Handle IoT Register Response";
  return SendMessage(message, "Collaboration");
}

KovaContext::Sent KovaContext::HandleIoTConnectionStatusQueryRequest(
    const Collaboration::IoTConnectionStatusQuery& message) {
  KOVA_LOG(kLogInfo) << "Handle Query IoT Connection Status Request";
  return ToRadio(message, 2);
}

bool KovaContext::HandleIoTConnectionStatusIncoming(
    const Collaboration::IoTConnectionStatus& message) {
  KOVA_LOG(kLogInfo) << "Handle IoT Connection Status Response";
  return SendMessage(message, "Collaboration");
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
  return ToRadio(message, 0);
}

KovaContext::Sent KovaContext::SendLocationInformationRequest(
    const MessageEnvelope& envelope, const Kova::LocationInfoMsg& message) {
  if (message.LocationInfoOneof_case() != Kova::LocationInfoMsg::kRequest) {
    return std::nullopt;
  }
  KOVA_LOG(kLogVerbose) << "Send Location Information request";
  const auto result = ToRadio(message, 1);
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
