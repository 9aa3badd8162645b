#include "ServiceModelImpl.h"

#include <systemd/sd-daemon.h>

#include <chrono>
#include <future>
#include <stdexcept>
#include <string>
#include <utility>

namespace zelt {

std::shared_ptr<ServiceModel> ServiceModel::Create() {
  return std::make_shared<ServiceModelImpl>(BusConnection::Open(""));
}

std::shared_ptr<ServiceModel> ServiceModel::Create(std::string_view name) {
  if (name.empty()) {
    throw std::runtime_error("the name of a service must not be empty");
  }
  return std::make_shared<ServiceModelImpl>(BusConnection::Open(name));
}

ServiceModelImpl::ServiceModelImpl(std::shared_ptr<BusConnection> connection)
    : connection_(std::move(connection)) {}

std::shared_ptr<ServiceIPC> ServiceModelImpl::GetServiceIPC() {
  return connection_;
}

AsyncCallbackHandle ServiceModelImpl::AddTimer(std::string_view name,
                                               UniqueFunction<void()> callback, Seconds interval,
                                               bool periodic) {
  return connection_->AddTimer(name, std::move(callback), interval, periodic);
}

service_state::State ServiceModelImpl::GetServiceState(std::string_view service, Seconds timeout) {
  const auto reply = connection_->QueryState(service, timeout).get();
  if (reply.outcome != ServiceIPC::Outcome::Delivered) {
    throw std::runtime_error("cannot get the state of service \"" + std::string(service) +
                             "\": " + reply.error);
  }
  return static_cast<service_state::State>(reply.state);
}

void ServiceModelImpl::SetMyServiceState(service_state::State state) {
  connection_->SetState(static_cast<std::uint32_t>(state));
  std::string change = "STATUS=" + GetServiceStateString(state);
  if (state == service_state::State::Ready) {
    change += "\nREADY=1";
  } else if (state == service_state::State::Stopping) {
    change += "\nSTOPPING=1";
  }
  sd_notify(0, change.c_str());
}

AsyncCallbackHandle ServiceModelImpl::AddWatchdog(UniqueFunction<void(AliveFunction alive)> ask) {
  std::uint64_t limit = 0;
  if (sd_watchdog_enabled(0, &limit) <= 0) {
    return {};
  }
  return AddTimer(
      "Watchdog", [ask = std::move(ask)]() mutable { ask([] { sd_notify(0, "WATCHDOG=1"); }); },
      std::chrono::microseconds(limit / 3), true);
}

AsyncCallbackHandle ServiceModelImpl::WatchServiceState(
    std::string_view service, UniqueFunction<void(service_state::State)> callback) {
  return connection_->WatchState(service,
                                 [callback = std::move(callback)](std::uint32_t state) mutable {
                                   callback(static_cast<service_state::State>(state));
                                 });
}

std::vector<ServiceModel::ServiceInfo> ServiceModelImpl::ListServices(Seconds timeout) {
  const auto names = connection_->ListNames();
  std::vector<std::future<BusConnection::StateReply>> replies;
  replies.reserve(names.size());
  for (const auto& name : names) {
    replies.push_back(connection_->QueryState(name, timeout));
  }
  std::vector<ServiceInfo> services;
  for (std::size_t i = 0; i < names.size(); ++i) {
    const auto reply = replies[i].get();
    services.push_back({names[i], static_cast<service_state::State>(reply.state),
                        reply.outcome == ServiceIPC::Outcome::Delivered});
  }
  return services;
}

}  // namespace zelt
