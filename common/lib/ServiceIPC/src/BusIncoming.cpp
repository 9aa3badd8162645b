// Messages on their way in: the object on the bus, the matches, and who is called for what.
#include "BusConnectionImpl.h"
#include "BusLimits.h"
#include "LogCategory.h"
#include "zelt/LogClient.h"
#include "zelt/RunGuarded.h"

#include <algorithm>
#include <set>
#include <utility>

namespace zelt {

namespace {

// Never a null pointer, which parsers would have to treat apart.
int ReadBytes(sd_bus_message* message, std::string_view& bytes) {
  const void* data = nullptr;
  std::size_t size = 0;
  const int result = sd_bus_message_read_array(message, 'y', &data, &size);
  bytes = result < 0 || size == 0 ? std::string_view("")
                                  : std::string_view(static_cast<const char*>(data), size);
  return result;
}

// Empty, or which limit a received message breaks.
std::string WhatIsWrong(std::string_view type, std::string_view payload) {
  if (!IsTypeName(type)) {
    return "a type has 1 to " + std::to_string(kMaxTypeName) + " letters, digits, '_', '-' and '.'";
  }
  if (payload.size() > kMaxPayload) {
    return "a payload of " + std::to_string(payload.size()) + " bytes exceeds the limit of " +
           std::to_string(kMaxPayload);
  }
  return "";
}

// The "State" among the changed properties, if it is.
std::optional<std::uint32_t> ReadChangedState(sd_bus_message* message) {
  std::optional<std::uint32_t> state;
  if (sd_bus_message_skip(message, "s") < 0 ||
      sd_bus_message_enter_container(message, 'a', "{sv}") < 0) {
    return state;
  }
  while (sd_bus_message_enter_container(message, 'e', "sv") > 0) {
    const char* name = nullptr;
    std::uint32_t value = 0;
    if (sd_bus_message_read(message, "s", &name) < 0) {
      break;
    }
    if (std::string_view(name) != "State") {
      sd_bus_message_skip(message, "v");
    } else if (sd_bus_message_read(message, "v", "u", &value) >= 0) {
      state = value;
    }
    if (sd_bus_message_exit_container(message) < 0) {
      break;
    }
  }
  return state;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// The object

const sd_bus_vtable BusConnectionImpl::kVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_NAMES(
        "Send", "sayt", SD_BUS_PARAM(type) SD_BUS_PARAM(payload) SD_BUS_PARAM(request), "b",
        SD_BUS_PARAM(taken), &Entry<&BusConnectionImpl::OnSend>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES(
        "Respond", "tsay", SD_BUS_PARAM(request) SD_BUS_PARAM(type) SD_BUS_PARAM(payload), "b",
        SD_BUS_PARAM(taken), &Entry<&BusConnectionImpl::OnRespond>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL_WITH_NAMES("Published", "say", SD_BUS_PARAM(topic) SD_BUS_PARAM(payload), 0),
    SD_BUS_SIGNAL_WITH_NAMES("Subscribed", "s", SD_BUS_PARAM(topic), 0),
    SD_BUS_PROPERTY("State", "u", &BusConnectionImpl::GetState, 0,
                    SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    // Only for root and for the user that the service runs as: what writes is privileged.
    SD_BUS_WRITABLE_PROPERTY("LogLevel", "u", &BusConnectionImpl::GetLogLevel,
                             &BusConnectionImpl::SetLogLevel, 0, 0),
    SD_BUS_VTABLE_END,
};

int BusConnectionImpl::OnSend(sd_bus_message* message, sd_bus_error* error) {
  const char* type = "";
  std::string_view payload;
  std::uint64_t request = 0;
  if (sd_bus_message_read(message, "s", &type) < 0 || ReadBytes(message, payload) < 0 ||
      sd_bus_message_read(message, "t", &request) < 0) {
    return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS, "Send takes (s, ay, t)");
  }
  const std::string connection = SenderOf(message);
  const MessageEnvelope envelope{names_.SenderName(connection), type, connection, request};
  if (const auto wrong = WhatIsWrong(type, payload); !wrong.empty()) {
    if (MayComplain()) {
      ZELT_LOG(kLogWarning, kIpcLogCategory)
          << "Refused a message from [" << envelope.sender << "]: " << wrong;
    }
    return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS, wrong.c_str());
  }
  bool taken = false;
  for (const auto& receiver : FindReceivers(type, envelope.sender)) {
    taken = CallReceiver(*receiver, envelope, payload) || taken;
  }
  return sd_bus_reply_method_return(message, "b", taken ? 1 : 0);
}

int BusConnectionImpl::OnRespond(sd_bus_message* message, sd_bus_error* error) {
  const char* type = "";
  std::string_view payload;
  std::uint64_t request = 0;
  if (sd_bus_message_read(message, "ts", &request, &type) < 0 || ReadBytes(message, payload) < 0) {
    return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS, "Respond takes (t, s, ay)");
  }
  const std::string connection = SenderOf(message);
  if (const auto wrong = WhatIsWrong(type, payload); !wrong.empty()) {
    if (MayComplain()) {
      ZELT_LOG(kLogWarning, kIpcLogCategory)
          << "Refused a response from [" << names_.SenderName(connection) << "]: " << wrong;
    }
    return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS, wrong.c_str());
  }
  const bool taken = AcceptResponse(connection, request, type, payload);
  return sd_bus_reply_method_return(message, "b", taken ? 1 : 0);
}

// Whether a line that peers can provoke is written. The first of each second are; the others are
// counted, and their number follows.
bool BusConnectionImpl::MayComplain() {
  if (++complaints_ == 1) {
    complaint_timer_ = loop_.AddTimer(
        "complaints",
        [this] {
          if (const auto all = std::exchange(complaints_, 0); all > kMaxComplaints) {
            ZELT_LOG_AS("MayComplain", kLogWarning, kIpcLogCategory)
                << all - kMaxComplaints << " more messages were refused or dropped";
          }
        },
        kComplaintTime, false);
  }
  return complaints_ <= kMaxComplaints;
}

bool BusConnectionImpl::AcceptResponse(std::string_view connection, std::uint64_t request,
                                       std::string_view type, std::string_view payload) {
  const auto waiting = requests_.find(request);
  const bool is_awaited = waiting != requests_.end() && waiting->second.peer == connection;
  if (is_awaited) {
    FinishRequest(request, {Outcome::Answered, std::string(type), std::string(payload), ""});
  } else if (MayComplain()) {
    ZELT_LOG(kLogWarning, kIpcLogCategory)
        << "Refused response [" << type << "] from [" << names_.SenderName(connection)
        << "]: request " << request
        << (waiting == requests_.end() ? " is not open" : " went to somebody else");
  }
  return is_awaited;
}

int BusConnectionImpl::GetState(sd_bus*, const char*, const char*, const char*,
                                sd_bus_message* reply, void* self, sd_bus_error*) noexcept {
  return sd_bus_message_append(reply, "u", static_cast<BusConnectionImpl*>(self)->state_.load());
}

int BusConnectionImpl::GetLogLevel(sd_bus*, const char*, const char*, const char*,
                                   sd_bus_message* reply, void*, sd_bus_error*) noexcept {
  return sd_bus_message_append(reply, "u", static_cast<std::uint32_t>(LogClient::Level()));
}

int BusConnectionImpl::SetLogLevel(sd_bus*, const char*, const char*, const char*,
                                   sd_bus_message* value, void* self,
                                   sd_bus_error* error) noexcept {
  std::uint32_t level = 0;
  if (sd_bus_message_read(value, "u", &level) < 0 || level > kLogVerbose) {
    return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS, "LogLevel is 0 to 8");
  }
  LogClient::SetLevel(static_cast<int>(level));
  ZELT_LOG(kLogInfo, kIpcLogCategory)
      << "Log level set to " << level << " by ["
      << static_cast<BusConnectionImpl*>(self)->names_.SenderName(SenderOf(value)) << "]";
  return 0;
}

