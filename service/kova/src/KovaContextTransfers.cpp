// The transfers of files: the firmware image that goes to the radio, and the files that the radio
// asks for.

#include "KovaContext.h"
#include "Log.h"

#include "zelt/FileSize.h"
#include "zelt/RegularFile.h"

#include <algorithm>
#include <filesystem>
#include <utility>

namespace zelt {
namespace {

// What the radio takes for a firmware image.
constexpr std::uint8_t kOperationWrite = 1;
constexpr std::uint32_t kAccessReplace = 2;
constexpr std::uint16_t kTransferFileData = 3;

// What the radio is told when nobody on the camera answers it.
constexpr std::uint32_t kWriteNotAnswered = 19;
constexpr std::uint32_t kCreateNotAnswered = 8;

}  // namespace

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
          RadioPart::Itself);
  state.firmware_transfer.source_path = path;
  state.firmware_transfer.target_name = request.target_file_name();
  firmware_stream = std::move(stream);
  state.firmware_transfer.state = TransferState::AwaitingFileAccess;
  state.firmware_transfer.file_size = file_size;
  file_access_timer = StartTimer("File Access timer", [this] { HandleFileAccessTimeout(); });
}

void KovaContext::HandleFileAccessResponse(const orka::qrx::FileAccessResponse& response) {
  KOVA_LOG(kLogInfo) << "Received FileAccessResponse from RT for [" << response.file_name
                     << "] with result [" << response.result << "]";
  if (state.firmware_transfer.state != TransferState::AwaitingFileAccess ||
      response.file_name != state.firmware_transfer.target_name ||
      response.file_size != state.firmware_transfer.file_size) {
    return;
  }
  file_access_timer.Close();
  if (response.result != orka::qrx::Result::Success) {
    AbortFileTransfer();
    return;
  }
  state.firmware_transfer.state = TransferState::AccessGranted;
  StartFileTransfer();
}

void KovaContext::StartFileTransfer() {
  KOVA_LOG(kLogInfo) << "Starting transfer of " << state.firmware_transfer.source_path
                     << " with size: " << state.firmware_transfer.file_size;
  state.firmware_transfer.state = TransferState::Transferring;
  state.firmware_transfer.remaining_bytes = state.firmware_transfer.file_size;
  state.firmware_transfer.chunk_number = 0;
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
  const std::uint32_t size = std::min(state.firmware_transfer.remaining_bytes, limit);
  pending_chunk = std::make_unique<std::vector<std::uint8_t>>(size);
  std::ifstream& stream = firmware_stream;
  stream.read(reinterpret_cast<char*>(pending_chunk->data()), size);
  const auto bytes_read = static_cast<std::uint32_t>(stream.gcount());
  if (!stream.good() || bytes_read < 1) {
    KOVA_LOG(kLogError) << "Failed to read file";
    return false;
  }
  state.firmware_transfer.remaining_bytes -= bytes_read;
  KOVA_LOG(kLogVerbose) << "Read:" << bytes_read
                        << ", remaining: " << state.firmware_transfer.remaining_bytes;
  KOVA_LOG(kLogVerbose) << "Transferring file " << state.firmware_transfer.source_path
                        << ", chunk #" << state.firmware_transfer.chunk_number
                        << ", with size: " << bytes_read;
  radio_protocol->SendTransferData({.kind = kTransferFileData,
                                    .chunk_number = state.firmware_transfer.chunk_number,
                                    .data_size = static_cast<std::uint16_t>(bytes_read)},
                                   std::to_underlying(RadioPart::Itself), std::move(pending_chunk));
  return true;
}

void KovaContext::HandleTransferDataResponse(const orka::qrx::TransferDataResponse& response) {
  KOVA_LOG(kLogVerbose) << "Received TransferDataResponse from RT for chunk#"
                        << response.chunk_number << "] with result [" << response.result << "]";
  if (state.firmware_transfer.state != TransferState::Transferring ||
      response.chunk_number != state.firmware_transfer.chunk_number) {
    return;
  }
  transfer_data_timer.Close();
  if (response.result != orka::qrx::Result::Success) {
    AbortFileTransfer();
  } else if (state.firmware_transfer.remaining_bytes != 0) {
    ++state.firmware_transfer.chunk_number;
    SendNextChunk();
  } else {
    KOVA_LOG(kLogInfo) << "Completed transfer of " << state.firmware_transfer.source_path;
    state.firmware_transfer.state = TransferState::Completed;
    firmware_stream.close();
    SendTransferFirmwareResponse(true);
  }
}

void KovaContext::HandleFileAccessTimeout() {
  KOVA_LOG(kLogError) << "FileAccessResponse was not received from RT for "
                      << state.firmware_transfer.target_name;
  AbortFileTransfer();
}

void KovaContext::HandleTransferDataTimeout() {
  KOVA_LOG(kLogError) << "FileTransferResponse was not received from RT for "
                      << state.firmware_transfer.target_name;
  AbortFileTransfer();
}

void KovaContext::AbortFileTransfer() {
  firmware_stream.close();
  state.firmware_transfer = FirmwareTransfer();
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
  static constexpr auto kPending = &KovaState::pending_file_access_write;
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
  static constexpr auto kPending = &KovaState::pending_file_access_create;
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
  state.*Traits::kPending = request;
  this->*Traits::kTimer = StartTimer(Traits::kTimerName, std::move(on_timeout));
}

template <class Traits>
KovaContext::Sent KovaContext::AnswerFileRequest(const char* function,
                                                 const typename Traits::Response& response) {
  auto& pending = state.*Traits::kPending;
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
  return ToRadio(response, RadioPart::Itself);
}

template <class Traits>
void KovaContext::FailFileRequest(const char* function) {
  auto& pending = state.*Traits::kPending;
  if (!pending) {  // StartTimer withdraws what was closed: only a call from elsewhere comes here
    return;
  }
  ZELT_LOG_AS(function, kLogError, kContextLog) << Traits::kTimedOut;
  const auto failure = Traits::Failure(*pending);
  pending.reset();
  ToRadio(failure, RadioPart::Itself);
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
          RadioPart::Itself);
}

KovaContext::Sent KovaContext::HandleFileHandleOpenResponse(
    const Kova::FileHandleOpenResponse& response) {
  KOVA_LOG(kLogInfo) << "Handle File Handle Open Response";
  const auto result = ToRadio(radio_protocol->MakeFileHandleResponse(response), RadioPart::Itself);
  file_handle_open_timers.erase(response.file_name());
  return result;
}

}  // namespace zelt
