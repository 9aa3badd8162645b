#include "Sessions.h"

#include "orka/codec/Codec.h"
#include "zelt/LogClient.h"

#include <asio/post.hpp>

#include <algorithm>
#include <exception>
#include <limits>
#include <sstream>
#include <system_error>

namespace orka {
namespace {

constexpr std::size_t kTransferHeader = 8;  // opcode and record before a chunk's bytes
constexpr const char* kNoRoom = "the radio does not take what is queued already";

std::string Describe(std::string_view name, std::uint16_t opcode) {
  std::ostringstream text;
  text << name << " (0x" << std::hex << std::uppercase;
  text.width(4);
  text.fill('0');
  text << opcode << ')';
  return text.str();
}

std::uint16_t OpcodeOf(codec::ByteView payload) {
  return codec::ByteReader(payload).Take<std::uint16_t>();
}

void Call(const std::shared_ptr<const Sessions::NotificationCallback>& callback, NotifyMessage kind,
          RadioNotificationData data) {
  if (!callback || !*callback) {
    return;
  }
  try {
    (*callback)(kind, std::move(data));
  } catch (const std::exception& error) {
    ZELT_LOG_AS("Notify", zelt::kLogError, kRadioLogCategory)
        << "Notification " << static_cast<std::uint32_t>(kind) << " failed: " << error.what();
  }
}

}  // namespace

// ------------------------------------------------------------------------------------------------
// Beginning and end.

bool Sessions::Start(const OpenLine& open_line, std::uint32_t link_address,
                     std::uint32_t handshake_timeout) {
  const auto started = TryStart(open_line, link_address, std::chrono::seconds(handshake_timeout));
  if (!started) {
    ZELT_LOG(zelt::kLogError, kRadioLogCategory)
        << "Cannot start the link to the radio: " << started.error();
  }
  return started.has_value();
}

std::expected<void, std::string> Sessions::TryStart(const OpenLine& open_line,
                                                    std::uint32_t link_address,
                                                    std::chrono::seconds handshake_timeout) {
  std::uint64_t session = 0;
  LinkSettings settings;
  {
    const zelt::Lock lock(mutex_);
    if (state_ != State::Stopped) {
      return std::unexpected("it is not stopped");
    }
    if (link_address > UINT16_MAX) {
      return std::unexpected("link address " + std::to_string(link_address) + " is not 0 to 65535");
    }
    session = ++session_;
    state_ = State::Starting;
    address_ = static_cast<std::uint16_t>(link_address);
    settings.hello = {codec::kProtocolVersion, identify_as_camera_, use_tethered_connection_,
                      version_, product_id_};
    settings.address = address_;
    settings.handshake_timeout = handshake_timeout;
  }
  std::expected<std::shared_ptr<Link>, std::string> link;
  try {
    if (auto line = open_line()) {
      ZELT_LOG_AS("Start", zelt::kLogInfo, kRadioLogCategory)
          << "Connecting to a radio on " << line->Name();
      link = MakeLink(session, std::move(*line), std::move(settings));
    } else {
      link = std::unexpected(line.error());
    }
  } catch (const std::system_error& failure) {
    link = std::unexpected(failure.what());
  }
  const zelt::Lock lock(mutex_);
  if (session != session_) {
    return std::unexpected("it was stopped meanwhile");
  }
  if (!link) {
    state_ = State::Stopped;
    return std::unexpected(link.error());
  }
  state_ = State::Connecting;
  link_ = *link;
  asio::post(thread_.Io(), [link = *link] { link->Open(); });
  return {};
}

std::shared_ptr<Link> Sessions::MakeLink(std::uint64_t session, Line line, LinkSettings settings) {
  settings.line = line.Name();
  settings.byte_time = line.ByteTime();
  auto link = std::make_shared<Link>(
      thread_.Io(), std::move(line), std::move(settings), counters_,
      LinkEvents{[this, session](const codec::HelloAnswer& answer) { Connected(session, answer); },
                 [this, session](const pel::BaseMessage& header, codec::ByteView payload) {
                   return Received(session, header, payload);
                 },
                 [this, session](bool was_connected) { Ended(session, was_connected); }});
  thread_.Start();
  return link;
}

void Sessions::Stop() {
  std::shared_ptr<Link> link;
  {
    const zelt::Lock lock(mutex_);
    link = EndSession(State::Stopped);
  }
  // Also without a link: a notification may still be running.
  thread_.Run([&] {
    if (link) {
      link->Close();
    }
  });
}

std::shared_ptr<Link> Sessions::EndSession(State state) {
  ++session_;
  state_ = state;
  descriptors_.clear();
  injections_.Clear();
  transactions_.Clear();
  return std::exchange(link_, nullptr);
}

// ------------------------------------------------------------------------------------------------
// Radio thread.

void Sessions::Connected(std::uint64_t session, const codec::HelloAnswer& answer) {
  {
    const zelt::Lock lock(mutex_);
    if (session != session_) {
      return;
    }
    state_ = State::Connected;
    max_transfer_size_ =
        std::min<std::uint16_t>(answer.max_transfer_size, codec::kMaxPayload - kTransferHeader);
    descriptors_ = answer.descriptors;
  }
  NotifySession(session, NotifyMessage::HandshakeCompleted, {});
  if (answer.in_service) {
    NotifySession(session, NotifyMessage::RadioConnected, {});
  }
}

FrameVerdict Sessions::Received(std::uint64_t session, const pel::BaseMessage& header,
                                codec::ByteView payload) {
  const auto kind = static_cast<pel::FrameKind>(header.kind);
  if (kind == pel::FrameKind::Response) {
    const zelt::Lock lock(mutex_);
    if (session == session_ && injections_.Take(header.transaction, payload)) {
      return {};
    }
  }
  auto decoded = codec::DecodeFromRadio(kind, payload);
  if (decoded.row == nullptr) {
    return {FrameVerdict::Kind::UnknownOpcode, Describe("unknown opcode", OpcodeOf(payload)) +
                                                   ", kind of frame " +
                                                   std::to_string(header.kind)};
  }
  if (!decoded.message) {
    return {FrameVerdict::Kind::Malformed,
            Describe(decoded.row->name, decoded.row->opcode) + ": " + decoded.error};
  }
  if (!decoded.note.empty()) {
    ZELT_LOG(zelt::kLogWarning, kRadioLogCategory)
        << "Not exactly what the radio sent: " << Describe(decoded.row->name, decoded.row->opcode)
        << ", " << decoded.note;
  }
  ZELT_LOG(zelt::kLogVerbose, kRadioLogCategory)
      << "Received " << Describe(decoded.row->name, decoded.row->opcode) << ", transaction "
      << header.transaction << ", " << payload.size() << " bytes";
  if (kind == pel::FrameKind::Request) {
    const zelt::Lock lock(mutex_);
    if (session != session_) {
      return {};
    }
    transactions_.Asked(*decoded.row, *decoded.message, header.transaction);
  }
  NotifySession(session, decoded.row->notify, std::move(*decoded.message));
  return {};
}

void Sessions::Ended(std::uint64_t session, bool was_connected) {
  std::shared_ptr<const NotificationCallback> callback;
  {
    const zelt::Lock lock(mutex_);
    if (session != session_) {
      return;
    }
    EndSession(State::Dead);
    callback = callback_;
  }
  Call(callback, was_connected ? NotifyMessage::ConnectionLost : NotifyMessage::HandshakeFailed,
       {});
}

// Stop() waits for this thread, so that a callback that runs here is over when it returns.
void Sessions::NotifySession(std::uint64_t session, NotifyMessage kind,
                             RadioNotificationData data) {
  std::shared_ptr<const NotificationCallback> callback;
  {
    const zelt::Lock lock(mutex_);
    if (session != session_) {
      return;
    }
    callback = callback_;
  }
  Call(callback, kind, std::move(data));
}

// ------------------------------------------------------------------------------------------------
// Sending.

SendResult Sessions::Send(const RadioOutgoingMessage& message, std::uint32_t selector,
                          codec::ByteView chunk) {
  const codec::Encoded encoded = codec::EncodeToRadio(message, chunk);
  const auto sent = TrySend(encoded, message, selector);
  if (!sent) {
    counters_.sends_refused.fetch_add(1, std::memory_order_relaxed);
    ZELT_LOG_AS("SendToRadio", zelt::kLogWarning, kRadioLogCategory)
        << "Not sent to the radio: " << Describe(encoded.row->name, encoded.row->opcode) << ": "
        << sent.error().why;
  }
  return sent ? SendResult::Sent : sent.error().result;
}

std::expected<void, Sessions::Refusal> Sessions::TrySend(const codec::Encoded& encoded,
                                                         const RadioOutgoingMessage& message,
                                                         std::uint32_t selector) {
  const auto refuse = [](SendResult result, std::string why) {
    return std::unexpected(Refusal{result, std::move(why)});
  };
  if (!encoded.error.empty()) {
    return refuse(SendResult::Unencodable, encoded.error);
  }
  if (selector > UINT16_MAX) {
    return refuse(SendResult::Unencodable,
                  "selector " + std::to_string(selector) + " is not 0 to 65535");
  }
  pel::BaseMessage header;
  header.kind = static_cast<std::uint8_t>(encoded.row->kind);
  header.destination = static_cast<std::uint16_t>(selector);
  std::shared_ptr<Link> link;
  {
    const zelt::Lock lock(mutex_);
    if (state_ != State::Connected) {
      return refuse(SendResult::NotConnected, "not connected");
    }
    const auto transaction = transactions_.For(*encoded.row, message);
    if (!transaction) {
      return refuse(SendResult::NotAsked,
                    "it answers no request that the radio made in this session");
    }
    header.address = address_;
    header.transaction = *transaction;
    link = link_;
  }
  codec::Bytes frame;
  codec::AppendFrame(header, encoded.payload, frame);
  if (!link->Queue(frame, encoded.payload.size())) {
    return refuse(SendResult::QueueFull, kNoRoom);
  }
  if (!encoded.note.empty()) {
    ZELT_LOG_AS("SendToRadio", zelt::kLogWarning, kRadioLogCategory)
        << "Not exactly what was to be sent: " << Describe(encoded.row->name, encoded.row->opcode)
        << ", " << encoded.note;
  }
  ZELT_LOG_AS("SendToRadio", zelt::kLogVerbose, kRadioLogCategory)
      << "Sent " << Describe(encoded.row->name, encoded.row->opcode) << " to part " << selector
      << ", transaction " << header.transaction << ", " << encoded.payload.size() << " bytes";
  return {};
}

std::pair<bool, std::vector<std::uint8_t>> Sessions::Inject(codec::ByteView message,
                                                            const pel::BaseMessage& header) {
  auto answer = TryInject(message, header);
  if (!answer) {
    ZELT_LOG_AS("InjectQRXMessage", zelt::kLogWarning, kRadioLogCategory)
        << "Injected message without success: " << answer.error();
    return {false, {}};
  }
  return {true, std::move(*answer)};
}

std::expected<codec::Bytes, std::string> Sessions::TryInject(codec::ByteView message,
                                                             pel::BaseMessage header) {
  if (message.size() < 2 || message.size() > codec::kMaxPayload) {
    return std::unexpected(std::to_string(message.size()) +
                           " bytes are not an opcode and its body");
  }
  if (header.kind > static_cast<std::uint8_t>(pel::FrameKind::Broadcast)) {
    return std::unexpected("kind of frame " + std::to_string(header.kind) + " is not 0 to 2");
  }
  if (thread_.IsThis()) {
    return std::unexpected("the radio's own thread cannot wait for it");
  }
  const auto kind = static_cast<pel::FrameKind>(header.kind);
  zelt::Lock lock(mutex_);
  if (state_ != State::Connected) {
    return std::unexpected("not connected");
  }
  std::shared_ptr<Injections::Waiting> waiting;
  if (kind == pel::FrameKind::Request) {
    header.transaction = header.transaction != 0 ? header.transaction : transactions_.Next();
    waiting = injections_.Begin(
        header.transaction, static_cast<std::uint16_t>(OpcodeOf(message) | codec::kResponseBit));
    if (!waiting) {
      return std::unexpected("transaction " + std::to_string(header.transaction) +
                             " is being waited for already");
    }
  } else if (kind == pel::FrameKind::Broadcast) {
    header.transaction = 0;
  }
  codec::Bytes frame;
  codec::AppendFrame(header, message, frame);
  if (!link_->Queue(frame, message.size())) {
    if (waiting) {
      injections_.Cancel(header.transaction);
    }
    return std::unexpected(kNoRoom);
  }
  if (!waiting) {
    return {};
  }
  if (!injections_.Await(lock, header.transaction, *waiting)) {
    return std::unexpected("no answer in time");
  }
  auto answer = std::move(waiting->answer);
  if (!answer) {
    return std::unexpected("the link ended");
  }
  return std::move(*answer);
}

void Sessions::Hold() {
  const zelt::Lock lock(mutex_);
  if (link_) {
    link_->Hold();
  }
}

void Sessions::Continue() {
  const zelt::Lock lock(mutex_);
  if (link_) {
    link_->Continue();
  }
}

std::size_t Sessions::Room() const {
  const zelt::Lock lock(mutex_);
  return state_ == State::Connected ? link_->Room() : std::numeric_limits<std::size_t>::max();
}

// ------------------------------------------------------------------------------------------------
// What is set and asked.

void Sessions::SetCallback(NotificationCallback callback) {
  auto shared = std::make_shared<const NotificationCallback>(std::move(callback));
  const zelt::Lock lock(mutex_);
  callback_.swap(shared);
}

void Sessions::Notify(NotifyMessage kind, const RadioNotificationData& data) {
  std::shared_ptr<const NotificationCallback> callback;
  {
    const zelt::Lock lock(mutex_);
    callback = callback_;
  }
  if (callback && *callback) {
    (*callback)(kind, data);
  }
}

LinkCounters Sessions::Counters() const {
  return {counters_.frames_sent,      counters_.bytes_sent,
          counters_.frames_received,  counters_.bytes_received,
          counters_.dropped_checksum, counters_.dropped_malformed,
          counters_.dropped_too_long, counters_.dropped_unknown_opcode,
          counters_.sends_refused};
}

}  // namespace orka