// ---------------------------------------------------------------------------------------------
// Receivers

AsyncCallbackHandle BusConnectionImpl::RegisterCallbackImpl(
    std::string_view typeName, std::optional<gsl::span<std::string_view>> allowedSenders,
    MessageCallback callback) {
  std::optional<std::vector<std::string>> allowed;
  if (allowedSenders) {
    allowed.emplace(allowedSenders->begin(), allowedSenders->end());
  }
  return AddReceiver(ReceiverKind::Callback, typeName, std::move(allowed), std::move(callback));
}

AsyncCallbackHandle BusConnectionImpl::AddSubscribeHandlerImpl(SubscribeHandler handler,
                                                               std::string_view topic) {
  return AddReceiver(
      ReceiverKind::Handler, topic, std::nullopt,
      [handler = std::move(handler)](const MessageEnvelope&, std::string_view payload) mutable {
        handler(payload);
      });
}

AsyncCallbackHandle BusConnectionImpl::SubscribeImpl(std::string_view topic,
                                                     MessageCallback callback) {
  return AddReceiver(ReceiverKind::Subscription, topic, std::nullopt, std::move(callback));
}

AsyncCallbackHandle BusConnectionImpl::AddReceiver(
    ReceiverKind kind, std::string_view name,
    std::optional<std::vector<std::string>> allowed_senders, MessageCallback callback) {
  if (!IsTypeName(name) && (!name.empty() || kind == ReceiverKind::Handler)) {
    ZELT_LOG(kLogError, kIpcLogCategory)
        << "Cannot listen to [" << name << "]: " << WhatIsWrong(name, "");
    return {};
  }
  auto receiver =
      std::make_shared<Receiver>(kind, name, std::move(allowed_senders), std::move(callback));
  receiver->self = this;
  {
    const std::lock_guard lock(mutex_);
    receivers_.push_back(receiver);
  }
  if (kind != ReceiverKind::Callback) {
    loop_.Post([this, receiver] { InstallMatch(receiver); });
  }
  return AsyncCallbackHandle([weak = weak_from_this(), receiver] {
    if (const auto self = weak.lock()) {
      self->RemoveReceiver(receiver);
    }
    receiver->callback.Revoke();
  });
}

