#pragma once

#include "zelt/BusConnection.h"
#include "zelt/ServiceModel.h"

#include <memory>

namespace zelt {

inline constexpr std::uint32_t kModelLogCategory = 0x8014;

// The service model of a process that is connected to a bus.
class ServiceModelImpl final : public ServiceModel {
 public:
  explicit ServiceModelImpl(std::shared_ptr<BusConnection> connection);

  std::shared_ptr<ServiceIPC> GetServiceIPC() override;
  AsyncCallbackHandle AddTimer(std::string_view name, UniqueFunction<void()> callback,
                               Seconds interval, bool periodic) override;
  service_state::State GetServiceState(std::string_view service, Seconds timeout) override;
  void SetMyServiceState(service_state::State state) override;
  AsyncCallbackHandle AddWatchdog(UniqueFunction<void(AliveFunction alive)> ask) override;
  AsyncCallbackHandle WatchServiceState(
      std::string_view service, UniqueFunction<void(service_state::State)> callback) override;
  std::vector<ServiceInfo> ListServices(Seconds timeout) override;

 private:
  const std::shared_ptr<BusConnection> connection_;
};

}  // namespace zelt
