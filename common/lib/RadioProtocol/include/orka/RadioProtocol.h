#pragma once

#include "orka/NotifyMessage.h"
#include "orka/RadioMessages.h"
#include "orka/pel.h"
#include "orka/qrx.h"

#include <gsl/span>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace zelt {
class ServiceModel;
}

namespace orka {

struct SocketSettings {
  std::string address;     // numeric, IPv4 or IPv6
  std::uint32_t port = 0;  // 1 to 65535
};

struct UartSettings {
  std::string device;
  std::uint32_t baud_rate = 0;     // bits per second, a standard rate of termios
  std::uint32_t stop_bits = 1;     // 1 or 2
  std::uint32_t data_bits = 8;     // 8, the width of a frame's bytes
  std::uint32_t parity = 0;        // 0 none, 1 odd, 2 even
  std::uint32_t flow_control = 0;  // 0 none, 1 RTS/CTS
  std::uint32_t read_timeout = 5;  // VTIME, tenths of a second
  bool modem_control = false;      // heed the carrier line; false sets CLOCAL
  bool exclusive = true;           // refuse a device that another process has open
};

enum class SendResult {
  Sent,          // queued for the wire
  NotConnected,  // no link, or the handshake is not done
  QueueFull,     // the radio does not take what is queued already
  Unencodable,   // too long, or a value that has no counterpart on the radio; the log says which
  NotAsked,      // answers a file request that the radio has not made in this session
};

// What the link has seen since it was created. A snapshot: the values may be a frame apart.
struct LinkCounters {
  std::uint64_t frames_sent = 0;
  std::uint64_t bytes_sent = 0;  // on the wire, overhead included
  std::uint64_t frames_received = 0;
  std::uint64_t bytes_received = 0;
  std::uint64_t dropped_checksum = 0;
  std::uint64_t dropped_malformed =
      0;  // truncated, bad encoding or header, body that does not parse
  std::uint64_t dropped_too_long = 0;
  std::uint64_t dropped_unknown_opcode = 0;
  std::uint64_t sends_refused = 0;  // every SendResult but Sent
};

// The link to the radio: framing, handshake, keep-alive, and the translation between messages and
// what goes over the wire.
//
// One object serves one radio for the life of the service. Any thread may call any operation, also
// from inside the notification callback, unless said otherwise. Nothing throws and nothing
// reconnects by itself:
//
//   stopped --Start*--> connecting --handshake--> connected
//   connecting --refused, time-out--> HandshakeFailed, then dead
//   connected --closed by the radio, silent, takes nothing--> ConnectionLost, then dead
//   any --Stop--> stopped
//
// A start from any state but stopped returns false. docs/radio-link.md says how long a radio may be
// silent and take nothing, and has every other bound.
class RadioProtocol {
 public:
  using NotificationCallback = std::function<void(NotifyMessage, RadioNotificationData)>;

  // What one message takes of GetSendRoom() beside the bytes of its body.
  static constexpr std::size_t kSendOverhead = 64;

  // `version` and `productId` are told to the radio at each handshake. Starts no thread and opens
  // nothing. `model` may be empty in tests.
  RadioProtocol(std::shared_ptr<zelt::ServiceModel> model, const std::string& version,
                const std::string& productId);
  RadioProtocol(const RadioProtocol&) = delete;
  RadioProtocol& operator=(const RadioProtocol&) = delete;
  // Stops. Not from inside the notification callback: it would wait for itself.
  virtual ~RadioProtocol();

  // Starts connecting; the outcome comes as HandshakeCompleted or HandshakeFailed. `link_address`
  // stands in the header of every frame. `handshake_timeout`, in seconds, covers the connection and
  // the handshake. False when it is not stopped, when the settings make no sense, or when the
  // device cannot be opened or does not do one of them; the log says why.
  virtual bool StartSocket(const SocketSettings& settings, std::uint32_t link_address,
                           std::uint32_t handshake_timeout);
  virtual bool StartUart(const UartSettings& settings, std::uint32_t link_address,
                         std::uint32_t handshake_timeout);

