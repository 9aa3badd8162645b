#include "orka/RadioProtocol.h"

#include "Line.h"
#include "Sessions.h"

#include "orka/codec/Codec.h"
#include "zelt/LogClient.h"

namespace orka {

class RadioProtocol::Impl : public Sessions {
 public:
  using Sessions::Sessions;
};

// NOLINTNEXTLINE(performance-unnecessary-value-param): the interface's own signature
RadioProtocol::RadioProtocol(std::shared_ptr<zelt::ServiceModel> /*model*/,
                             const std::string& version, const std::string& productId)
    : impl_(std::make_unique<Impl>(version, productId)) {}
RadioProtocol::~RadioProtocol() = default;

bool RadioProtocol::StartSocket(const SocketSettings& settings, std::uint32_t link_address,
                                std::uint32_t handshake_timeout) {
  return impl_->Start([&] { return Line::MakeTcp(settings); }, link_address, handshake_timeout);
}
bool RadioProtocol::StartUart(const UartSettings& settings, std::uint32_t link_address,
                              std::uint32_t handshake_timeout) {
  return impl_->Start([&] { return Line::OpenSerial(settings); }, link_address, handshake_timeout);
}
void RadioProtocol::Stop() {
  impl_->Stop();
}

SendResult RadioProtocol::SendToRadio(const RadioOutgoingMessage& message,
                                      std::uint32_t radio_send_selector) {
  return impl_->Send(message, radio_send_selector, {});
}
SendResult RadioProtocol::SendTransferData(const qrx::TransferDataRequest& request,
                                           std::uint32_t radio_send_selector,
                                           std::unique_ptr<std::vector<std::uint8_t>> data) {
  return impl_->Send(request, radio_send_selector,
                     data ? codec::ByteView(*data) : codec::ByteView());
}
std::uint16_t RadioProtocol::GetMaxTransferDataSize() {
  return impl_->MaxTransferSize();
}
void RadioProtocol::SetIdentifyAsCamera(bool identify_as_camera) {
  impl_->SetIdentifyAsCamera(identify_as_camera);
}
void RadioProtocol::SetUseTetheredConnection(bool use_tethered_connection) {
  impl_->SetUseTetheredConnection(use_tethered_connection);
}

FileHandleRespWrapper RadioProtocol::MakeFileHandleResponse(
    const Kova::FileHandleOpenResponse& response) {
  FileHandleRespWrapper result;
  result.handle_id = static_cast<std::uint16_t>(response.handle_id());
  result.status = response.status();
  result.attributes = static_cast<std::uint16_t>(response.attributes());
  switch (response.FileHandleDataOneof_case()) {
    case Kova::FileHandleOpenResponse::kDirectory: {
      const auto& entries = response.directory().entries();
      result.data = qrx::DirectoryDataType{{entries.begin(), entries.end()}};
      break;
    }
    case Kova::FileHandleOpenResponse::kText:
      result.data = response.text();
      break;
    case Kova::FileHandleOpenResponse::kSize:
      result.data = response.size();
      break;
    case Kova::FileHandleOpenResponse::kContent:
      result.data = std::vector<std::uint8_t>(response.content().begin(), response.content().end());
      break;
    case Kova::FileHandleOpenResponse::FILEHANDLEDATAONEOF_NOT_SET:
      break;
  }
  if (const auto encoded = codec::EncodeToRadio(result); !encoded.error.empty()) {
    ZELT_LOG(zelt::kLogError, kRadioLogCategory)
        << "The radio is told that file handle " << result.handle_id
        << " failed: " << encoded.error;
    result.status = kFileHandleFailed;
    result.data = std::monostate();
  }
  return result;
}

qrx::DeviceDescriptors RadioProtocol::GetDeviceDescriptors() {
  return impl_->Descriptors();
}
bool RadioProtocol::IsRadioConnected() {
  return impl_->IsConnected();
}

void RadioProtocol::RegisterCallback(NotificationCallback callback) {
  impl_->SetCallback(std::move(callback));
}
void RadioProtocol::Notify(NotifyMessage kind, const RadioNotificationData& data) {
  impl_->Notify(kind, data);
}

std::pair<bool, std::vector<std::uint8_t>> RadioProtocol::InjectQRXMessage(
    gsl::span<const std::uint8_t> message, const pel::BaseMessage& header) {
  return DoInject(message, header);
}
std::pair<bool, std::vector<std::uint8_t>> RadioProtocol::DoInject(
    gsl::span<const std::uint8_t> message, const pel::BaseMessage& header) {
  return impl_->Inject(codec::ByteView(message.data(), message.size()), header);
}

void RadioProtocol::HoldReceiving() {
  impl_->Hold();
}
void RadioProtocol::ContinueReceiving() {
  impl_->Continue();
}
std::size_t RadioProtocol::GetSendRoom() {
  return impl_->Room();
}

LinkCounters RadioProtocol::GetCounters() const {
  return impl_->Counters();
}

}  // namespace orka
