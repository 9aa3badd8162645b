#include "BusConnectionImpl.h"
#include "BusLimits.h"
#include "BusOpen.h"
#include "LogCategory.h"
#include "zelt/LogClient.h"
#include "zelt/RunGuarded.h"
#include "zelt/StartThread.h"

#include <algorithm>
#include <utility>

namespace zelt {

namespace {

constexpr const char* kClosed = "the connection to the bus is closed";
constexpr const char* kOnLoop =
    "nothing can be awaited on the IPC thread, which would have to receive it";

std::future<bool> Ready(bool value) {
  std::promise<bool> promise;
  promise.set_value(value);
  return promise.get_future();
}

// Reads the "State" among the changed properties; nothing when it is not among them.
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
// Its life

std::shared_ptr<BusConnection> BusConnection::Open(std::string_view service) {
  const std::shared_ptr<BusConnectionImpl> connection(
      new BusConnectionImpl(service), [](BusConnectionImpl* last) {
        if (last->IsOnLoop()) {
          StartThread([last] { delete last; }).detach();  // the loop cannot join itself
        } else {
          delete last;
        }
      });
  connection->Start();
  return connection;
}

BusConnectionImpl::BusConnectionImpl(std::string_view service)
    : address_(BusAddress()),
      lines_(loop_),
      courier_(loop_, names_, lines_,
               {.tell_state = [this](std::uint32_t state) { object_.TellState(state); },
                .revived = [this](const auto& connection) { watches_.OnRevived(connection); }}),
      requests_(loop_, names_, courier_),
      receivers_(names_, lines_),
      object_(names_, lines_,
              {.on_send = [this](const auto& envelope,
                                 auto payload) { return receivers_.Deliver(envelope, payload); },
               .on_respond =
                   [this](const auto& connection, auto request, auto type, auto payload) {
                     return requests_.Accept(connection, request, type, payload);
                   }}),
      watches_(names_, courier_) {
  const bool is_service = !service.empty() && !service.starts_with("zeltcli-");
  bus_ = ConnectToBus(address_, is_service);
  sd_bus* const bus = bus_.get();
  const char* unique_name = nullptr;
  Check(sd_bus_get_unique_name(bus, &unique_name), "the bus gives no name");
  unique_name_ = unique_name;

  object_.Attach(bus);
  courier_.Attach(bus);
  requests_.Attach(bus);
  slots_.push_back(
      AddMatch(bus,
               "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
               "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0namespace='zelt'",
               &Entry<&BusConnectionImpl::OnNameOwnerChanged>, this));
  slots_.push_back(
      AddMatch(bus,
               "type='signal',path='/zelt/ServiceIPC',interface='org.freedesktop.DBus.Properties',"
               "member='PropertiesChanged',arg0='zelt.ServiceIPC1'",
               &Entry<&BusConnectionImpl::OnPropertiesChanged>, this));
  slots_.push_back(AddMatch(bus,
                            "type='signal',path='/org/freedesktop/DBus/Local',"
                            "interface='org.freedesktop.DBus.Local',member='Disconnected'",
                            &Entry<&BusConnectionImpl::OnDisconnected>, this));
  FillNames(bus, names_);
  if (!service.empty()) {
    own_bus_name_ = OwnName(bus, std::string(service));
    names_.Set(own_bus_name_, unique_name_);
  }
  Check(sd_bus_attach_event(bus, loop_.Event(), SD_EVENT_PRIORITY_NORMAL),
        "cannot attach the bus to the event loop");
  loop_.SetWakeHook([this] { courier_.Pump(); });
}

BusConnectionImpl::~BusConnectionImpl() {
  courier_.Drain();
  ReleaseName();
  loop_.Stop([this] { Teardown(); });
}

// Waits for the bus for a moment, so that who comes after finds the name free.
void BusConnectionImpl::ReleaseName() {
  if (own_bus_name_.empty()) {
    return;
  }
  const auto released = std::make_shared<std::promise<void>>();
  const bool posted = loop_.Post([this, released] {
    if (lost_) {
      released->set_value();
      return;
    }
    sd_bus_slot* slot = nullptr;
    sd_bus_call_method_async(
        bus_.get(), &slot, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "ReleaseName",
        [](sd_bus_message*, void* waits, sd_bus_error*) {
          static_cast<std::promise<void>*>(waits)->set_value();
          return 0;
        },
        released.get(), "s", own_bus_name_.c_str());
    slots_.emplace_back(slot);
    released_ = released;
  });
  if (posted) {
    released->get_future().wait_for(kReleaseTime);
  }
}

// On the loop's thread, as its last work.
void BusConnectionImpl::Teardown() {
  courier_.Close(kClosed);
  requests_.Close(kClosed);
  receivers_.Close();
  watches_.Close();
  object_.Close();
  slots_.clear();
  sd_bus_detach_event(bus_.get());
  sd_bus_close(bus_.get());
  bus_.reset();
}

int BusConnectionImpl::OnDisconnected(sd_bus_message*) {
  lost_ = true;
  ZELT_LOG(kLogError, kIpcLogCategory) << "Lost the connection to the bus at " << address_;
  courier_.Close("the connection to the bus was lost");
  requests_.Close("the connection to the bus was lost");
  for (const auto& watch : std::exchange(disconnect_watches_, {})) {
    RunGuarded(kIpcLogCategory, [&] { (*watch)(); }, "Watch of the connection threw an exception");
  }
  return 0;
}

AsyncCallbackHandle BusConnectionImpl::WatchDisconnect(UniqueFunction<void()> callback) {
  auto watch = std::make_shared<RevocableCallback<>>(std::move(callback));
  loop_.Post([this, watch] {
    if (lost_) {
      (*watch)();
    } else {
      disconnect_watches_.push_back(watch);
    }
  });
  return AsyncCallbackHandle([weak = weak_from_this(), watch] {
    if (const auto self = weak.lock()) {
      self->loop_.Post(
          [self = self.get(), watch] { std::erase(self->disconnect_watches_, watch); });
    }
    watch->Revoke();
  });
}

// ---------------------------------------------------------------------------------------------
// Who is who, and in which state

int BusConnectionImpl::OnNameOwnerChanged(sd_bus_message* message) {
  const auto change = ReadOwnerChange(message);
  if (!change) {
    lines_.Complain("Dropped a forged NameOwnerChanged from [" + SenderOf(message) + "]");
    return 0;
  }
  courier_.ChangeOwner(change->name, change->before, change->now);
  requests_.OnOwnerChanged(change->name, change->before);
  watches_.OnOwnerChanged(change->name);
  return 0;
}

int BusConnectionImpl::OnPropertiesChanged(sd_bus_message* message) {
  const auto state = ReadChangedState(message);
  if (!state) {
    return 0;
  }
  const std::string connection = SenderOf(message);
  watches_.OnState(connection, *state);
  if (*state == kStateReady && connection != unique_name_ && names_.OwnsService(connection)) {
    receivers_.AnnounceAll(bus_.get());  // it may have been restarted, and knows nobody
  }
  return 0;
}

void BusConnectionImpl::SetState(std::uint32_t state) {
  if (!own_bus_name_.empty() && state_.exchange(state) != state) {
    courier_.Send(Broadcast{"", "", state});
  }
}

AsyncCallbackHandle BusConnectionImpl::WatchState(std::string_view service,
                                                  UniqueFunction<void(std::uint32_t)> callback) {
  auto bus_name = BusNameOf(service);
  if (!bus_name) {
    ZELT_LOG(kLogError, kIpcLogCategory)
        << "Cannot watch [" << service << "]: this is the name of no service or tool";
    return {};
  }
  auto watch = std::make_shared<RevocableCallback<std::uint32_t>>(std::move(callback));
  loop_.Post([this, watch, bus_name = std::move(*bus_name)] { watches_.Add(bus_name, watch); });
  return AsyncCallbackHandle([weak = weak_from_this(), watch] {
    if (const auto self = weak.lock()) {
      self->loop_.Post([self = self.get(), watch] { self->watches_.Remove(watch); });
    }
    watch->Revoke();
  });
}

std::future<BusConnection::StateReply> BusConnectionImpl::QueryState(std::string_view service,
                                                                     Seconds timeout) {
  std::promise<StateReply> promise;
  auto future = promise.get_future();
  const auto bus_name = BusNameOf(service);
  const bool is_own = bus_name && (*bus_name == own_bus_name_ || *bus_name == unique_name_);
  if (!bus_name) {
    promise.set_value({Outcome::Invalid, 0, "this is the name of no service or tool"});
  } else if (loop_.IsOnLoop()) {
    promise.set_value(is_own && !lost_ ? StateReply{Outcome::Delivered, state_, ""}
                                       : StateReply{Outcome::Invalid, 0, kOnLoop});
  } else {
    Letter letter;
    letter.kind = Letter::Kind::AskState;
    const auto limit = std::clamp(timeout, Seconds(0), Seconds(kLongestAnswerTime));
    requests_.Ask(*bus_name, std::move(letter), std::chrono::ceil<std::chrono::microseconds>(limit),
                  {}, [promise = std::move(promise)](const Requests::Answer& answer) mutable {
                    if (answer.reply.outcome == Outcome::NoSuchService) {
                      promise.set_value({Outcome::Delivered, 0, ""});
                    } else {
                      promise.set_value({answer.reply.outcome, answer.state, answer.reply.error});
                    }
                  });
  }
  return future;
}

// ---------------------------------------------------------------------------------------------
// Messages

AsyncCallbackHandle BusConnectionImpl::AddTimer(std::string_view name,
                                                UniqueFunction<void()> callback, Seconds interval,
                                                bool periodic) {
  return loop_.AddTimer(name, std::move(callback), interval, periodic);
}

AsyncCallbackHandle BusConnectionImpl::RegisterCallbackImpl(
    std::string_view typeName, std::optional<gsl::span<std::string_view>> allowedSenders,
    MessageCallback callback) {
  std::optional<std::vector<std::string>> allowed;
  if (allowedSenders) {
    allowed.emplace(allowedSenders->begin(), allowedSenders->end());
  }
  return Listen(Receivers::Kind::Callback, typeName, std::move(allowed), std::move(callback));
}

AsyncCallbackHandle BusConnectionImpl::AddSubscribeHandlerImpl(SubscribeHandler handler,
                                                               std::string_view topic) {
  return Listen(
      Receivers::Kind::Handler, topic, std::nullopt,
      [handler = std::move(handler)](const MessageEnvelope&, std::string_view payload) mutable {
        handler(payload);
      });
}

AsyncCallbackHandle BusConnectionImpl::SubscribeImpl(std::string_view topic,
                                                     std::string_view publisher,
                                                     MessageCallback callback) {
  std::optional<std::vector<std::string>> publishers;
  if (!publisher.empty()) {
    publishers = {std::string(publisher)};
  }
  return Listen(Receivers::Kind::Subscription, topic, std::move(publishers), std::move(callback));
}

AsyncCallbackHandle BusConnectionImpl::Listen(Receivers::Kind kind, std::string_view name,
                                              std::optional<std::vector<std::string>> senders,
                                              MessageCallback callback) {
  auto receiver = receivers_.Add(kind, name, std::move(senders), std::move(callback));
  if (!receiver) {
    return {};
  }
  const bool has_match = kind != Receivers::Kind::Callback;
  if (has_match) {
    loop_.Post([this, receiver] { receivers_.InstallMatch(bus_.get(), receiver); });
  }
  return AsyncCallbackHandle([weak = weak_from_this(), receiver, has_match] {
    if (const auto self = weak.lock()) {
      self->receivers_.Remove(receiver);
      if (has_match) {
        self->loop_.Post([self = self.get(), receiver] { self->receivers_.RemoveMatch(receiver); });
      }
    }
    Receivers::Revoke(*receiver);
  });
}

std::future<bool> BusConnectionImpl::SendImpl(std::string_view destination,
                                              std::string_view typeName, std::string_view payload) {
  Letter letter;
  letter.receiver = destination;
  letter.type = typeName;
  letter.payload = payload;
  return Ready(courier_.Send(BusNameOf(destination).value_or(""), std::move(letter)));
}

std::future<bool> BusConnectionImpl::SendResponseImpl(const MessageEnvelope& envelope,
                                                      std::string_view typeName,
                                                      std::string_view payload) {
  if (envelope.request == 0) {
    return Ready(true);  // nobody waits for it
  }
  Letter letter;
  letter.kind = Letter::Kind::Respond;
  letter.receiver = envelope.sender;
  letter.type = typeName;
  letter.payload = payload;
  letter.request = envelope.request;
  const bool is_connection = envelope.connection.starts_with(':');
  return Ready(courier_.Send(is_connection ? envelope.connection : "", std::move(letter)));
}

std::future<bool> BusConnectionImpl::PublishImpl(std::string_view topic, std::string_view payload) {
  return Ready(courier_.Send(Broadcast{std::string(topic), std::string(payload), std::nullopt}));
}

std::future<ServiceIPC::Reply> BusConnectionImpl::RequestImpl(std::string_view destination,
                                                              std::string_view typeName,
                                                              std::string_view payload,
                                                              std::chrono::milliseconds timeout) {
  std::promise<Reply> promise;
  auto future = promise.get_future();
  const auto bus_name = BusNameOf(destination);
  if (!bus_name || loop_.IsOnLoop()) {
    const CallResult refusal{Outcome::Invalid, bus_name ? kOnLoop : kNoName};
    courier_.LogFailure("Send", typeName, destination, refusal);
    promise.set_value({refusal.outcome, "", "", refusal.error});
    return future;
  }
  Letter letter;
  letter.receiver = destination;
  letter.type = typeName;
  letter.payload = payload;
  const auto answer = std::clamp(timeout, std::chrono::milliseconds(0),
                                 std::chrono::milliseconds(kLongestAnswerTime));
  const std::chrono::microseconds delivery =
      answer.count() > 0 ? std::min<std::chrono::microseconds>(answer, kDeliveryTime)
                         : kDeliveryTime;
  requests_.Ask(*bus_name, std::move(letter), delivery, answer,
                [promise = std::move(promise)](Requests::Answer reply) mutable {
                  promise.set_value(std::move(reply.reply));
                });
  return future;
}

}  // namespace zelt
