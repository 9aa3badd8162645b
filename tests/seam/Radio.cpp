#include "Radio.h"

#include <iostream>

namespace orka {

std::ostream& qrx::operator<<(std::ostream& stream, Result result) {
  return stream << static_cast<int>(result);
}

void qrx::AddDeviceDescriptorsToProtoMsg(Collaboration::RadioConnectionMsg&,
                                         const DeviceDescriptors&) {}

RadioProtocol::RadioProtocol(std::shared_ptr<zelt::ServiceModel>, const std::string& version,
                             const std::string& productId)
    : version_("radio of " + version) {
  std::cout << "radio: made for " << productId << std::endl;
}

bool RadioProtocol::StartSocket(const SocketSettings&, std::uint32_t, std::uint32_t) {
  return false;
}

bool RadioProtocol::StartUart(const UartSettings& settings, std::uint32_t, std::uint32_t) {
  std::cout << "radio: on " << settings.device << std::endl;
  connected_ = true;
  callback_(NotifyMessage::HandshakeCompleted, {});
  return true;
}

void RadioProtocol::Stop() {
  connected_ = false;
}

SendResult RadioProtocol::SendToRadio(const RadioOutgoingMessage& message, std::uint32_t) {
  std::cout << "radio: got alternative " << message.index() << std::endl;
  if (std::holds_alternative<Kova::RtVersionRequest>(message)) {
    Kova::RtVersionResponse answer;
    answer.set_version(version_);
    callback_(NotifyMessage::RtVersion, answer);
  }
  return SendResult::Sent;
}

SendResult RadioProtocol::SendTransferData(const qrx::TransferDataRequest&, std::uint32_t,
                                           std::unique_ptr<std::vector<std::uint8_t>>) {
  return SendResult::Sent;
}

void RadioProtocol::SetIdentifyAsCamera(bool identifyAsCamera) {
  std::cout << "radio: camera " << identifyAsCamera << std::endl;
}

void RadioProtocol::SetUseTetheredConnection(bool useTetheredConnection) {
  std::cout << "radio: tethered " << useTetheredConnection << std::endl;
}

}  // namespace orka