void BusConnectionImpl::RemoveReceiver(const std::shared_ptr<Receiver>& receiver) {
  {
    const std::lock_guard lock(mutex_);
    std::erase(receivers_, receiver);
  }
  if (receiver->kind != ReceiverKind::Callback) {
    loop_.Post([this, receiver] { matches_.erase(receiver.get()); });
  }
}

void BusConnectionImpl::InstallMatch(const std::shared_ptr<Receiver>& receiver) {
  const bool is_handler = receiver->kind == ReceiverKind::Handler;
  std::string rule = "type='signal',path='/zelt/ServiceIPC',interface='zelt.ServiceIPC1',member='";
  rule += is_handler ? "Subscribed'" : "Published'";
  if (!receiver->name.empty()) {
    rule += ",arg0='" + receiver->name + "'";
  }
  sd_bus_slot* slot = nullptr;
  const int result =
      sd_bus_add_match_async(bus_.get(), &slot, rule.c_str(), &BusConnectionImpl::OnReceived,
                             &BusConnectionImpl::OnMatchInstalled, receiver.get());
  if (result < 0) {
    ZELT_LOG(kLogError, kIpcLogCategory)
        << "Cannot listen to [" << receiver->name << "]: " << ErrorText(result);
    return;
  }
  matches_[receiver.get()] = {receiver, SlotPtr(slot)};
  if (!is_handler && !receiver->name.empty()) {
    Announce(receiver->name);  // behind the match: the bus already passes on what it brings about
  }
}

int BusConnectionImpl::OnMatchInstalled(sd_bus_message* reply, void* receiver,
                                        sd_bus_error*) noexcept {
  if (const auto* error = sd_bus_message_get_error(reply)) {
    ZELT_LOG(kLogError, kIpcLogCategory)
        << "The bus refuses to pass on [" << static_cast<Receiver*>(receiver)->name
        << "]: " << error->message;
  }
  return 0;
}

