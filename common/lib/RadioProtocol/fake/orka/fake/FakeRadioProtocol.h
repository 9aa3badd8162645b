#pragma once

#include "orka/RadioProtocol.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace orka::fake {

// What the code under test did to the radio protocol, one record a call, in order. The queries
// (GetMaxTransferDataSize, GetDeviceDescriptors, IsRadioConnected, GetSendRoom) are not recorded.
struct StartSocketCall {
  SocketSettings settings;
  std::uint32_t link_address = 0;
  std::uint32_t handshake_timeout = 0;
};
struct StartUartCall {
  UartSettings settings;
  std::uint32_t link_address = 0;
  std::uint32_t handshake_timeout = 0;
};
struct StopCall {};
struct SendCall {
  RadioOutgoingMessage message;
  std::uint32_t selector = 0;
};
struct TransferCall {
  qrx::TransferDataRequest request;
  std::uint32_t selector = 0;
  std::vector<std::uint8_t> data;
};
struct SetIdentifyAsCameraCall {
  bool value = false;
};
struct SetUseTetheredConnectionCall {
  bool value = false;
};
struct MakeFileHandleResponseCall {
  Kova::FileHandleOpenResponse response;
};
struct InjectCall {
  std::vector<std::uint8_t> message;
  pel::BaseMessage header;
};
struct HoldCall {};
struct ContinueCall {};
using Call = std::variant<StartSocketCall, StartUartCall, StopCall, SendCall, TransferCall,
                          SetIdentifyAsCameraCall, SetUseTetheredConnectionCall,
                          MakeFileHandleResponseCall, InjectCall, HoldCall, ContinueCall>;

// What the substitute answers. Changes hold from the next call on.
struct Answers {
  bool start = true;                       // StartSocket and StartUart
  SendResult send = SendResult::Sent;      // SendToRadio
  SendResult transfer = SendResult::Sent;  // SendTransferData
  std::uint16_t max_transfer_data_size = 4096;
  qrx::DeviceDescriptors device_descriptors;
  bool radio_connected = false;
  std::size_t send_room = std::numeric_limits<std::size_t>::max();
  std::pair<bool, std::vector<std::uint8_t>> inject{false, {}};
};

// A radio protocol without a radio: no thread, no socket. Any thread may call any operation.
// MakeFileHandleResponse converts as the real one does.
class FakeRadioProtocol : public RadioProtocol {
 public:
  FakeRadioProtocol() : RadioProtocol(nullptr, "test", "test") {}

  // Reports an event, as the radio thread would: the callback runs on the calling thread. Nothing
  // happens when none is registered.
  void Deliver(NotifyMessage kind, const RadioNotificationData& data = std::string()) {
    Notify(kind, data);
  }

  void SetAnswers(Answers answers) {
    const std::lock_guard lock(mutex_);
    answers_ = std::move(answers);
  }

  // Returns the calls so far and forgets them.
  std::vector<Call> TakeCalls() {
    const std::lock_guard lock(mutex_);
    return std::exchange(calls_, {});
  }

  bool StartSocket(const SocketSettings& settings, std::uint32_t link_address,
                   std::uint32_t handshake_timeout) override {
    return Record(StartSocketCall{settings, link_address, handshake_timeout}).start;
  }
  bool StartUart(const UartSettings& settings, std::uint32_t link_address,
                 std::uint32_t handshake_timeout) override {
    return Record(StartUartCall{settings, link_address, handshake_timeout}).start;
  }
  void Stop() override { Record(StopCall{}); }
  SendResult SendToRadio(const RadioOutgoingMessage& message,
                         std::uint32_t radio_send_selector) override {
    return Record(SendCall{message, radio_send_selector}).send;
  }
  SendResult SendTransferData(const qrx::TransferDataRequest& request,
                              std::uint32_t radio_send_selector,
                              std::unique_ptr<std::vector<std::uint8_t>> data) override {
    return Record(TransferCall{request, radio_send_selector,
                               data ? std::move(*data) : std::vector<std::uint8_t>()})
        .transfer;
  }
  std::uint16_t GetMaxTransferDataSize() override { return Current().max_transfer_data_size; }
  void SetIdentifyAsCamera(bool identify_as_camera) override {
    Record(SetIdentifyAsCameraCall{identify_as_camera});
  }
  void SetUseTetheredConnection(bool use_tethered_connection) override {
    Record(SetUseTetheredConnectionCall{use_tethered_connection});
  }
  FileHandleRespWrapper MakeFileHandleResponse(
      const Kova::FileHandleOpenResponse& response) override {
    Record(MakeFileHandleResponseCall{response});
    return RadioProtocol::MakeFileHandleResponse(response);
  }
  qrx::DeviceDescriptors GetDeviceDescriptors() override { return Current().device_descriptors; }
  bool IsRadioConnected() override { return Current().radio_connected; }
  void HoldReceiving() override { Record(HoldCall{}); }
  void ContinueReceiving() override { Record(ContinueCall{}); }
  std::size_t GetSendRoom() override { return Current().send_room; }

 protected:
  std::pair<bool, std::vector<std::uint8_t>> DoInject(gsl::span<const std::uint8_t> message,
                                                      const pel::BaseMessage& header) override {
    return Record(InjectCall{{message.begin(), message.end()}, header}).inject;
  }

 private:
  Answers Record(Call call) {
    const std::lock_guard lock(mutex_);
    calls_.push_back(std::move(call));
    return answers_;
  }
  Answers Current() const {
    const std::lock_guard lock(mutex_);
    return answers_;
  }

  mutable std::mutex mutex_;
  Answers answers_;          // guarded by mutex_
  std::vector<Call> calls_;  // guarded by mutex_
};

}  // namespace orka::fake
