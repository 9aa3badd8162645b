#include "Courier.h"

#include "BusLimits.h"
#include "BusWire.h"
#include "LogCategory.h"
#include "zelt/LogClient.h"

#include <algorithm>
#include <array>
#include <memory>
#include <optional>
#include <utility>
#include <variant>

namespace zelt {

namespace {

using Outcome = ServiceIPC::Outcome;

std::uint64_t& CounterOf(BusConnection::Counters& counters, Outcome outcome) {
  switch (outcome) {
    case Outcome::Delivered:
    case Outcome::Answered:
      return counters.delivered;
    case Outcome::NotTaken:
      return counters.not_taken;
    case Outcome::Busy:
      return counters.busy;
    case Outcome::NoSuchService:
      return counters.no_such_service;
    case Outcome::NotPermitted:
      return counters.not_permitted;
    case Outcome::TimedOut:
      return counters.timed_out;
    case Outcome::Disconnected:
      return counters.disconnected;
    case Outcome::Invalid:
    default:
      return counters.invalid;
  }
}

constexpr std::array kVerbs = {"Send", "Response", "Question for the state"};
const char* VerbOf(Letter::Kind kind) {
  return kVerbs.at(static_cast<std::size_t>(kind));
}

}  // namespace

Courier::Courier(EventLoop& loop, NameMap& names, LineLimit& lines, Hooks hooks)
    : loop_(loop), names_(names), lines_(lines), hooks_(std::move(hooks)) {}

void Courier::Attach(sd_bus* bus) {
  sd_event_source* source = nullptr;
  Check(sd_event_add_post(loop_.Event(), &source, &Courier::OnPost, this),
        "cannot watch the event loop");
  post_source_.reset(source);
  Check(sd_event_source_set_enabled(source, SD_EVENT_OFF), "cannot disable an event source");
  bus_ = bus;
}

bool Courier::Send(std::string_view bus_name, Letter letter) {
  const bool is_message = letter.kind != Letter::Kind::AskState;
  const bool is_well_formed = !is_message || IsWellFormed(letter.type, letter.payload);
  std::expected<bool, CallResult> accepted;
  bool wake = false;
  {
    const Lock lock(mutex_);
    if (bus_name.empty()) {
      accepted = std::unexpected(CallResult{Outcome::Invalid, kNoName});
    } else if (!is_well_formed) {
      accepted =
          std::unexpected(CallResult{Outcome::Invalid, WhatIsWrong(letter.type, letter.payload)});
    } else {
      // The owner does not change before the letter is in its mailbox, which would have been
      // emptied.
      const std::string owner = names_.OwnerOf(bus_name);
      accepted = outbox_.Put(owner, names_.HasName(owner), letter);
    }
    if (is_message) {
      ++(accepted ? counters_.accepted : counters_.refused);
    }
    wake = accepted && *accepted && !std::exchange(is_awake_, true);
  }
  if (!accepted) {
    Tell(letter, accepted.error(), true);
  } else if (wake) {
    Wake();
  }
  return accepted.has_value();
}

void Courier::Wake() {
  if (loop_.IsOnLoop()) {
    Pump();
  } else {
    loop_.Wake();
  }
}

bool Courier::Send(Broadcast broadcast) {
  const bool is_message = !broadcast.state;
  const bool is_well_formed = !is_message || IsWellFormed(broadcast.topic, broadcast.payload);
  std::expected<bool, CallResult> accepted;
  bool wake = false;
  {
    const Lock lock(mutex_);
    if (is_well_formed) {
      accepted = outbox_.Put(broadcast);
    } else {
      accepted = std::unexpected(
          CallResult{Outcome::Invalid, WhatIsWrong(broadcast.topic, broadcast.payload)});
    }
    if (is_message) {
      ++(accepted ? counters_.published : counters_.refused);
    }
    wake = accepted && !std::exchange(is_awake_, true);
  }
  if (!accepted) {
    LogFailure("Publish", broadcast.topic, "every subscriber", accepted.error());
  } else if (wake) {
    Wake();
  }
  return accepted.has_value();
}

void Courier::LogFailure(std::string_view verb, std::string_view type, std::string_view receiver,
                         const CallResult& result) {
  if (lines_.Take(receiver)) {
    ZELT_LOG(result.outcome == Outcome::Invalid ? kLogError : kLogWarning, kIpcLogCategory)
        << verb << " [" << type << "] to [" << receiver << "] failed: " << result.error;
  }
}

BusConnection::Counters Courier::GetCounters() const {
  const Lock lock(mutex_);
  return counters_;
}

void Courier::Drain() {
  if (loop_.IsOnLoop()) {
    return;
  }
  const auto drained = std::make_shared<std::promise<void>>();
  const auto posted = loop_.Post([this, drained] {
    if (bus_ == nullptr) {
      drained->set_value();
    } else {
      drained_.push_back(drained);
      Pump();
    }
  });
  if (posted) {
    drained->get_future().wait_for(kDrainTime);
  }
}

// ---------------------------------------------------------------------------------------------
// On the loop's thread

// True when the bus has read all that was given to it. When it has not, the loop looks again after
// whatever it does next: what waits then waits in the outbox, which has bounds.
bool Courier::MayWrite() {
  std::uint64_t queued = 0;
  const bool may = !IsOpen() || sd_bus_get_n_queued_write(bus_, &queued) < 0 || queued == 0;
  sd_event_source_set_enabled(post_source_.get(), may ? SD_EVENT_OFF : SD_EVENT_ON);
  return may;
}

int Courier::OnPost(sd_event_source*, void* self) noexcept {
  static_cast<Courier*>(self)->Pump();
  return 0;
}

// A message whose end is still of interest.
bool Courier::IsAwaited(const Call& call) {
  return !call.is_ended && call.letter.kind != Letter::Kind::AskState;
}

void Courier::Pump() {
  if (bus_ == nullptr || is_pumping_) {
    return;
  }
  is_pumping_ = true;
  bool is_idle = false;
  while (MayWrite()) {
    std::optional<Outbox::Item> item;
    {
      const Lock lock(mutex_);
      item = outbox_.Next(TimerQueue::Now());
      is_awake_ = item.has_value();
      is_idle = !item && outbox_.IsEmpty();
    }
    if (!item) {
      break;
    }
    std::visit([this](auto& whole) { HandOver(std::move(whole)); }, *item);
  }
  is_pumping_ = false;
  if (is_idle && std::ranges::none_of(calls_, &Courier::IsAwaited)) {
    for (const auto& drained : std::exchange(drained_, {})) {
      drained->set_value();
    }
  }
}

void Courier::HandOver(const Broadcast& broadcast) {
  if (broadcast.state) {
    hooks_.tell_state(*broadcast.state);
    return;
  }
  MessagePtr message;
  int result = NewSignal(bus_, broadcast, message);
  if (result >= 0) {
    result = sd_bus_send(bus_, message.get(), nullptr);
  }
  if (result < 0) {
    LogFailure("Publish", broadcast.topic, "every subscriber",
               {Outcome::Invalid, "the bus does not take it: " + ErrorText(result)});
  }
}

void Courier::HandOver(Outbox::HandedOver item) {
  const auto call = calls_.emplace(calls_.end());
  call->self = this;
  call->position = call;
  call->connection = std::move(item.connection);
  call->letter = std::move(item.letter);
  call->size = call->letter.payload.size();
  MessagePtr message;
  sd_bus_slot* slot = nullptr;
  int result = NewCall(bus_, call->connection, call->letter, message);
  if (result >= 0) {
    // No time limit: the bus counts the call until it is answered, and so does the outbox.
    result = sd_bus_call_async(bus_, &slot, message.get(), &Courier::OnReply, &*call, UINT64_MAX);
    call->slot.reset(slot);
  }
  std::string().swap(call->letter.payload);  // sd-bus has its own copy
  if (result < 0) {
    Finish(call,
           {IsOpen() ? Outcome::Invalid : Outcome::Disconnected,
            "the bus does not take it: " + ErrorText(result)},
           false);
  } else if (!is_give_up_armed_) {
    ArmGiveUp();
  }
}

int Courier::OnReply(sd_bus_message* reply, void* call, sd_bus_error*) noexcept {
  const auto& answered = *static_cast<Call*>(call);
  Courier& self = *answered.self;
  const bool by_receiver = SenderOf(reply) == answered.connection;
  auto result = ReadReply(answered.letter.kind, reply);
  if (!IsGood(result.outcome) && !self.IsOpen()) {
    result.outcome = Outcome::Disconnected;
  }
  self.Finish(answered.position, result, by_receiver);
  return 0;
}

void Courier::Finish(std::list<Call>::iterator call, const CallResult& result, bool by_receiver) {
  std::list<Call> ended;
  ended.splice(ended.begin(), calls_, call);
  bool revived = false;
  {
    const Lock lock(mutex_);
    revived = outbox_.Answered(call->connection, call->size, by_receiver, TimerQueue::Now());
  }
  if (revived) {
    ZELT_LOG(kLogInfo, kIpcLogCategory)
        << "[" << names_.SenderName(call->connection) << "] acknowledges again";
    hooks_.revived(call->connection);
  }
  if (!call->is_ended) {
    End(call->letter, result, true);
  }
  Pump();
}

void Courier::Withdraw(std::string_view connection, std::uint64_t id) {
  std::optional<Letter> letter;
  {
    const Lock lock(mutex_);
    letter = outbox_.Withdraw(connection, id);
  }
  if (letter) {
    Count(letter->kind, Outcome::TimedOut);
  } else if (const auto call = std::ranges::find_if(
                 calls_, [id](const Call& item) { return item.letter.id == id; });
             call != calls_.end() && !std::exchange(call->is_ended, true)) {
    Count(call->letter.kind, Outcome::TimedOut);
    Pump();  // it may have been the last that was awaited
  }
}

void Courier::Count(Letter::Kind kind, Outcome outcome) {
  if (kind != Letter::Kind::AskState) {
    const Lock lock(mutex_);
    ++CounterOf(counters_, outcome);
  }
}

void Courier::End(Letter& letter, const CallResult& result, bool log) {
  Count(letter.kind, result.outcome);
  Tell(letter, result, log);
}

void Courier::Tell(Letter& letter, const CallResult& result, bool log) {
  if (letter.done) {
    letter.done(result);
  } else if (log && !IsGood(result.outcome)) {
    LogFailure(VerbOf(letter.kind), letter.type, letter.receiver, result);
  }
}

void Courier::ArmGiveUp() {
  std::optional<Time> next;
  {
    const Lock lock(mutex_);
    next = outbox_.NextGiveUp();
  }
  is_give_up_armed_ = next.has_value();
  if (next) {
    give_up_timer_ =
        loop_.AddTimer("give up", [this] { GiveUp(); }, *next - TimerQueue::Now(), false);
  }
}

void Courier::GiveUp() {
  std::vector<Outbox::GivenUp> all;
  {
    const Lock lock(mutex_);
    all = outbox_.GiveUp(TimerQueue::Now());
  }
  const std::string cause =
      "has acknowledged nothing for " + std::to_string(kGiveUpTime.count()) + " s";
  for (auto& [connection, dropped, unanswered] : all) {
    const CallResult result{Outcome::TimedOut, "the receiver " + cause};
    for (auto& letter : dropped) {
      End(letter, result, false);
    }
    for (auto& call : calls_) {
      if (call.connection == connection && !std::exchange(call.is_ended, true)) {
        End(call.letter, result, false);
      }
    }
    ZELT_LOG(kLogWarning, kIpcLogCategory)
        << "[" << names_.SenderName(connection) << "] " << cause << ": " << dropped.size()
        << " messages for it are dropped, " << unanswered << " may still reach it";
  }
  ArmGiveUp();
  Pump();
}

void Courier::ChangeOwner(std::string_view bus_name, const std::string& before,
                          std::string_view now) {
  std::vector<Letter> dropped;
  {
    const Lock lock(mutex_);
    names_.Set(bus_name, now);
    if (ServiceNameOf(bus_name)) {
      dropped = outbox_.Drop(before);
    }
  }
  for (auto& letter : dropped) {
    End(letter, {Outcome::NoSuchService, "the receiver left before it got it"}, false);
  }
  if (!dropped.empty()) {
    ZELT_LOG(kLogWarning, kIpcLogCategory) << "[" << ServiceNameOf(bus_name).value_or("")
                                           << "] has another owner or none: " << dropped.size()
                                           << " messages for the former one are dropped";
  }
}

void Courier::Close(const std::string& error) {
  std::vector<Letter> dropped;
  {
    const Lock lock(mutex_);
    dropped = outbox_.Close();
  }
  bus_ = nullptr;
  give_up_timer_.Close();
  post_source_.reset();
  std::list<Call> calls;
  calls.swap(calls_);
  for (auto& letter : dropped) {
    End(letter, {Outcome::Disconnected, error}, false);
  }
  const auto unanswered = std::ranges::count_if(calls, &Courier::IsAwaited);
  for (auto& call : calls) {
    if (!call.is_ended) {
      End(call.letter, {Outcome::Disconnected, error}, false);
    }
  }
  if (!dropped.empty() || unanswered > 0) {
    ZELT_LOG(kLogWarning, kIpcLogCategory)
        << error << ": " << dropped.size() << " messages were not sent, " << unanswered
        << " more were not acknowledged";
  }
  for (const auto& drained : std::exchange(drained_, {})) {
    drained->set_value();
  }
}

}  // namespace zelt
