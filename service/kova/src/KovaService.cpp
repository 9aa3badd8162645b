#include "KovaService.h"

#include "Log.h"

#include "zelt/Paths.h"
#include "zelt/RegularFile.h"

#include <string_view>
#include <utility>

namespace zelt {
namespace {

constexpr const char* kBannerLine = "-----------------------------------------";

// Set by the build, so that a deployment can have its own.
constexpr std::string_view kCollaborationTestKey = KOVA_COLLABORATION_TEST_KEY;
static_assert(kCollaborationTestKey.size() == 40 &&
                  kCollaborationTestKey.find_first_not_of("0123456789abcdef") ==
                      std::string_view::npos,
              "KOVA_COLLABORATION_TEST_KEY must be 40 lower-case hexadecimal digits");

void LogBanner(const char* function, const char* text) {
  for (const char* line : {kBannerLine, text, kBannerLine}) {
    ZELT_LOG_AS(function, kLogInfo, kServiceLog) << line;
  }
}

}  // namespace

KovaService::KovaService(std::shared_ptr<ServiceModel> model, int,
                         std::shared_ptr<KovaContext> context)
    : MicroserviceIF(std::move(model)),
      context_(context ? std::move(context) : std::make_shared<KovaContext>(Model())) {
  KOVA_LOG(kLogInfo) << "Creating Kova service";
}

void KovaService::DoRun() {
  KOVA_LOG(kLogInfo) << "Starting KovaService";
  context_->Init(nullptr, nullptr);
  context_->RegisterIpcCallbacks();
  SetMyServiceState(service_state::State::Ready);
  LogBanner(__func__, " Kova service READY!                    ");
  // Nobody minds a failure.
  static_cast<void>(
      WriteRegularFile(EnableCollaborationTestKeyConfigFile(), kCollaborationTestKey));
  SetRunning(true);
  ZELT_LOG(kLogInfo, kServiceLog) << "Kova service running..........";
  // A task like any other: a handler that hangs is noticed.
  const auto watchdog = Model()->AddWatchdog(
      [this](auto alive) { context_->TaskQueue().PushAlways(std::move(alive)); });
  while (running_) {
    auto task = context_->TaskQueue().Pop();
    task();
  }
  const std::lock_guard lock(state_mutex_);
  state_condition_.notify_one();
}

void KovaService::DoDie() {
  ZELT_LOG(kLogInfo, kServiceLog) << "Kova sevice is shutting down";
  {
    std::unique_lock lock(state_mutex_);
    state_condition_.wait(lock, [this] { return running_.load(); });
  }
  context_->TaskQueue().Close([this] { running_ = false; });
  context_->Deinit();
  {
    std::unique_lock lock(state_mutex_);
    state_condition_.wait(lock, [this] { return !running_.load(); });
  }
  SetMyServiceState(service_state::State::Stopped);
  LogBanner(__func__, " Kova service SHUTDOWN complete         ");
}

void KovaService::SetRunning(bool running) {
  const std::lock_guard lock(state_mutex_);
  running_ = running;
  state_condition_.notify_one();
}

}  // namespace zelt
