#include "orka/RadioProtocol.h"

#include "Line.h"
#include "Link.h"
#include "orka/codec/Codec.h"
#include "zelt/LogClient.h"

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <exception>
#include <future>
#include <limits>
#include <map>
#include <mutex>
#include <optional>
#include <sstream>
#include <system_error>
#include <thread>
#include <unordered_map>

namespace orka {
namespace {

constexpr std::chrono::seconds kInjectionTimeout{2};
constexpr std::uint16_t kResponseBit = 0x8000;
constexpr std::size_t kTransferHeader = 8;  // opcode and record before a chunk's bytes

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

}  // namespace

class RadioProtocol::Impl {
 public:
  Impl(std::string version, std::string product_id)
      : version_(std::move(version)), product_id_(std::move(product_id)) {}

  ~Impl() {
    Stop();
    if (thread_.joinable()) {
      work_.reset();
      thread_.join();
    }
  }

  template <class OpenLine>
  bool Start(OpenLine open_line, std::uint32_t link_address, std::uint32_t handshake_timeout) {
    const std::lock_guard lock(mutex_);
    std::string error;
    if (state_ != State::Stopped) {
      error = "it is not stopped";
    } else if (link_address > UINT16_MAX) {
      error = "link address " + std::to_string(link_address) + " is not 0 to 65535";
    } else if (std::optional<Line> line = open_line(error)) {
      try {
        Begin(std::move(*line), static_cast<std::uint16_t>(link_address),
              std::chrono::seconds(handshake_timeout));
        return true;
      } catch (const std::system_error& failure) {
        error = failure.what();
      }
    }
    ZELT_LOG_AS("Start", zelt::kLogError, kLogCategoryRadio)
        << "Cannot start the link to the radio: " << error;
    return false;
  }

  void Stop() {
    std::shared_ptr<Link> link;
    {
      const std::lock_guard lock(mutex_);
      link = EndSession(State::Stopped);
      if (!thread_.joinable()) {
        return;
      }
    }
    if (OnRadioThread()) {
      if (link) {
        link->Close();
      }
      return;
    }
    // Also without a link: a notification may still be running.
    std::promise<void> closed;
    asio::post(io_, [&] {
      if (link) {
        link->Close();
      }
      closed.set_value();
    });
    closed.get_future().wait();
  }

  SendResult Send(const RadioOutgoingMessage& message, std::uint32_t selector,
                  codec::ByteView chunk) {
    std::string error;
    const SendResult result = TrySend(message, selector, chunk, error);
    if (result != SendResult::Sent) {
      counters_.sends_refused.fetch_add(1, std::memory_order_relaxed);
      ZELT_LOG_AS("SendToRadio", zelt::kLogWarning, kLogCategoryRadio)
          << "Not sent to the radio: " << error;
    }
    return result;
  }

  std::pair<bool, std::vector<std::uint8_t>> Inject(codec::ByteView message,
                                                    const pel::BaseMessage& header) {
    std::string error;
    const auto answer = TryInject(message, header, error);
    if (!answer) {
      ZELT_LOG_AS("InjectQRXMessage", zelt::kLogWarning, kLogCategoryRadio)
          << "Injected message without success: " << error;
      return {false, {}};
    }
    return {true, *answer};
  }

  void SetCallback(NotificationCallback callback) {
    auto shared = std::make_shared<const NotificationCallback>(std::move(callback));
    const std::lock_guard lock(mutex_);
    callback_.swap(shared);
  }

  // For substitutes, which have no link.
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

  void SetIdentifyAsCamera(bool value) {
    const std::lock_guard lock(mutex_);
    identify_as_camera_ = value;
  }
  void SetUseTetheredConnection(bool value) {
    const std::lock_guard lock(mutex_);
    use_tethered_connection_ = value;
  }
  std::uint16_t MaxTransferSize() const {
    const std::lock_guard lock(mutex_);
    return max_transfer_size_;
  }
  qrx::DeviceDescriptors Descriptors() const {
    const std::lock_guard lock(mutex_);
    return descriptors_;
  }
  bool IsConnected() const {
    const std::lock_guard lock(mutex_);
    return state_ == State::Connected;
  }
  LinkCounters Counters() const {
    return {counters_.frames_sent,      counters_.bytes_sent,
            counters_.frames_received,  counters_.bytes_received,
            counters_.dropped_checksum, counters_.dropped_malformed,
            counters_.dropped_too_long, counters_.dropped_unknown_opcode,
            counters_.sends_refused};
  }

