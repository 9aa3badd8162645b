#include "KeeperService.h"

#include "zelt/LogClient.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace zelt {
namespace {

constexpr std::uint32_t kKeeperLogCategory = 0x8031;
constexpr std::string_view kKova = "Kova";
// More at a time than the switch of a link can need.
constexpr QueueLoad kMostTasks{.number = 256, .bytes = std::size_t{64} << 10U};

template <class Message>
std::string TypeName() {
  return Message().GetTypeName();
}

// Nothing when the payload is not of its type.
template <class Message>
std::optional<Message> Parse(const std::string_view payload) {
  Message message;
  if (!message.ParseFromArray(payload.data(), static_cast<int>(payload.size()))) {
    ZELT_LOG(kLogError, kKeeperLogCategory) << "This is no " << message.GetTypeName();
    return std::nullopt;
  }
  return message;
}

}  // namespace

KeeperService::KeeperService(std::shared_ptr<ServiceModel> model)
    : MicroserviceIF(std::move(model)), ipc_(Model()->GetServiceIPC()), tasks_(kMostTasks) {}

void KeeperService::DoRun() {
  // Handles end what they stand for, so these end when this function does.
  std::vector<AsyncCallbackHandle> handles;
  const auto hear = [this](auto event) {
    return [this, event](const Envelope&, std::string_view payload) { HearLink(payload, event); };
  };
  const std::string link = TypeName<Kova::RTConnectionStatus>();
  std::array kova{kKova};

  // Everything that Kova publishes, and what it sends to a new subscriber alone. From anybody else,
  // the platform lets neither through.
  handles.push_back(Model()->WatchServiceState(kKova, [this](service_state::State state) {
    const bool ready = state == service_state::State::Ready;
    tasks_.PushAlways([this, ready] { CarryOut(keeper_.OnKova(ready)); });
  }));
  handles.push_back(ipc_->RegisterCallbackImpl(link, kova, hear(&LinkKeeper::OnTold)));
  handles.push_back(ipc_->SubscribeImpl(link, kKova, hear(&LinkKeeper::OnPublished)));

  handles.push_back(ipc_->AddSubscribeHandlerImpl(
      [this](std::string_view subscriber) {
        tasks_.Push(
            [this, to = std::string(subscriber)] {
              ipc_->SendImpl(to, TypeName<KeepLinkStatus>(), Status().SerializeAsString());
            },
            subscriber, 0);
      },
      TypeName<KeepLinkStatus>()));
  handles.push_back(ipc_->RegisterCallbackImpl(
      TypeName<KeepLinkRequest>(), std::nullopt,
      [this](const Envelope& from, std::string_view payload) { HearRequest(from, payload); }));
  // A task like any other, so that a supervisor is told what counts: that tasks are done.
  handles.push_back(Model()->AddWatchdog(
      [this](ServiceModel::AliveFunction alive) { tasks_.PushAlways(std::move(alive)); }));

  SetMyServiceState(service_state::State::Ready);
  ZELT_LOG(kLogInfo, kKeeperLogCategory) << "Keeping the link to the radio";
  while (is_running_) {
    tasks_.Pop()();
  }
  timer_.Close();
  handles.clear();
  SetMyServiceState(service_state::State::Stopped);
}

void KeeperService::DoDie() {
  tasks_.Close([this] { is_running_ = false; });
}

// --- Heard, on the platform's thread ------------------------------------------------------------

void KeeperService::HearLink(std::string_view payload,
                             LinkKeeper::Orders (LinkKeeper::*event)(LinkKeeper::Link)) {
  if (const auto status = Parse<Kova::RTConnectionStatus>(payload)) {
    tasks_.PushAlways([this, event, link = status->status()] { CarryOut((keeper_.*event)(link)); });
  }
}

void KeeperService::HearRequest(const Envelope& envelope, std::string_view payload) {
  if (const auto request = Parse<KeepLinkRequest>(payload)) {
    // Anybody may ask as often as he likes: when there is no room, Busy tells him to come back.
    tasks_.Push([this, envelope, action = request->action()] { Answer(envelope, action); },
                envelope.connection, payload.size());
  }
}

// --- Done, on the thread in DoRun ----------------------------------------------------------------

void KeeperService::Answer(const Envelope& envelope, KeepLinkRequest::Action action) {
  if (action == KeepLinkRequest::ON || action == KeepLinkRequest::OFF) {
    ZELT_LOG(kLogInfo, kKeeperLogCategory)
        << envelope.sender << " switches it " << (action == KeepLinkRequest::ON ? "on" : "off");
    CarryOut(keeper_.OnSwitch(action == KeepLinkRequest::ON));
  } else if (action == KeepLinkRequest::TRY) {
    CarryOut(keeper_.OnHint());
  }
  ipc_->SendResponseImpl(envelope, TypeName<KeepLinkStatus>(), Status().SerializeAsString());
}

void KeeperService::CarryOut(const LinkKeeper::Orders& orders) {
  if (orders.stop) {
    Order(Kova::RtConnectionAction::STOP);
  }
  if (orders.start) {
    ZELT_LOG(kLogInfo, kKeeperLogCategory) << "Starting the link, attempt " << keeper_.Attempts();
    Order(Kova::RtConnectionAction::START);
  }
  if (orders.timer) {
    SetTimer(*orders.timer);
  }
  PublishChange();
}

// What becomes of it, Kova publishes; what it does not take, the next attempt makes good.
void KeeperService::Order(Kova::RtConnectionAction::Action action) {
  Kova::RtConnectionAction message;
  message.set_action(action);
  ipc_->SendImpl(kKova, message.GetTypeName(), message.SerializeAsString());
}

void KeeperService::SetTimer(LinkKeeper::Seconds delay) {
  keeper_.SetJitter(std::uniform_real_distribution<>(0, 1)(chance_));
  timer_ = Model()->AddTimer(
      "Keeper",
      [this, number = ++timer_number_] {
        tasks_.PushAlways([this, number] {
          if (number == timer_number_) {  // else it was queued when another one took its place
            CarryOut(keeper_.OnTimer());
          }
        });
      },
      delay, false);
}

KeepLinkStatus KeeperService::Status() const {
  KeepLinkStatus status;
  status.set_state(keeper_.GetState());
  status.set_attempts(keeper_.Attempts());
  return status;
}

void KeeperService::PublishChange() {
  const KeepLinkStatus status = Status();
  if (status.state() != published_.state()) {
    ZELT_LOG(kLogInfo, kKeeperLogCategory)
        << "The state is " << KeepLinkStatus::State_Name(status.state());
  } else if (status.attempts() == published_.attempts()) {
    return;
  }
  ipc_->PublishImpl(TypeName<KeepLinkStatus>(), status.SerializeAsString());
  published_ = status;
}

}  // namespace zelt
