#pragma once

#include "zelt/ConfigReaderIF.h"
#include "zelt/MicroserviceIF.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

namespace zelt {

inline constexpr std::uint32_t kConfigLogCategory = 0x8007;

// Publishes the configuration, and again after each SIGHUP.
//
// SIGHUP must be blocked in every thread of the process before the first one starts: DoRun waits
// for it, and DoDie sends it to end that wait.
class ConfigService : public MicroserviceIF {
 public:
  // `record` is what the file says at start.
  ConfigService(std::shared_ptr<ServiceModel> model, std::string file, const ConfigRecord& record);

  // Throws std::runtime_error when the record cannot be published at start.
  void DoRun() override;
  void DoDie() override;

 private:
  void Reload() const;

  const std::string file_;
  const ConfigRecord record_;
  std::atomic<bool> stop_ = false;
};

// The signals that DoRun waits for.
void BlockReloadSignal();

}  // namespace zelt