  // Closes the link. When it has returned, no notification is running and none will come until the
  // next start (called from inside the callback, it returns at once). A second call waits likewise
  // for a notification that is running. Takes at most 0.1 s beside that. A start that is still
  // opening its device on another thread returns false.
  virtual void Stop();

  // Encodes and queues one message; never blocks. `radio_send_selector` names the part of the
  // radio that is addressed, 0 to 65535. A response carries the number of the request that it
  // answers: a file response that of the request with its request or handle number, any other that
  // of the newest request of its kind that is not answered yet, or 0 when there is none.
  virtual SendResult SendToRadio(const RadioOutgoingMessage& message,
                                 std::uint32_t radio_send_selector);

  // Sends one chunk of a file in the same way. `data` must hold `request.data_size` bytes.
  virtual SendResult SendTransferData(const qrx::TransferDataRequest& request,
                                      std::uint32_t radio_send_selector,
                                      std::unique_ptr<std::vector<std::uint8_t>> data);

  // Returns the largest chunk that the radio takes, in bytes; 0 before the first handshake, and of
  // a radio that takes no file at all.
  virtual std::uint16_t GetMaxTransferDataSize();

  // Set what the next handshake tells the radio.
  virtual void SetIdentifyAsCamera(bool identify_as_camera);
  virtual void SetUseTetheredConnection(bool use_tethered_connection);

  // Makes the record that answers the radio. What is too long for a frame becomes a failure.
  virtual FileHandleRespWrapper MakeFileHandleResponse(
      const Kova::FileHandleOpenResponse& response);

  // Returns what the radio said at the handshake about the devices attached to it; empty when there
  // is no link.
  virtual qrx::DeviceDescriptors GetDeviceDescriptors();

  // Returns true from the handshake until the link is lost or stopped.
  virtual bool IsRadioConnected();

  // Sets the callback. The previous one may still be running when this returns: where that matters,
  // Stop() first. The callback runs on the radio thread, one call at a time, in the order in which
  // things happened, and must return soon.
  void RegisterCallback(NotificationCallback callback);

  // Sends a raw radio message (opcode and body) under the given header, and waits at most 2 s for
  // the response: same transaction, and the opcode with 0x8000 added. A request's transaction of 0
  // lets the link choose, that of a broadcast is always 0, the length always the true one. True
  // with the response's opcode and body; true with nothing at once for responses and broadcasts,
  // which are not answered; false when it was not sent or not answered. No link control: a kind
  // above 2 is refused. Fails at once on the radio thread. Responses to what was injected are not
  // notified, not even late or further ones.
  std::pair<bool, std::vector<std::uint8_t>> InjectQRXMessage(gsl::span<const std::uint8_t> message,
                                                              const pel::BaseMessage& header);

  // Stop reading the line, for a receiver that is behind, and go on reading it. What was read
  // before is still notified, at most 64 KiB. A line that is not read is not taken for a silent
  // radio; its end is noticed only when something is written, or afterwards. Sending goes on. A
  // link that is not connected yet is read all the same. A second call of either does nothing, nor
  // does one without a link; a new link is not held.
  virtual void HoldReceiving();
  virtual void ContinueReceiving();

  // Tells how many bytes of messages the link takes now; each takes its body and kSendOverhead.
  // Without a link that is the largest number: sending has another answer then. Up to two of the
  // largest messages more are taken, so that a message that was admitted by this number is not
  // refused later for what its sender sent in between without asking. Cheap.
  virtual std::size_t GetSendRoom();

  LinkCounters GetCounters() const;

 protected:
  // Tells the registered callback, on the calling thread: for substitutes in tests.
  void Notify(NotifyMessage kind, const RadioNotificationData& data);

  // Does what InjectQRXMessage promises.
  virtual std::pair<bool, std::vector<std::uint8_t>> DoInject(gsl::span<const std::uint8_t> message,
                                                              const pel::BaseMessage& header);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace orka
