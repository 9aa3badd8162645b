#pragma once

#include "Counters.h"
#include "Injections.h"
#include "Line.h"
#include "Link.h"
#include "RadioThread.h"
#include "Transactions.h"
#include "orka/RadioProtocol.h"
#include "orka/codec/Bytes.h"
#include "orka/codec/Codec.h"
#include "zelt/Mutex.h"
#include "zelt/ThreadAnnotations.h"

#include <chrono>
#include <cstdint>
#include <expected>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace orka {

// Begins and ends the sessions of one radio, one at a time, on a thread of its own; numbers what is
// sent, and tells what comes. What each operation promises stands in RadioProtocol.h.
//
//   stopped --Start()--> starting --device open--> connecting --handshake--> connected
//   starting --no device--> stopped
//   connecting, connected --the link ends--> dead
//   any --Stop()--> stopped
//
// A session has a number, which changes at each start, stop and end: what belongs to another is not
// told any more.
class Sessions {
 public:
  using NotificationCallback = RadioProtocol::NotificationCallback;

  // Opens the line, or tells why there is none. Called without a lock held, so that nobody waits
  // for a device.
  using OpenLine = std::function<std::expected<Line, std::string>()>;

  Sessions(std::string version, std::string product_id)
      : version_(std::move(version)), product_id_(std::move(product_id)) {}
  Sessions(const Sessions&) = delete;
  Sessions& operator=(const Sessions&) = delete;
  ~Sessions() { Stop(); }

  bool Start(const OpenLine& open_line, std::uint32_t link_address,
             std::uint32_t handshake_timeout);
  void Stop();

  SendResult Send(const RadioOutgoingMessage& message, std::uint32_t selector,
                  codec::ByteView chunk);
  std::pair<bool, std::vector<std::uint8_t>> Inject(codec::ByteView message,
                                                    const pel::BaseMessage& header);
  void Hold();
  void Continue();
  std::size_t Room() const;

  void SetCallback(NotificationCallback callback);
  void Notify(NotifyMessage kind, const RadioNotificationData& data);  // for substitutes
  void SetIdentifyAsCamera(bool value) {
    const zelt::Lock lock(mutex_);
    identify_as_camera_ = value;
  }
  void SetUseTetheredConnection(bool value) {
    const zelt::Lock lock(mutex_);
    use_tethered_connection_ = value;
  }
  std::uint16_t MaxTransferSize() const {
    const zelt::Lock lock(mutex_);
    return max_transfer_size_;
  }
  qrx::DeviceDescriptors Descriptors() const {
    const zelt::Lock lock(mutex_);
    return descriptors_;
  }
  bool IsConnected() const {
    const zelt::Lock lock(mutex_);
    return state_ == State::Connected;
  }
  LinkCounters Counters() const;

 private:
  enum class State : std::uint8_t { Stopped, Starting, Connecting, Connected, Dead };

  std::expected<void, std::string> TryStart(const OpenLine& open_line, std::uint32_t link_address,
                                            std::chrono::seconds handshake_timeout);
  std::shared_ptr<Link> MakeLink(std::uint64_t session, Line line, LinkSettings settings);
  std::shared_ptr<Link> EndSession(State state) ZELT_REQUIRES(mutex_);
  struct Refusal {
    SendResult result;
    std::string why;
  };
  std::expected<void, Refusal> TrySend(const codec::Encoded& encoded,
                                       const RadioOutgoingMessage& message, std::uint32_t selector);
  std::expected<codec::Bytes, std::string> TryInject(codec::ByteView message,
                                                     pel::BaseMessage header);

  // Radio thread.
  void Connected(std::uint64_t session, const codec::HelloAnswer& answer);
  FrameVerdict Received(std::uint64_t session, const pel::BaseMessage& header,
                        codec::ByteView payload);
  void Ended(std::uint64_t session, bool was_connected);
  void NotifySession(std::uint64_t session, NotifyMessage kind, RadioNotificationData data);

  // Constant after construction.
  const std::string version_;
  const std::string product_id_;

  AtomicCounters counters_;

  mutable zelt::Mutex mutex_;
  State state_ ZELT_GUARDED_BY(mutex_) = State::Stopped;
  std::uint64_t session_ ZELT_GUARDED_BY(mutex_) = 0;
  std::uint16_t address_ ZELT_GUARDED_BY(mutex_) = 0;
  std::shared_ptr<Link> link_ ZELT_GUARDED_BY(mutex_);  // while connecting or connected
  std::shared_ptr<const NotificationCallback> callback_ ZELT_GUARDED_BY(mutex_);
  bool identify_as_camera_ ZELT_GUARDED_BY(mutex_) = false;
  bool use_tethered_connection_ ZELT_GUARDED_BY(mutex_) = false;
  std::uint16_t max_transfer_size_ ZELT_GUARDED_BY(mutex_) = 0;
  qrx::DeviceDescriptors descriptors_ ZELT_GUARDED_BY(mutex_);
  Injections injections_ ZELT_GUARDED_BY(mutex_);
  Transactions transactions_ ZELT_GUARDED_BY(mutex_){injections_};

  RadioThread thread_;  // last, so that it is gone before what it uses
};

}  // namespace orka