// A published message or a subscriber's announcement; 0 lets other matches have it as well.
int BusConnectionImpl::OnReceived(sd_bus_message* message, void* receiver, sd_bus_error*) noexcept {
  auto& target = *static_cast<Receiver*>(receiver);
  BusConnectionImpl& self = *target.self;
  const char* topic = "";
  std::string_view payload;
  const std::string connection = SenderOf(message);
  const bool is_handler = target.kind == ReceiverKind::Handler;
  const bool is_good = sd_bus_message_read(message, "s", &topic) >= 0 &&
                       (is_handler || ReadBytes(message, payload) >= 0);
  const MessageEnvelope envelope{self.names_.SenderName(connection), topic, connection, 0};
  const std::string wrong = is_good ? WhatIsWrong(topic, payload) : "its arguments are malformed";
  if (!wrong.empty()) {
    if (self.MayComplain()) {
      ZELT_LOG(kLogWarning, kIpcLogCategory)
          << "Dropped a signal from [" << envelope.sender << "]: " << wrong;
    }
    return 0;
  }
  CallReceiver(target, envelope, is_handler ? std::string_view(envelope.sender) : payload);
  return 0;
}

// Whoever is to be called for a message of `type`: the latest registration; else every
// subscription of that name, so that a subscriber takes what is sent to it alone, as when it has
// just subscribed; else the latest registration for everything.
std::vector<std::shared_ptr<BusConnectionImpl::Receiver>> BusConnectionImpl::FindReceivers(
    std::string_view type, std::string_view sender) {
  std::shared_ptr<Receiver> callback;
  std::shared_ptr<Receiver> fallback;
  std::vector<std::shared_ptr<Receiver>> subscriptions;
  {
    const std::lock_guard lock(mutex_);
    for (const auto& receiver : receivers_) {
      if (receiver->kind == ReceiverKind::Callback && receiver->name.empty()) {
        fallback = receiver;
      } else if (receiver->kind == ReceiverKind::Callback && receiver->name == type) {
        callback = receiver;
      } else if (receiver->kind == ReceiverKind::Subscription && receiver->name == type) {
        subscriptions.push_back(receiver);
      }
    }
  }
  if (!callback && !subscriptions.empty()) {
    return subscriptions;
  }
  if (!callback) {
    callback = fallback;
  }
  if (!callback) {
    ZELT_LOG(kLogDebug, kIpcLogCategory)
        << "No callback for [" << type << "] from [" << sender << "]";
    return {};
  }
  const auto& allowed = callback->allowed_senders;
  if (allowed && std::ranges::count(*allowed, sender) == 0) {
    if (MayComplain()) {
      ZELT_LOG(kLogWarning, kIpcLogCategory) << "[" << sender << "] may not send [" << type << "]";
    }
    return {};
  }
  return {callback};
}

bool BusConnectionImpl::CallReceiver(Receiver& receiver, const MessageEnvelope& envelope,
                                     std::string_view payload) {
  return RunGuarded(
      kIpcLogCategory, [&] { return receiver.callback(envelope, payload); }, "Callback of [",
      envelope.type, "] threw an exception");
}

void BusConnectionImpl::Announce(const std::string& topic) {
  const int result =
      sd_bus_emit_signal(bus_.get(), kObjectPath, kInterface, "Subscribed", "s", topic.c_str());
  if (result < 0) {
    ZELT_LOG(kLogError, kIpcLogCategory)
        << "Cannot announce the subscription to [" << topic << "]: " << ErrorText(result);
  }
}

void BusConnectionImpl::AnnounceAll() {
  std::set<std::string> topics;
  for (const auto& [receiver, match] : matches_) {
    if (receiver->kind == ReceiverKind::Subscription && !receiver->name.empty()) {
      topics.insert(receiver->name);
    }
  }
  std::ranges::for_each(topics, [this](const std::string& topic) { Announce(topic); });
}

// ---------------------------------------------------------------------------------------------
// Names and states of others

