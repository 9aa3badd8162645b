#include "Receivers.h"

#include "BusLimits.h"
#include "LogCategory.h"
#include "zelt/Busy.h"
#include "zelt/LogClient.h"
#include "zelt/RunGuarded.h"

#include <algorithm>
#include <set>
#include <utility>

namespace zelt {

class Receivers::Receiver {
 public:
  Receiver(Receivers& its_owner, Kind its_kind, std::string_view its_name,
           std::optional<std::vector<std::string>> its_senders,
           ServiceIPC::MessageCallback function)
      : owner(its_owner),
        kind(its_kind),
        name(its_name),
        senders(std::move(its_senders)),
        callback(std::move(function)) {}

  Receivers& owner;
  const Kind kind;
  const std::string name;                                 // empty: any
  const std::optional<std::vector<std::string>> senders;  // of a subscription: bus names
  RevocableCallback<const MessageEnvelope&, std::string_view> callback;
};

Receivers::ReceiverPtr Receivers::Add(Kind kind, std::string_view name,
                                      std::optional<std::vector<std::string>> senders,
                                      ServiceIPC::MessageCallback callback) {
  std::string wrong;
  if (!name.empty() || kind == Kind::Handler) {
    wrong = WhatIsWrong(name, "");
  }
  if (kind == Kind::Subscription && senders) {
    for (auto& sender : *senders) {
      if (auto bus_name = BusNameOf(sender)) {
        sender = std::move(*bus_name);
      } else {
        wrong = "the publisher \"" + sender + "\" is the name of no service or tool";
      }
    }
  }
  if (!wrong.empty()) {
    ZELT_LOG(kLogError, kIpcLogCategory) << "Cannot listen to [" << name << "]: " << wrong;
    return nullptr;
  }
  auto receiver =
      std::make_shared<Receiver>(*this, kind, name, std::move(senders), std::move(callback));
  const Lock lock(mutex_);
  receivers_.push_back(receiver);
  return receiver;
}

void Receivers::Remove(const ReceiverPtr& receiver) {
  const Lock lock(mutex_);
  std::erase(receivers_, receiver);
}

void Receivers::Revoke(Receiver& receiver) {
  receiver.callback.Revoke();
}

// ---------------------------------------------------------------------------------------------
// On the loop's thread

namespace {

void Announce(sd_bus* bus, const std::string& topic) {
  const int result =
      sd_bus_emit_signal(bus, kObjectPath, kInterface, "Subscribed", "s", topic.c_str());
  if (result < 0) {
    ZELT_LOG(kLogError, kIpcLogCategory)
        << "Cannot announce the subscription to [" << topic << "]: " << ErrorText(result);
  }
}

}  // namespace

void Receivers::InstallMatch(sd_bus* bus, const ReceiverPtr& receiver) {
  const bool is_handler = receiver->kind == Kind::Handler;
  if (receiver->kind == Kind::Callback) {
    return;
  }
  std::string rule = "type='signal',path='/zelt/ServiceIPC',interface='zelt.ServiceIPC1',member='";
  rule += is_handler ? "Subscribed'" : "Published'";
  if (!receiver->name.empty()) {
    rule += ",arg0='" + receiver->name + "'";
  }
  sd_bus_slot* slot = nullptr;
  const int result = sd_bus_add_match_async(bus, &slot, rule.c_str(), &Receivers::OnSignal,
                                            &Receivers::OnInstalled, receiver.get());
  if (result < 0) {
    ZELT_LOG(kLogError, kIpcLogCategory)
        << "Cannot listen to [" << receiver->name << "]: " << ErrorText(result);
    return;
  }
  matches_[receiver.get()] = {receiver, SlotPtr(slot)};
  if (!is_handler && !receiver->name.empty()) {
    Announce(bus, receiver->name);  // behind the match: the bus already passes on what comes of it
  }
}

void Receivers::RemoveMatch(const ReceiverPtr& receiver) {
  matches_.erase(receiver.get());
}

void Receivers::AnnounceAll(sd_bus* bus) const {
  std::set<std::string> topics;
  for (const auto& [receiver, match] : matches_) {
    if (receiver->kind == Kind::Subscription && !receiver->name.empty()) {
      topics.insert(receiver->name);
    }
  }
  for (const auto& topic : topics) {
    Announce(bus, topic);
  }
}

void Receivers::Close() {
  matches_.clear();
  const Lock lock(mutex_);
  receivers_.clear();
}

int Receivers::OnInstalled(sd_bus_message* reply, void* receiver, sd_bus_error*) noexcept {
  if (const auto* error = sd_bus_message_get_error(reply)) {
    ZELT_LOG(kLogError, kIpcLogCategory)
        << "The bus refuses to pass on [" << static_cast<Receiver*>(receiver)->name
        << "]: " << error->message;
  }
  return 0;
}

int Receivers::OnSignal(sd_bus_message* message, void* receiver, sd_bus_error*) noexcept {
  auto& target = *static_cast<Receiver*>(receiver);
  target.owner.OnSignal(target, message);
  return 0;  // other matches may have it as well
}

// A published message or a subscriber's announcement.
void Receivers::OnSignal(Receiver& receiver, sd_bus_message* message) {
  const char* topic = "";
  std::string_view payload;
  const std::string connection = SenderOf(message);
  const bool is_handler = receiver.kind == Kind::Handler;
  const bool is_good = sd_bus_message_read(message, "s", &topic) >= 0 &&
                       (is_handler || ReadBytes(message, payload) >= 0);
  const MessageEnvelope envelope{names_.SenderName(connection), topic, connection, 0};
  const std::string wrong = is_good ? WhatIsWrong(topic, payload) : "its arguments are malformed";
  if (!wrong.empty()) {
    lines_.Complain("Dropped a signal from [" + envelope.sender + "]: " + wrong);
  } else if (!Believes(receiver, envelope)) {
    lines_.Complain("[" + envelope.sender + "] is not believed to publish [" + topic + "]");
  } else if (const auto delivery =
                 Call(receiver, envelope, is_handler ? std::string_view(envelope.sender) : payload);
             delivery.taken == Delivery::Taken::Busy) {
    lines_.Complain("Dropped [" + envelope.type + "] from [" + envelope.sender +
                    "]: " + delivery.why);
  }
}

// A registration goes by what the sender is called; a subscription believes the connection that
// owns the publisher's name, whatever else it owns.
bool Receivers::Believes(const Receiver& receiver, const MessageEnvelope& envelope) const {
  if (!receiver.senders) {
    return true;
  }
  return std::ranges::any_of(*receiver.senders, [&](const std::string& sender) {
    return receiver.kind == Kind::Subscription ? names_.OwnerOf(sender) == envelope.connection
                                               : sender == envelope.sender;
  });
}

Delivery Receivers::Deliver(const MessageEnvelope& envelope, std::string_view payload) {
  const auto found = Find(envelope.type);
  if (found.empty()) {
    ZELT_LOG(kLogDebug, kIpcLogCategory)
        << "No callback for [" << envelope.type << "] from [" << envelope.sender << "]";
  }
  Delivery delivery;
  for (const auto& receiver : found) {
    if (!Believes(*receiver, envelope)) {
      lines_.Complain("[" + envelope.sender + "] may not send [" + envelope.type + "]");
    } else if (auto one = Call(*receiver, envelope, payload);
               delivery.taken != Delivery::Taken::Yes && one.taken != Delivery::Taken::No) {
      delivery = std::move(one);  // taken by one is taken
    }
  }
  if (delivery.taken == Delivery::Taken::Busy) {
    lines_.Complain("Refused [" + envelope.type + "] from [" + envelope.sender +
                    "]: " + delivery.why);
  }
  return delivery;
}

std::vector<Receivers::ReceiverPtr> Receivers::Find(std::string_view type) const {
  ReceiverPtr callback;
  ReceiverPtr fallback;
  std::vector<ReceiverPtr> subscriptions;
  {
    const Lock lock(mutex_);
    for (const auto& receiver : receivers_) {
      if (receiver->kind == Kind::Callback && receiver->name.empty()) {
        fallback = receiver;
      } else if (receiver->kind == Kind::Callback && receiver->name == type) {
        callback = receiver;
      } else if (receiver->kind == Kind::Subscription && receiver->name == type) {
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
  return callback ? std::vector{callback} : std::vector<ReceiverPtr>{};
}

// What the callback throws ends here: below it are frames of C.
Delivery Receivers::Call(Receiver& receiver, const MessageEnvelope& envelope,
                         std::string_view payload) {
  Delivery delivery;
  RunGuarded(
      kIpcLogCategory,
      [&] {
        try {
          if (receiver.callback(envelope, payload)) {
            delivery.taken = Delivery::Taken::Yes;
          }
        } catch (const Busy& busy) {
          delivery = {Delivery::Taken::Busy, busy.what()};
        }
      },
      "Callback of [", envelope.type, "] threw an exception");
  return delivery;
}

}  // namespace zelt
