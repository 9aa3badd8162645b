// Messages on their way out: checked and copied on the caller's thread, sent on the loop's.
#include "BusConnectionImpl.h"
#include "BusLimits.h"
#include "LogCategory.h"
#include "zelt/LogClient.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

namespace zelt {

namespace {

using Outcome = ServiceIPC::Outcome;

struct ErrorName {
  std::string_view name;
  Outcome outcome;
};
// What stands in an error reply; every other name means that the peer did not take the message.
constexpr std::array kErrorNames = {
    ErrorName{SD_BUS_ERROR_NAME_HAS_NO_OWNER, Outcome::NoSuchService},
    ErrorName{SD_BUS_ERROR_SERVICE_UNKNOWN, Outcome::NoSuchService},
    ErrorName{SD_BUS_ERROR_ACCESS_DENIED, Outcome::NotPermitted},
    ErrorName{SD_BUS_ERROR_NO_REPLY, Outcome::TimedOut},
    ErrorName{SD_BUS_ERROR_TIMEOUT, Outcome::TimedOut},
    ErrorName{SD_BUS_ERROR_DISCONNECTED, Outcome::Disconnected},
    ErrorName{SD_BUS_ERROR_INVALID_ARGS, Outcome::Invalid},
    ErrorName{SD_BUS_ERROR_LIMITS_EXCEEDED, Outcome::Invalid},
};

// What a system call of sd-bus says when it could not even send.
Outcome OutcomeOf(int error) {
  switch (error) {
    case ENOTCONN:
    case ECONNRESET:
    case EPIPE:
    case ESHUTDOWN:
      return Outcome::Disconnected;
    case ETIMEDOUT:
    case ENOBUFS:
      return Outcome::TimedOut;
    default:
      return Outcome::Invalid;
  }
}

bool IsGood(Outcome outcome) {
  return outcome == Outcome::Delivered || outcome == Outcome::Answered;
}

}  // namespace

std::pair<UniqueFunction<void(ServiceIPC::Reply)>, std::future<bool>>
BusConnectionImpl::BoolPromise() {
  std::promise<bool> promise;
  auto future = promise.get_future();
  return {[promise = std::move(promise)](const Reply& reply) mutable {
            promise.set_value(IsGood(reply.outcome));
          },
          std::move(future)};
}

std::future<bool> BusConnectionImpl::SendImpl(std::string_view destination,
                                              std::string_view typeName, std::string_view payload) {
  auto [report, future] = BoolPromise();
  const auto bus_name = BusNameOf(destination);
  Transmit({Kind::Send, bus_name ? *bus_name : std::string_view(), typeName, payload}, destination,
           std::move(report));
  return std::move(future);
}

std::future<bool> BusConnectionImpl::SendResponseImpl(const MessageEnvelope& envelope,
                                                      std::string_view typeName,
                                                      std::string_view payload) {
  auto [report, future] = BoolPromise();
  const bool is_connection = envelope.connection.starts_with(':');
  Transmit({Kind::Respond, is_connection ? envelope.connection : std::string_view(), typeName,
            payload, envelope.request},
           envelope.sender, std::move(report));
  return std::move(future);
}

std::future<bool> BusConnectionImpl::PublishImpl(std::string_view topic, std::string_view payload) {
  auto [report, future] = BoolPromise();
  Transmit({Kind::Publish, {}, topic, payload}, "every subscriber", std::move(report));
  return std::move(future);
}

std::future<ServiceIPC::Reply> BusConnectionImpl::RequestImpl(std::string_view destination,
                                                              std::string_view typeName,
                                                              std::string_view payload,
                                                              std::chrono::milliseconds timeout) {
  std::promise<Reply> promise;
  auto future = promise.get_future();
  const auto bus_name = BusNameOf(destination);
  Transmit({Kind::Send, bus_name ? *bus_name : std::string_view(), typeName, payload, 0,
            std::clamp(timeout, std::chrono::milliseconds(0),
                       std::chrono::milliseconds(kLongestAnswerTime))},
           destination, [promise = std::move(promise)](Reply reply) mutable {
             promise.set_value(std::move(reply));
           });
  return future;
}

void BusConnectionImpl::Transmit(const Outgoing& outgoing, std::string_view peer,
                                 UniqueFunction<void(Reply)> report) {
  static constexpr std::array kVerbs = {"Send", "Response", "Publish"};
  Completion<Reply> done(
      [kind = kVerbs[static_cast<std::size_t>(outgoing.kind)], type = std::string(outgoing.type),
       peer = std::string(peer), report = std::move(report)](Reply reply) mutable {
        if (!IsGood(reply.outcome)) {
          ZELT_LOG_AS("Transmit", reply.outcome == Outcome::Invalid ? kLogError : kLogWarning,
                      kIpcLogCategory)
              << kind << " [" << type << "] to [" << peer << "] failed: " << reply.error;
        }
        report(std::move(reply));
      },
      &under_way_, outgoing.payload.size());
  const auto refuse = [&done](const std::string& why) { done({Outcome::Invalid, "", "", why}); };
  if (under_way_.messages > kMaxSendsUnderWay) {
    refuse("limit of " + std::to_string(kMaxSendsUnderWay) + " sends under way reached");
    return;
  }
  if (!IsTypeName(outgoing.type)) {
    refuse("a type or topic has 1 to " + std::to_string(kMaxTypeName) +
           " letters, digits, '_', '-' and '.', this one is " +
           std::to_string(outgoing.type.size()) + " bytes long");
    return;
  }
  if (outgoing.payload.size() > kMaxPayload) {
    refuse("payload of " + std::to_string(outgoing.payload.size()) +
           " bytes exceeds the limit of " + std::to_string(kMaxPayload));
    return;
  }
  if (under_way_.bytes > kMaxBytesUnderWay) {
    refuse("limit of " + std::to_string(kMaxBytesUnderWay) + " bytes under way reached");
    return;
  }
  if (outgoing.kind != Kind::Publish && outgoing.bus_name.empty()) {
    refuse("this is the name of no service, tool or connection");
    return;
  }
  if (outgoing.kind == Kind::Respond && outgoing.request == 0) {
    done({Outcome::Delivered, "", "", ""});  // nobody waits for it
    return;
  }

  if (loop_.IsOnLoop()) {
    if (outgoing.answer_time.count() > 0) {
      refuse("an answer cannot be awaited on the IPC thread, which would have to receive it");
      return;
    }
    Deliver(outgoing, true, std::move(done));
    return;
  }
  loop_.Post([this, copy = outgoing, bus_name = std::string(outgoing.bus_name),
              type = std::string(outgoing.type), payload = std::string(outgoing.payload),
              done = std::move(done)]() mutable {
    copy.bus_name = bus_name;
    copy.type = type;
    copy.payload = payload;
    Deliver(copy, false, std::move(done));
  });
}

int BusConnectionImpl::NewMessage(const Outgoing& outgoing, std::uint64_t request,
                                  MessagePtr& message) {
  const std::string bus_name(outgoing.bus_name);
  const std::string type(outgoing.type);
  sd_bus_message* raw = nullptr;
  int result =
      outgoing.kind == Kind::Publish
          ? sd_bus_message_new_signal(bus_.get(), &raw, kObjectPath, kInterface, "Published")
          : sd_bus_message_new_method_call(bus_.get(), &raw, bus_name.c_str(), kObjectPath,
                                           kInterface,
                                           outgoing.kind == Kind::Send ? "Send" : "Respond");
  message.reset(raw);
  if (result >= 0) {
    result = sd_bus_message_set_auto_start(raw, 0);
  }
  if (result >= 0 && outgoing.kind == Kind::Respond) {
    result = sd_bus_message_append(raw, "t", outgoing.request);
  }
  if (result >= 0) {
    result = sd_bus_message_append(raw, "s", type.c_str());
  }
  if (result >= 0) {
    result =
        sd_bus_message_append_array(raw, 'y', outgoing.payload.data(), outgoing.payload.size());
  }
  if (result >= 0 && outgoing.kind == Kind::Send) {
    result = sd_bus_message_append(raw, "t", request);
  }
  return result;
}

void BusConnectionImpl::Deliver(const Outgoing& outgoing, bool waits, Completion<Reply> done) {
  const bool awaits_answer = outgoing.answer_time.count() > 0;
  const std::uint64_t id = awaits_answer ? ++last_id_ : 0;
  if (auto full = WhyFull(outgoing.payload.size()); !full.empty()) {
    done({Outcome::Invalid, "", "", std::move(full)});
    return;
  }
  MessagePtr message;
  int result = NewMessage(outgoing, id, message);
  if (result >= 0 && outgoing.kind == Kind::Publish) {
    result = sd_bus_send(bus_.get(), message.get(), nullptr);
  }
  if (result < 0) {
    done({IsOpen() ? OutcomeOf(-result) : Outcome::Disconnected, "", "",
          "the bus does not take it: " + ErrorText(result)});
    return;
  }
  if (outgoing.kind == Kind::Publish) {
    done({Outcome::Delivered, "", "", ""});
    return;
  }
  if (waits && names_.OwnerOf(outgoing.bus_name) == unique_name_) {
    DeliverToSelf(outgoing, message.get(), std::move(done));
  } else if (awaits_answer) {
    DeliverAndAwaitAnswer(outgoing, id, message.get(), std::move(done));
  } else {
    Invoke(message.get(), outgoing.start + kDeliveryTime, waits,
           [kind = outgoing.kind, done = std::move(done)](const CallResult& call) mutable {
             done(ToReply(call, kind));
           });
  }
}

// Empty; or why the bus gets nothing more for now: it does not read, and what waits for it takes
// this process's memory.
std::string BusConnectionImpl::WhyFull(std::size_t size) {
  std::uint64_t waiting = 0;
  sd_bus_get_n_queued_write(bus_.get(), &waiting);
  // They leave in the order of sending, so that only the latest can still be here.
  for (; queued_sizes_.size() > waiting; queued_sizes_.pop_front()) {
    queued_bytes_ -= queued_sizes_.front();
  }
  if (waiting >= kMaxQueuedMessages || queued_bytes_ + size > kMaxQueuedBytes) {
    return "the bus does not read: " + std::to_string(waiting) + " messages with " +
           std::to_string(queued_bytes_) + " bytes wait for it";
  }
  queued_sizes_.push_back(size);
  queued_bytes_ += size;
  return "";
}

void BusConnectionImpl::DeliverAndAwaitAnswer(const Outgoing& outgoing, std::uint64_t id,
                                              sd_bus_message* message, Completion<Reply> done) {
  const auto answer_deadline = outgoing.start + outgoing.answer_time;
  auto& request = requests_.emplace(id, Request(std::move(done))).first->second;
  request.bus_name = outgoing.bus_name;
  request.peer = names_.OwnerOf(outgoing.bus_name);
  if (request.bus_name.starts_with(':')) {
    const std::string rule =
        "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
        "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" +
        request.bus_name + "'";
    sd_bus_slot* slot = nullptr;
    sd_bus_add_match_async(
        bus_.get(), &slot, rule.c_str(), &Entry<&BusConnectionImpl::OnNameOwnerChanged>,
        [](sd_bus_message*, void*, sd_bus_error*) { return 0; },  // refused: the deadline ends it
        this);
    request.end_of_peer.reset(slot);
  }
  request.deadline = loop_.AddTimer(
      "answer",
      [this, id, time = outgoing.answer_time] {
        FinishRequest(id, {Outcome::TimedOut, "", "",
                           "no answer within " + std::to_string(time.count()) + " ms"});
      },
      answer_deadline - TimerQueue::Now(), false);
  const auto deadline = std::min(outgoing.start + kDeliveryTime, answer_deadline);
  Invoke(message, deadline, false, [this, id](const CallResult& call) {
    auto reply = ToReply(call, Kind::Send);
    if (!IsGood(reply.outcome)) {
      FinishRequest(id, std::move(reply));
      return;
    }
    if (const auto waiting = requests_.find(id); waiting != requests_.end()) {
      waiting->second.peer = SenderOf(call.reply);
      waiting->second.delivered = true;
    }
  });
}

// A callback that sends to its own process cannot wait for itself: the message takes its turn on
// the bus, and whether it will be taken is decided here.
void BusConnectionImpl::DeliverToSelf(const Outgoing& outgoing, sd_bus_message* message,
                                      Completion<Reply> done) {
  bool taken = false;
  if (outgoing.kind == Kind::Respond) {
    taken = AcceptResponse(unique_name_, outgoing.request, outgoing.type, outgoing.payload);
  } else {
    taken = !FindReceivers(outgoing.type, names_.SenderName(unique_name_)).empty() &&
            sd_bus_message_set_expect_reply(message, 0) >= 0 &&
            sd_bus_send(bus_.get(), message, nullptr) >= 0;
  }
  done(taken ? Reply{Outcome::Delivered, "", "", ""}
             : Reply{Outcome::NotTaken, "", "", "this process does not take it itself"});
}

ServiceIPC::Reply BusConnectionImpl::ToReply(const CallResult& call, Kind kind) {
  Reply reply{call.outcome, "", "", call.error};
  int taken = 0;
  if (call.outcome == Outcome::Delivered &&
      (sd_bus_message_read(call.reply, "b", &taken) < 0 || taken == 0)) {
    reply.outcome = Outcome::NotTaken;
    reply.error = kind == Kind::Send ? "the receiver has no callback for it, or refuses this sender"
                                     : "the asker does not await it any more";
  }
  return reply;
}

void BusConnectionImpl::FinishRequest(std::uint64_t id, Reply reply) {
  if (auto waiting = requests_.extract(id)) {
    waiting.mapped().done(std::move(reply));
  }
}

// Calls a method of a peer; `handler` is told how it ended. No deadline: when the peer answers or
// leaves the bus. With `waits`, all of it before this returns.
void BusConnectionImpl::Invoke(sd_bus_message* message, std::optional<Time> deadline, bool waits,
                               CallHandler handler) {
  const auto left = deadline ? *deadline - TimerQueue::Now() : std::chrono::microseconds::max();
  if (left <= std::chrono::microseconds(0)) {
    handler({Outcome::TimedOut, nullptr, "the IPC thread was held up for too long"});
    return;
  }
  const char* destination = sd_bus_message_get_destination(message);
  std::string peer = destination == nullptr ? "" : destination;
  if (const auto refusal = Refusal(peer); deadline && refusal) {
    handler(*refusal);
    return;
  }
  std::uint64_t cookie = 0;
  if (waits) {
    BusError error;
    sd_bus_message* raw = nullptr;
    const int result = sd_bus_call(bus_.get(), message, static_cast<std::uint64_t>(left.count()),
                                   &error.error, &raw);
    const MessagePtr reply(raw);
    // Before the deadline, it is the receiver that says so.
    const bool timed_out = result == -ETIMEDOUT && deadline && TimerQueue::Now() >= *deadline;
    if (timed_out && sd_bus_message_get_cookie(message, &cookie) >= 0) {
      ++peers_[peer].unanswered;
      TimeOut(cookie, peer);
    }
    handler(ToResult(raw, result, &error.error));
    return;
  }
  const std::uint64_t id = ++last_id_;
  auto& call = calls_[id];
  call.self = this;
  call.id = id;
  call.handler = std::move(handler);
  sd_bus_slot* slot = nullptr;
  const int result =
      sd_bus_call_async(bus_.get(), &slot, message, &BusConnectionImpl::OnReply, &call, UINT64_MAX);
  call.slot.reset(slot);
  if (result < 0) {
    FinishCall(id, ToResult(nullptr, result, nullptr));
    return;
  }
  sd_bus_message_get_cookie(message, &cookie);
  ++peers_[peer].unanswered;
  call.peer = std::move(peer);
  if (deadline) {
    call.deadline = loop_.AddTimer(
        "delivery",
        [this, id, cookie] {
          TimeOut(cookie, calls_[id].peer);
          FinishCall(id, {Outcome::TimedOut, nullptr, "the receiver does not react"});
        },
        left, false);
  }
}

// Why `peer` gets nothing more for now, if so.
std::optional<BusConnectionImpl::CallResult> BusConnectionImpl::Refusal(
    const std::string& peer) const {
  const auto known = peers_.find(peer);
  if (known != peers_.end() && known->second.timed_out >= kMaxTimedOut) {
    return CallResult{
        Outcome::TimedOut, nullptr,
        "the receiver has " + std::to_string(known->second.unanswered) + " messages unanswered"};
  }
  if (known != peers_.end() && known->second.unanswered >= kMaxUnanswered) {
    return CallResult{Outcome::Invalid, nullptr,
                      "limit of " + std::to_string(kMaxUnanswered) +
                          " messages reached that the receiver has not answered"};
  }
  return std::nullopt;
}

void BusConnectionImpl::TimeOut(std::uint64_t cookie, const std::string& peer) {
  late_.emplace(cookie, peer);
  ++peers_[peer].timed_out;
}

// One call less is unanswered; the bus answers for those who cannot any more.
void BusConnectionImpl::Answered(const std::string& peer, std::string_view sender) {
  const auto known = peers_.find(peer);
  if (known == peers_.end()) {
    return;
  }
  if (sender != kBusItself) {
    known->second.timed_out = 0;
  }
  if (--known->second.unanswered == 0) {
    peers_.erase(known);
  }
}

// Sees everything that comes, and looks for answers that come too late for anybody.
int BusConnectionImpl::OnAnything(sd_bus_message* message, sd_bus_error*) {
  std::uint64_t cookie = 0;
  std::uint8_t type = 0;
  sd_bus_message_get_type(message, &type);
  if ((type == SD_BUS_MESSAGE_METHOD_RETURN || type == SD_BUS_MESSAGE_METHOD_ERROR) &&
      sd_bus_message_get_reply_cookie(message, &cookie) >= 0) {
    if (const auto late = late_.extract(cookie)) {
      Answered(late.mapped(), SenderOf(message));
    }
  }
  return 0;
}

int BusConnectionImpl::OnReply(sd_bus_message* reply, void* call, sd_bus_error*) noexcept {
  auto& pending = *static_cast<Call*>(call);
  BusConnectionImpl& self = *pending.self;
  self.Answered(pending.peer, SenderOf(reply));
  self.FinishCall(pending.id, self.ToResult(reply, 0, sd_bus_message_get_error(reply)));
  return 0;
}

void BusConnectionImpl::FinishCall(std::uint64_t id, const CallResult& result) {
  if (auto call = calls_.extract(id)) {
    call.mapped().handler(result);
  }
}

BusConnectionImpl::CallResult BusConnectionImpl::ToResult(sd_bus_message* reply, int result,
                                                          const sd_bus_error* error) const {
  if (result >= 0 && (error == nullptr || error->name == nullptr)) {
    return {Outcome::Delivered, reply, ""};
  }
  const std::string text =
      error != nullptr && error->message != nullptr ? error->message : ErrorText(result);
  if (!IsOpen()) {
    return {Outcome::Disconnected, nullptr, text};
  }
  if (error == nullptr || error->name == nullptr) {
    return {OutcomeOf(-result), nullptr, text};
  }
  const auto* known = std::ranges::find(kErrorNames, error->name, &ErrorName::name);
  return {known == kErrorNames.end() ? Outcome::NotTaken : known->outcome, nullptr, text};
}

void BusConnectionImpl::SetState(std::uint32_t state) {
  if (own_bus_name_.empty() || state_.exchange(state) == state) {
    return;
  }
  loop_.Post([this] {
    if (!lost_) {
      const int result =
          sd_bus_emit_properties_changed(bus_.get(), kObjectPath, kInterface, "State", nullptr);
      if (result < 0) {
        ZELT_LOG_AS("SetState", kLogError, kIpcLogCategory)
            << "Cannot tell the state: " << ErrorText(result);
      }
    }
  });
}

std::future<BusConnection::StateReply> BusConnectionImpl::QueryState(std::string_view service,
                                                                     Seconds timeout) {
  std::promise<StateReply> promise;
  auto future = promise.get_future();
  Completion<StateReply> done([promise = std::move(promise)](StateReply reply) mutable {
    promise.set_value(std::move(reply));
  });
  auto bus_name = BusNameOf(service);
  if (!bus_name) {
    done({Outcome::Invalid, 0, "this is the name of no service or tool"});
    return future;
  }
  const bool is_own = *bus_name == own_bus_name_ || *bus_name == unique_name_;
  if (is_own && loop_.IsOnLoop() && IsOpen()) {
    done({Outcome::Delivered, state_, ""});  // that thread cannot wait for itself
    return future;
  }
  const auto limit = std::clamp(timeout, Seconds(0), Seconds(kLongestAnswerTime));
  const auto deadline = TimerQueue::Now() + std::chrono::ceil<std::chrono::microseconds>(limit);
  UniqueFunction<void()> ask = [this, deadline, waits = loop_.IsOnLoop(),
                                bus_name = std::move(*bus_name), done = std::move(done)]() mutable {
    const auto message = NewStateQuery(bus_name);
    Invoke(message.get(), deadline, waits,
           [done = std::move(done)](const CallResult& call) mutable {
             StateReply reply{call.outcome, 0, call.error};
             if (call.outcome == Outcome::NoSuchService) {
               reply = {Outcome::Delivered, 0, ""};
             } else if (call.outcome == Outcome::Delivered &&
                        sd_bus_message_read(call.reply, "v", "u", &reply.state) < 0) {
               reply = {Outcome::NotTaken, 0, "its State is no unsigned number"};
             }
             done(std::move(reply));
           });
  };
  if (loop_.IsOnLoop()) {
    ask();
  } else {
    loop_.Post(std::move(ask));
  }
  return future;
}

MessagePtr BusConnectionImpl::NewStateQuery(const std::string& bus_name) {
  sd_bus_message* raw = nullptr;
  if (sd_bus_message_new_method_call(bus_.get(), &raw, bus_name.c_str(), kObjectPath,
                                     "org.freedesktop.DBus.Properties", "Get") >= 0) {
    sd_bus_message_set_auto_start(raw, 0);
    sd_bus_message_append(raw, "ss", kInterface, "State");
  }
  return MessagePtr(raw);
}

}  // namespace zelt