 private:
  enum class State : std::uint8_t { Stopped, Connecting, Connected, Dead };

  bool OnRadioThread() const { return radio_thread_.load() == std::this_thread::get_id(); }

  // With mutex_ held.
  void Begin(Line line, std::uint16_t address, std::chrono::seconds handshake_timeout) {
    ZELT_LOG_AS("Start", zelt::kLogInfo, kLogCategoryRadio)
        << "Connecting to a radio on " << line.name;
    const std::uint64_t session = session_ + 1;
    LinkEvents events{
        [this, session](const codec::HelloAnswer& answer) { Connected(session, answer); },
        [this, session](const pel::BaseMessage& header, codec::ByteView payload) {
          return Received(session, header, payload);
        },
        [this, session](bool was_connected) { Ended(session, was_connected); }};
    auto link =
        std::make_shared<Link>(io_, std::move(line),
                               LinkSettings{{codec::kProtocolVersion, identify_as_camera_,
                                             use_tethered_connection_, version_, product_id_},
                                            address,
                                            handshake_timeout},
                               counters_, std::move(events));
    if (!thread_.joinable()) {
      StartThread();
    }
    session_ = session;
    address_ = address;
    state_ = State::Connecting;
    link_ = link;
    asio::post(io_, [link] { link->Open(); });
  }

  // Signals stay with the threads that wait for them.
  void StartThread() {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
      thread_ = std::thread([this] {
        radio_thread_ = std::this_thread::get_id();
        io_.run();
      });
    } catch (...) {
      pthread_sigmask(SIG_SETMASK, &before, nullptr);
      throw;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
  }

  // With mutex_ held. Nothing of the session is notified any more.
  std::shared_ptr<Link> EndSession(State state) {
    ++session_;
    state_ = state;
    descriptors_.clear();
    open_requests_.clear();
    for (auto& [transaction, injection] : injections_) {
      injection->over = true;
    }
    injections_.clear();
    injection_over_.notify_all();
    return std::exchange(link_, nullptr);
  }

  // ----------------------------------------------------------------------------------------------
  // Radio thread.

