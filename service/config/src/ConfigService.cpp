#include "ConfigService.h"

#include "ConfigFile.h"
#include "zelt/ConfigPublisher.h"
#include "zelt/LogClient.h"
#include "zelt/Paths.h"

#include <unistd.h>

#include <csignal>
#include <stdexcept>
#include <utility>

namespace zelt {
namespace {

sigset_t ReloadSignal() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGHUP);
  return set;
}

// Takes over or makes the block each time, so that one that was deleted or spoilt comes back.
void Publish(const ConfigRecord& record) {
  ConfigPublisher(ConfigSharedMemoryFile()).Publish(record);
  ZELT_LOG(kLogInfo, kConfigLogCategory) << "Configuration published: " << Summary(record);
}

}  // namespace

void BlockReloadSignal() {
  const sigset_t set = ReloadSignal();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

ConfigService::ConfigService(std::shared_ptr<ServiceModel> model, std::string file,
                             const ConfigRecord& record)
    : MicroserviceIF(std::move(model)), file_(std::move(file)), record_(record) {}

void ConfigService::DoRun() {
  Publish(record_);
  SetMyServiceState(service_state::State::Ready);
  const sigset_t set = ReloadSignal();
  int signal = 0;
  while (sigwait(&set, &signal) == 0 && !stop_) {
    Reload();
  }
  SetMyServiceState(service_state::State::Stopped);
}

void ConfigService::DoDie() {
  stop_ = true;
  kill(getpid(), SIGHUP);
}

void ConfigService::Reload() const {
  ZELT_LOG(kLogInfo, kConfigLogCategory) << "Reading " << file_ << " again";
  const ParsedConfig parsed = ReadConfigFile(file_);
  for (const std::string& problem : parsed.problems) {
    ZELT_LOG(kLogError, kConfigLogCategory) << problem;
  }
  if (!parsed.problems.empty()) {
    ZELT_LOG(kLogError, kConfigLogCategory)
        << "The configuration that is in force stays, because of " << parsed.problem_count
        << " problem(s) in " << file_;
    return;
  }
  try {
    Publish(parsed.record);
  } catch (const std::runtime_error& error) {
    ZELT_LOG(kLogError, kConfigLogCategory)
        << "The configuration that is in force stays, publishing failed: " << error.what();
  }
}

}  // namespace zelt
