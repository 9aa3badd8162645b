#pragma once

#include "BusNames.h"
#include "EventLoop.h"
#include "SdBus.h"
#include "zelt/BusConnection.h"
#include "zelt/RevocableCallback.h"

#include <atomic>
#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zelt {

// What a process has sent and does not know the end of.
struct UnderWay {
  std::atomic<std::size_t> messages{0};
  std::atomic<std::size_t> bytes{0};  // of payload
};

// The end of one operation: reports its result exactly once, and "Disconnected" when it is dropped.
// Until then it counts as under way.
template <class Result>
class Completion {
 public:
  explicit Completion(UniqueFunction<void(Result)> report, UnderWay* under_way = nullptr,
                      std::size_t bytes = 0)
      : report_(std::move(report)), under_way_(under_way), bytes_(bytes) {
    if (under_way_ != nullptr) {
      under_way_->messages += 1;
      under_way_->bytes += bytes_;
    }
  }
  Completion(Completion&& other) noexcept
      : report_(std::exchange(other.report_, nullptr)),
        under_way_(other.under_way_),
        bytes_(other.bytes_) {}
  Completion& operator=(Completion&&) = delete;
  ~Completion() {
    if (report_) {
      Result result;
      result.error = "the connection to the bus was closed";
      (*this)(std::move(result));
    }
  }

  void operator()(Result result) {
    if (auto report = std::exchange(report_, nullptr)) {
      if (under_way_ != nullptr) {
        under_way_->messages -= 1;
        under_way_->bytes -= bytes_;
      }
      report(std::move(result));
    }
  }

 private:
  UniqueFunction<void(Result)> report_;
  UnderWay* under_way_;
  std::size_t bytes_;
};