  void Connected(std::uint64_t session, const codec::HelloAnswer& answer) {
    {
      const std::lock_guard lock(mutex_);
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

  FrameVerdict Received(std::uint64_t session, const pel::BaseMessage& header,
                        codec::ByteView payload) {
    const auto kind = static_cast<pel::FrameKind>(header.kind);
    if (kind == pel::FrameKind::Response &&
        TakeForInjection(session, header.transaction, payload)) {
      return {};
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
    ZELT_LOG_AS("Received", zelt::kLogVerbose, kLogCategoryRadio)
        << "Received " << Describe(decoded.row->name, decoded.row->opcode) << ", transaction "
        << header.transaction << ", " << payload.size() << " bytes";
    if (kind == pel::FrameKind::Request) {
      const std::lock_guard lock(mutex_);
      if (session != session_) {
        return {};
      }
      open_requests_[decoded.row->opcode] = header.transaction;
    }
    NotifySession(session, decoded.row->notify, std::move(*decoded.message));
    return {};
  }

  void Ended(std::uint64_t session, bool was_connected) {
    std::shared_ptr<const NotificationCallback> callback;
    {
      const std::lock_guard lock(mutex_);
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
  void NotifySession(std::uint64_t session, NotifyMessage kind, RadioNotificationData data) {
    std::shared_ptr<const NotificationCallback> callback;
    {
      const std::lock_guard lock(mutex_);
      if (session != session_) {
        return;
      }
      callback = callback_;
    }
    Call(callback, kind, std::move(data));
  }

  static void Call(const std::shared_ptr<const NotificationCallback>& callback, NotifyMessage kind,
                   RadioNotificationData data) {
    if (!callback || !*callback) {
      return;
    }
    try {
      (*callback)(kind, std::move(data));
    } catch (const std::exception& error) {
      ZELT_LOG_AS("Notify", zelt::kLogError, kLogCategoryRadio)
          << "Notification " << static_cast<std::uint32_t>(kind) << " failed: " << error.what();
    }
  }

  bool TakeForInjection(std::uint64_t session, std::uint16_t transaction, codec::ByteView payload) {
    const std::lock_guard lock(mutex_);
    const auto found = injections_.find(transaction);
    if (session != session_ || found == injections_.end() ||
        payload.size() < sizeof(std::uint16_t) ||
        OpcodeOf(payload) != found->second->answer_opcode) {
      return false;
    }
    found->second->answer.emplace(payload.begin(), payload.end());
    found->second->over = true;
    injections_.erase(found);
    injection_over_.notify_all();
    return true;
  }

  // ----------------------------------------------------------------------------------------------
  // Any thread.

  struct Injection {
    std::uint16_t answer_opcode = 0;
    bool over = false;
    std::optional<codec::Bytes> answer;
  };

  SendResult TrySend(const RadioOutgoingMessage& message, std::uint32_t selector,
                     codec::ByteView chunk, std::string& error) {
    codec::Encoded encoded = codec::EncodeToRadio(message, chunk);
    error = Describe(encoded.row->name, encoded.row->opcode) + ": ";
    if (!encoded.error.empty()) {
      error += encoded.error;
      return SendResult::Unencodable;
    }
    if (selector > UINT16_MAX) {
      error += "selector " + std::to_string(selector) + " is not 0 to 65535";
      return SendResult::Unencodable;
    }
    pel::BaseMessage header;
    header.kind = static_cast<std::uint8_t>(encoded.row->kind);
    header.destination = static_cast<std::uint16_t>(selector);
    std::shared_ptr<Link> link;
    {
      const std::lock_guard lock(mutex_);
      if (state_ != State::Connected) {
        error += "not connected";
        return SendResult::NotConnected;
      }
      link = link_;
      header.address = address_;
      header.transaction = TransactionFor(*encoded.row);
    }
    codec::Bytes frame;
    codec::AppendFrame(header, encoded.payload, frame);
    if (!link->Queue(frame)) {
      error += "the radio does not take what is queued already";
      return SendResult::QueueFull;
    }
    ZELT_LOG_AS("SendToRadio", zelt::kLogVerbose, kLogCategoryRadio)
        << "Sent " << Describe(encoded.row->name, encoded.row->opcode) << " to part " << selector
        << ", transaction " << header.transaction << ", " << encoded.payload.size() << " bytes";
    return SendResult::Sent;
  }

  // With mutex_ held. A response carries the number of the radio's latest request of its kind.
  std::uint16_t TransactionFor(const codec::MessageRow& row) {
    switch (row.kind) {
      case pel::FrameKind::Request:
        return NextTransaction();
      case pel::FrameKind::Response: {
        const auto request = static_cast<std::uint16_t>(row.opcode & ~kResponseBit);
        const auto open = open_requests_.find(request);
        return open != open_requests_.end() ? open->second : std::uint16_t{0};
      }
      default:
        return 0;
    }
  }

  // With mutex_ held.
  std::uint16_t NextTransaction() {
    do {
      ++last_transaction_;
    } while (last_transaction_ == 0 || injections_.contains(last_transaction_));
    return last_transaction_;
  }

  std::optional<codec::Bytes> TryInject(codec::ByteView message, pel::BaseMessage header,
                                        std::string& error) {
    if (message.size() < 2 || message.size() > codec::kMaxPayload) {
      error = std::to_string(message.size()) + " bytes are not an opcode and its body";
      return std::nullopt;
    }
    if (header.kind > static_cast<std::uint8_t>(pel::FrameKind::Broadcast)) {
      error = "kind of frame " + std::to_string(header.kind) + " is not 0 to 2";
      return std::nullopt;
    }
    if (OnRadioThread()) {
      error = "the radio's own thread cannot wait for it";
      return std::nullopt;
    }
    const bool answered = header.kind == static_cast<std::uint8_t>(pel::FrameKind::Request);
    const auto injection = std::make_shared<Injection>();
    injection->answer_opcode = static_cast<std::uint16_t>(OpcodeOf(message) | kResponseBit);
    std::unique_lock lock(mutex_);
    if (state_ != State::Connected) {
      error = "not connected";
      return std::nullopt;
    }
    if (header.transaction == 0) {
      header.transaction = NextTransaction();
    }
    if (answered && !injections_.emplace(header.transaction, injection).second) {
      error = "transaction " + std::to_string(header.transaction) + " is being waited for already";
      return std::nullopt;
    }
    codec::Bytes frame;
    codec::AppendFrame(header, message, frame);
    if (!link_->Queue(frame)) {
      if (answered) {
        injections_.erase(header.transaction);
      }
      error = "the radio does not take what is queued already";
      return std::nullopt;
    }
    if (!answered) {
      return codec::Bytes();
    }
    if (!injection_over_.wait_for(lock, kInjectionTimeout, [&] { return injection->over; })) {
      injections_.erase(header.transaction);
      error = "no answer in time";
    } else if (!injection->answer) {
      error = "the link ended";
    }
    return std::move(injection->answer);
  }

  // Constant after construction.
  const std::string version_;
  const std::string product_id_;

  AtomicCounters counters_;
  std::atomic<std::thread::id> radio_thread_{std::thread::id()};

  mutable std::mutex mutex_;
  std::condition_variable injection_over_;
  // Guarded by mutex_.
  State state_ = State::Stopped;
  std::uint64_t session_ = 0;  // changes at each start, stop and loss
  std::uint16_t address_ = 0;
  std::shared_ptr<Link> link_;
  std::shared_ptr<const NotificationCallback> callback_;
  bool identify_as_camera_ = false;
  bool use_tethered_connection_ = false;
  std::uint16_t max_transfer_size_ = 0;
  qrx::DeviceDescriptors descriptors_;
  std::uint16_t last_transaction_ = 0;
  std::unordered_map<std::uint16_t, std::uint16_t> open_requests_;  // opcode to transaction
  std::map<std::uint16_t, std::shared_ptr<Injection>> injections_;  // by transaction

  // Last, so that the thread is gone before what it uses.
  asio::io_context io_{1};
  asio::executor_work_guard<asio::io_context::executor_type> work_{io_.get_executor()};
  std::thread thread_;  // guarded by mutex_; from the first start on
};

// NOLINTNEXTLINE(performance-unnecessary-value-param): the interface's own signature
RadioProtocol::RadioProtocol(std::shared_ptr<zelt::ServiceModel> /*model*/,
                             const std::string& version, const std::string& productId)
    : impl_(std::make_unique<Impl>(version, productId)) {}
RadioProtocol::~RadioProtocol() = default;

bool RadioProtocol::StartSocket(const SocketSettings& settings, std::uint32_t linkAddress,
                                std::uint32_t handshakeTimeout) {
  return impl_->Start([&](std::string& error) { return MakeTcpLine(settings, error); }, linkAddress,
                      handshakeTimeout);
}
bool RadioProtocol::StartUart(const UartSettings& settings, std::uint32_t linkAddress,
                              std::uint32_t handshakeTimeout) {
  return impl_->Start([&](std::string& error) { return OpenSerialLine(settings, error); },
                      linkAddress, handshakeTimeout);
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
void RadioProtocol::SetIdentifyAsCamera(bool identifyAsCamera) {
  impl_->SetIdentifyAsCamera(identifyAsCamera);
}
void RadioProtocol::SetUseTetheredConnection(bool useTetheredConnection) {
  impl_->SetUseTetheredConnection(useTetheredConnection);
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

void RadioProtocol::HoldReceiving() {}
void RadioProtocol::ContinueReceiving() {}
std::size_t RadioProtocol::GetSendRoom() {
  return std::numeric_limits<std::size_t>::max();
}

LinkCounters RadioProtocol::GetCounters() const {
  return impl_->Counters();
}

}  // namespace orka
