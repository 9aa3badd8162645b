#include "orka/RadioProtocol.h"

#include <mutex>

namespace orka {

class RadioProtocol::Impl {
 public:
  void SetCallback(NotificationCallback callback) {
    const std::lock_guard lock(mutex_);
    callback_ = std::make_shared<const NotificationCallback>(std::move(callback));
  }
  void Notify(NotifyMessage kind, const RadioNotificationData& data) {
    std::shared_ptr<const NotificationCallback> callback;
    {
      const std::lock_guard lock(mutex_);
      callback = callback_;
    }
    if (callback && *callback) {
      (*callback)(kind, data);
    }
  }

 private:
  std::mutex mutex_;
  std::shared_ptr<const NotificationCallback> callback_;  // guarded by mutex_
};

RadioProtocol::RadioProtocol(std::shared_ptr<zelt::ServiceModel> /*model*/,
                             const std::string& /*version*/, const std::string& /*productId*/)
    : impl_(std::make_unique<Impl>()) {}
RadioProtocol::~RadioProtocol() = default;

bool RadioProtocol::StartSocket(const SocketSettings&, std::uint32_t, std::uint32_t) {
  return false;
}
bool RadioProtocol::StartUart(const UartSettings&, std::uint32_t, std::uint32_t) {
  return false;
}
void RadioProtocol::Stop() {}
SendResult RadioProtocol::SendToRadio(const RadioOutgoingMessage&, std::uint32_t) {
  return SendResult::NotConnected;
}
SendResult RadioProtocol::SendTransferData(const qrx::TransferDataRequest&, std::uint32_t,
                                           std::unique_ptr<std::vector<std::uint8_t>>) {
  return SendResult::NotConnected;
}
std::uint16_t RadioProtocol::GetMaxTransferDataSize() {
  return 0;
}
void RadioProtocol::SetIdentifyAsCamera(bool) {}
void RadioProtocol::SetUseTetheredConnection(bool) {}

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
  return result;
}

qrx::DeviceDescriptors RadioProtocol::GetDeviceDescriptors() {
  return {};
}
bool RadioProtocol::IsRadioConnected() {
  return false;
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
std::pair<bool, std::vector<std::uint8_t>> RadioProtocol::DoInject(gsl::span<const std::uint8_t>,
                                                                   const pel::BaseMessage&) {
  return {false, {}};
}

LinkCounters RadioProtocol::GetCounters() const {
  return {};
}

}  // namespace orka