// What is on the bus and who calls whom stands in docs/ipc.md.
//
// sd-bus is touched on the loop's thread only, except by the constructor, which runs before there
// is one. Callbacks of the user's are called where no exception of theirs reaches sd-bus.
class BusConnectionImpl final : public BusConnection,
                                public std::enable_shared_from_this<BusConnectionImpl> {
 public:
  explicit BusConnectionImpl(std::string_view service);
  BusConnectionImpl(const BusConnectionImpl&) = delete;
  BusConnectionImpl& operator=(const BusConnectionImpl&) = delete;
  ~BusConnectionImpl() override;  // not on the loop's thread

  void Start();
  bool IsOnLoop() const { return loop_.IsOnLoop(); }

  AsyncCallbackHandle RegisterCallbackImpl(
      std::string_view typeName, std::optional<gsl::span<std::string_view>> allowedSenders,
      MessageCallback callback) override;
  AsyncCallbackHandle AddSubscribeHandlerImpl(SubscribeHandler handler,
                                              std::string_view topic) override;
  std::future<bool> SendImpl(std::string_view destination, std::string_view typeName,
                             std::string_view payload) override;
  std::future<bool> SendResponseImpl(const MessageEnvelope& envelope, std::string_view typeName,
                                     std::string_view payload) override;
  std::future<bool> PublishImpl(std::string_view topic, std::string_view payload) override;
  AsyncCallbackHandle SubscribeImpl(std::string_view topic, MessageCallback callback) override;
  std::future<Reply> RequestImpl(std::string_view destination, std::string_view typeName,
                                 std::string_view payload,
                                 std::chrono::milliseconds timeout) override;

  AsyncCallbackHandle AddTimer(std::string_view name, UniqueFunction<void()> callback,
                               Seconds interval, bool periodic) override;
  void SetState(std::uint32_t state) override;
  AsyncCallbackHandle WatchState(std::string_view service,
                                 UniqueFunction<void(std::uint32_t)> callback) override;
  std::future<StateReply> QueryState(std::string_view service, Seconds timeout) override;
  std::vector<std::string> ListNames() override;
  AsyncCallbackHandle WatchDisconnect(UniqueFunction<void()> callback) override;
  AsyncCallbackHandle WatchSignals(std::initializer_list<int> signals,
                                   UniqueFunction<void(int)> callback) override;
  void Flush() override;

 private:
  using Time = TimerQueue::Time;

  // Outgoing. One message on its way to the bus; the views are those of the caller or of the
  // closure that carried it to the loop.
  enum class Kind { Send, Respond, Publish };
  struct Outgoing {
    Kind kind;
    std::string_view bus_name;  // empty for Publish
    std::string_view type;
    std::string_view payload;
    std::uint64_t request = 0;  // Respond: what it answers
    std::chrono::milliseconds
        answer_time{};  // Send: how long to wait for an answer; 0: awaits none
    Time start = TimerQueue::Now();
  };
  struct CallResult {
    Outcome outcome = Outcome::Disconnected;  // Delivered: `reply` holds the peer's return values
    sd_bus_message* reply = nullptr;
    std::string error;
  };
  using CallHandler = UniqueFunction<void(const CallResult&)>;
  // A method call that the peer has not answered yet.
  struct Call {
    BusConnectionImpl* self = nullptr;
    std::uint64_t id = 0;
    std::string peer;          // see Peer
    std::uint64_t cookie = 0;  // its number on the bus
    SlotPtr slot;
    AsyncCallbackHandle deadline;
    CallHandler handler;
  };
  // A receiver that has not answered every call, those that timed out included: the bus counts them
  // as well. When its connection goes, the bus answers in its place.
  struct Peer {
    std::size_t unanswered = 0;
    std::size_t timed_out = 0;  // since it last answered any, or its name changed hands
  };
  // A sent message whose answer is awaited, from its sending until the answer or its end.
  struct Request {
    explicit Request(Completion<Reply> completion) : done(std::move(completion)) {}

    std::string bus_name;
    std::string peer;        // the one connection that may answer
    bool delivered = false;  // `peer` has acknowledged it, and is no longer a guess
    SlotPtr end_of_peer;     // for one without a name; the end of others is told anyway
    AsyncCallbackHandle deadline;
    Completion<Reply> done;
  };

  // Incoming. What a registration, a subscribe handler or a subscription wants to hear.
  enum class ReceiverKind { Callback, Handler, Subscription };
  struct Receiver {
    Receiver(ReceiverKind receiver_kind, std::string_view receiver_name,
             std::optional<std::vector<std::string>> senders, MessageCallback function)
        : kind(receiver_kind),
          name(receiver_name),
          allowed_senders(std::move(senders)),
          callback(std::move(function)) {}

    const ReceiverKind kind;
    const std::string name;  // type or topic; empty: any
    const std::optional<std::vector<std::string>> allowed_senders;
    RevocableCallback<const MessageEnvelope&, std::string_view> callback;
    BusConnectionImpl* self = nullptr;
  };
  struct Match {
    std::shared_ptr<Receiver> receiver;
    SlotPtr slot;
  };
  struct Watch {
    std::string bus_name;
    std::shared_ptr<RevocableCallback<std::uint32_t>> callback;
    std::optional<std::uint32_t> told;
    std::uint64_t generation = 0;  // counts the owners that the name has had
  };

  void Connect();
  void OwnName(const std::string& service);
  void FillNames();
  void AddMatch(const char* rule, sd_bus_message_handler_t handler);
  void Teardown();
  bool IsOpen() const;

  static std::pair<UniqueFunction<void(Reply)>, std::future<bool>> BoolPromise();
  void Transmit(const Outgoing& outgoing, std::string_view peer,
                UniqueFunction<void(Reply)> report);
  int NewMessage(const Outgoing& outgoing, std::uint64_t request, MessagePtr& message);
  void Deliver(const Outgoing& outgoing, bool waits, Completion<Reply> done);
  void DeliverAndAwaitAnswer(const Outgoing& outgoing, std::uint64_t id, sd_bus_message* message,
                             Completion<Reply> done);
  void DeliverToSelf(const Outgoing& outgoing, sd_bus_message* message, Completion<Reply> done);
  static Reply ToReply(const CallResult& call, Kind kind);
  void FinishRequest(std::uint64_t id, Reply reply);
  std::string WhyFull(std::size_t size);
  void Invoke(sd_bus_message* message, std::optional<Time> deadline, bool waits,
              CallHandler handler);
  std::optional<CallResult> Refusal(const std::string& peer) const;
  void Answered(const std::string& peer, std::string_view sender);
  void TimeOut(std::uint64_t cookie, const std::string& peer);
  void FinishCall(std::uint64_t id, const CallResult& result);
  CallResult ToResult(sd_bus_message* reply, int result, const sd_bus_error* error) const;
  MessagePtr NewStateQuery(const std::string& bus_name);
  static int OnReply(sd_bus_message* reply, void* call, sd_bus_error* error) noexcept;

  AsyncCallbackHandle AddReceiver(ReceiverKind kind, std::string_view name,
                                  std::optional<std::vector<std::string>> allowed_senders,
                                  MessageCallback callback);
  void RemoveReceiver(const std::shared_ptr<Receiver>& receiver);
  void InstallMatch(const std::shared_ptr<Receiver>& receiver);
  std::vector<std::shared_ptr<Receiver>> FindReceivers(std::string_view type,
                                                       std::string_view sender);
  static bool CallReceiver(Receiver& receiver, const MessageEnvelope& envelope,
                           std::string_view payload);
  bool MayComplain();
  bool AcceptResponse(std::string_view connection, std::uint64_t request, std::string_view type,
                      std::string_view payload);
  void Announce(const std::string& topic);
  void AnnounceAll();
  void AskState(std::uint64_t id);
  void TellState(std::uint64_t id, std::uint32_t state);

  // They return what sd-bus expects: negative with an error set, 0 when others may also have it.
  int OnSend(sd_bus_message* message, sd_bus_error* error);
  int OnRespond(sd_bus_message* message, sd_bus_error* error);
  int OnAnything(sd_bus_message* message, sd_bus_error* error);
  int OnNameOwnerChanged(sd_bus_message* message, sd_bus_error* error);
  int OnPropertiesChanged(sd_bus_message* message, sd_bus_error* error);
  int OnDisconnected(sd_bus_message* message, sd_bus_error* error);
  template <int (BusConnectionImpl::*Handler)(sd_bus_message*, sd_bus_error*)>
  static int Entry(sd_bus_message* message, void* self, sd_bus_error* error) noexcept {
    return (static_cast<BusConnectionImpl*>(self)->*Handler)(message, error);
  }
  static int OnReceived(sd_bus_message* message, void* receiver, sd_bus_error* error) noexcept;
  static int OnMatchInstalled(sd_bus_message* reply, void* receiver, sd_bus_error* error) noexcept;
  static int GetState(sd_bus*, const char* path, const char* interface, const char* property,
                      sd_bus_message* reply, void* self, sd_bus_error* error) noexcept;
  static int GetLogLevel(sd_bus*, const char* path, const char* interface, const char* property,
                         sd_bus_message* reply, void* self, sd_bus_error* error) noexcept;
  static int SetLogLevel(sd_bus*, const char* path, const char* interface, const char* property,
                         sd_bus_message* value, void* self, sd_bus_error* error) noexcept;
  static const sd_bus_vtable kVtable[];

  // constant after construction
  std::string address_;
  std::string own_bus_name_;
  std::string unique_name_;

  std::atomic<std::uint32_t> state_{0};
  UnderWay under_way_;

  std::mutex mutex_;
  // guarded by mutex_
  std::vector<std::shared_ptr<Receiver>> receivers_;  // in order of registration

  EventLoop loop_;

  // touched by the loop's thread only, once it runs
  BusPtr bus_;
  bool lost_ = false;
  NameMap names_;
  std::uint64_t last_id_ = 0;  // of calls, requests and watches
  std::map<std::uint64_t, Call> calls_;
  std::map<std::uint64_t, std::string> late_;       // cookie -> peer, of the calls that timed out
  std::map<std::string, Peer, std::less<>> peers_;  // by bus name
  std::deque<std::size_t> queued_sizes_;            // of the latest messages, see WhyFull
  std::size_t queued_bytes_ = 0;                    // their sum
  std::size_t complaints_ = 0;
  AsyncCallbackHandle complaint_timer_;
  std::map<std::uint64_t, Request> requests_;
  std::map<Receiver*, Match> matches_;
  std::map<std::uint64_t, Watch> watches_;
  std::vector<std::shared_ptr<RevocableCallback<>>> disconnect_watches_;
  std::vector<SlotPtr> slots_;  // for the life of the connection
};

}  // namespace zelt