int BusConnectionImpl::OnNameOwnerChanged(sd_bus_message* message, sd_bus_error*) {
  const char* name = nullptr;
  const char* before = nullptr;
  const char* now = nullptr;
  // Anybody can address such a signal to us; only the bus itself is believed.
  const std::string sender = SenderOf(message);
  if (sender != kBusItself || sd_bus_message_read(message, "sss", &name, &before, &now) < 0) {
    if (MayComplain()) {
      ZELT_LOG(kLogWarning, kIpcLogCategory)
          << "Dropped a forged NameOwnerChanged from [" << sender << "]";
    }
    return 0;
  }
  names_.Set(name, now);
  if (const auto peer = peers_.find(name); peer != peers_.end()) {
    peer->second.timed_out = 0;
  }
  std::vector<std::uint64_t> orphans;
  for (auto& [id, request] : requests_) {
    if (request.bus_name == name && !request.delivered) {
      request.peer = now;  // it changed hands while the message was on its way
    } else if (request.bus_name == name && request.peer == before) {
      orphans.push_back(id);
    }
  }
  for (const auto id : orphans) {
    FinishRequest(id, {Outcome::NoSuchService, "", "", "the receiver left before it answered"});
  }
  for (auto& [id, watch] : watches_) {
    if (watch.bus_name == name) {
      AskState(id);
    }
  }
  return 0;
}

int BusConnectionImpl::OnPropertiesChanged(sd_bus_message* message, sd_bus_error*) {
  const std::string connection = SenderOf(message);
  const auto state = ReadChangedState(message);
  if (!state) {
    return 0;
  }
  for (auto& [id, watch] : watches_) {
    if (names_.OwnerOf(watch.bus_name) == connection) {
      TellState(id, *state);
    }
  }
  if (*state == kStateReady && connection != unique_name_ && names_.OwnsService(connection)) {
    AnnounceAll();  // it may have been restarted, and knows nobody
  }
  return 0;
}

AsyncCallbackHandle BusConnectionImpl::WatchState(std::string_view service,
                                                  UniqueFunction<void(std::uint32_t)> callback) {
  auto bus_name = BusNameOf(service);
  if (!bus_name) {
    ZELT_LOG(kLogError, kIpcLogCategory)
        << "Cannot watch [" << service << "]: this is the name of no service or tool";
    return {};
  }
  auto revocable = std::make_shared<RevocableCallback<std::uint32_t>>(std::move(callback));
  loop_.Post([this, revocable, bus_name = std::move(*bus_name)] {
    const auto id = ++last_id_;
    watches_[id] = {bus_name, revocable, std::nullopt, 0};
    AskState(id);
  });
  return AsyncCallbackHandle([weak = weak_from_this(), revocable] {
    if (const auto self = weak.lock()) {
      self->loop_.Post([self = self.get(), revocable] {
        std::erase_if(self->watches_,
                      [&](const auto& item) { return item.second.callback == revocable; });
      });
    }
    revocable->Revoke();
  });
}

// Without a deadline: a service that hangs now tells its state when it wakes up, and until then
// there is nothing to tell.
void BusConnectionImpl::AskState(std::uint64_t id) {
  auto& watch = watches_[id];
  const auto generation = ++watch.generation;
  const auto owner = names_.OwnerOf(watch.bus_name);
  if (owner.empty()) {
    TellState(id, 0);
    return;
  }
  const auto message = NewStateQuery(owner);
  Invoke(message.get(), std::nullopt, false, [this, id, generation](const CallResult& call) {
    const auto asked = watches_.find(id);
    std::uint32_t state = 0;
    if (asked == watches_.end() || asked->second.generation != generation) {
      return;
    }
    if (call.outcome == Outcome::Delivered &&
        sd_bus_message_read(call.reply, "v", "u", &state) >= 0) {
      TellState(id, state);
    } else {
      ZELT_LOG_AS("AskState", kLogWarning, kIpcLogCategory)
          << "[" << asked->second.bus_name << "] does not tell its state: " << call.error;
    }
  });
}

void BusConnectionImpl::TellState(std::uint64_t id, std::uint32_t state) {
  auto& watch = watches_[id];
  if (std::exchange(watch.told, state) != state) {
    RunGuarded(
        kIpcLogCategory, [state, callback = watch.callback] { return (*callback)(state); },
        "Watch of [", watch.bus_name, "] threw an exception");
  }
}

}  // namespace zelt
