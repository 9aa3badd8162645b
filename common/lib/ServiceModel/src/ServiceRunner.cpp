#include "zelt/ServiceRunner.h"

#include "ServiceModelImpl.h"
#include "zelt/FreeMemory.h"
#include "zelt/LogClient.h"
#include "zelt/RunGuarded.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace zelt {

namespace {

using service_state::State;

constexpr std::chrono::seconds kShutdownDependencyTime{5};
constexpr std::chrono::seconds kPatience{1};  // with a dependency that does not tell its state

// One run of one service. Three threads meet here: the one that runs the service, the IPC thread
// with signals and states, and the stopper, which exists only while the service is being stopped.
class Runner {
 public:
  Runner(std::string_view name, std::shared_ptr<BusConnection> connection)
      : name_(name),
        connection_(std::move(connection)),
        model_(std::make_shared<ServiceModelImpl>(connection_)) {}

  int Run(const ServiceRunner::Factory& factory, gsl::span<const std::string_view> dependencies,
          gsl::span<const std::string_view> shutdown_dependencies);

 private:
  enum class Cause { None, Signal, BusLost };
  // What is known of the services of a list; no value: not told yet.
  using States = std::map<std::string, std::optional<State>, std::less<>>;

  void CheckNames(gsl::span<const std::string_view> names);
  void OnSignal(int signal);
  void Stop(Cause cause);
  void StartStopperIfDue();
  void StopService();
  std::vector<AsyncCallbackHandle> Watch(States& states, gsl::span<const std::string_view> names);
  void WaitForDependencies(gsl::span<const std::string_view> names);
  void WaitForShutdownDependencies();
  bool RunToEnd(const ServiceRunner::Factory& factory);
  [[noreturn]] void GiveUp();

  // constant after construction
  const std::string name_;
  const std::shared_ptr<BusConnection> connection_;
  const std::shared_ptr<ServiceModel> model_;

  gsl::span<const std::string_view> shutdown_dependencies_;  // constant while it runs
  int signals_ = 0;                                          // touched by the IPC thread only

  std::mutex mutex_;
  std::condition_variable changed_;
  // guarded by mutex_
  Cause cause_ = Cause::None;
  std::shared_ptr<MicroserviceIF> service_;  // from its creation until DoRun has returned
  std::thread stopper_;
  States dependencies_;
  States shutdown_states_;
};

bool IsGone(const std::optional<State>& state) {
  return state == State::NotRunning || state == State::Stopped;
}

// "Config (NOT_RUNNING), Audio (no answer)": those of `states` that are not as they should be.
template <class Predicate>
std::string Missing(const std::map<std::string, std::optional<State>, std::less<>>& states,
                    Predicate is_good) {
  std::string text;
  for (const auto& [name, state] : states) {
    if (!is_good(state)) {
      text += text.empty() ? "" : ", ";
      text += name + " (" + (state ? GetServiceStateString(*state) : "no answer") + ")";
    }
  }
  return text;
}

int Runner::Run(const ServiceRunner::Factory& factory,
                gsl::span<const std::string_view> dependencies,
                gsl::span<const std::string_view> shutdown_dependencies) {
  shutdown_dependencies_ = shutdown_dependencies;
  CheckNames(dependencies);
  CheckNames(shutdown_dependencies);
  model_->SetMyServiceState(State::Starting);
  const auto signals =
      connection_->WatchSignals({SIGTERM, SIGINT}, [this](int signal) { OnSignal(signal); });
  const auto disconnect = connection_->WatchDisconnect([this] { Stop(Cause::BusLost); });

  WaitForDependencies(dependencies);
  const bool completed = RunToEnd(factory);

  std::unique_lock lock(mutex_);
  if (completed && stopper_.joinable()) {
    auto stopper = std::move(stopper_);
    lock.unlock();
    stopper.join();
    lock.lock();
  }
  if (!completed) {
    model_->SetMyServiceState(State::Failed);
    if (stopper_.joinable()) {
      lock.unlock();  // the IPC thread may need it before it can flush
      GiveUp();       // DoDie waits for a DoRun that has failed
    }
    return 1;
  }
  model_->SetMyServiceState(State::Stopped);
  return cause_ == Cause::BusLost ? 1 : 0;
}

// A name that nobody can own would be waited for without end.
void Runner::CheckNames(gsl::span<const std::string_view> names) {
  for (const auto name : names) {
    if (!model_->WatchServiceState(name, [](State) {}).IsOpen()) {
      throw std::runtime_error("its dependency \"" + std::string(name) +
                               "\" is no name of a service");
    }
  }
}

// Creates the service and runs it. False when it threw.
bool Runner::RunToEnd(const ServiceRunner::Factory& factory) {
  {
    const std::lock_guard lock(mutex_);
    if (cause_ != Cause::None) {
      return true;  // before there was anything to stop
    }
  }
  const char* step = "create";
  std::shared_ptr<MicroserviceIF> service;
  const auto run = [&] {
    model_->SetMyServiceState(State::Initializing);
    service = factory(model_);
    if (!service) {
      throw std::runtime_error("the factory gave none");
    }
    step = "run";
    {
      const std::lock_guard lock(mutex_);
      service_ = service;
      StartStopperIfDue();
    }
    service->DoRun();
  };
  const bool completed = RunGuarded(kModelLogCategory, run, "Failed to ", step, " service ", name_);
  const std::lock_guard lock(mutex_);
  service_ = nullptr;  // the stopper, if there is one, holds its own
  return completed;
}

// On the IPC thread.
void Runner::OnSignal(int signal) {
  const std::string signal_name = signal == SIGTERM ? "SIGTERM" : "SIGINT";
  if (++signals_ > 1) {
    ZELT_LOG(kLogError, kModelLogCategory)
        << "Second signal, " << signal_name << ": ending at once";
    std::_Exit(128 + signal);
  }
  ZELT_LOG(kLogInfo, kModelLogCategory) << "Received " << signal_name << ", stopping " << name_;
  Stop(Cause::Signal);
}

void Runner::Stop(Cause cause) {
  const std::lock_guard lock(mutex_);
  if (cause_ == Cause::None) {
    cause_ = cause;
  }
  StartStopperIfDue();
  changed_.notify_all();
}

// With mutex_ held. Whichever comes last, the cause or the service, starts it.
void Runner::StartStopperIfDue() {
  if (cause_ == Cause::None || !service_ || stopper_.joinable()) {
    return;
  }
  const auto stop = [this, service = service_] {
    StopService();
    service->DoDie();
  };
  try {
    stopper_ = std::thread([this, stop] {
      if (!RunGuarded(kModelLogCategory, stop, "Failed to stop service ", name_)) {
        GiveUp();  // nothing is left that would make DoRun return
      }
    });
  } catch (const std::system_error& error) {
    ZELT_LOG(kLogError, kModelLogCategory) << "Cannot start the thread that stops service " << name_
                                           << ", ending at once: " << error.what();
    std::_Exit(1);
  }
}

std::vector<AsyncCallbackHandle> Runner::Watch(States& states,
                                               gsl::span<const std::string_view> names) {
  std::vector<AsyncCallbackHandle> watches;
  for (const auto name : names) {
    {
      const std::lock_guard lock(mutex_);
      states.emplace(name, std::nullopt);
    }
    watches.push_back(model_->WatchServiceState(name, [this, &states, name](State state) {
      const std::lock_guard lock(mutex_);
      states.find(name)->second = state;
      changed_.notify_all();
    }));
  }
  return watches;
}

void Runner::WaitForDependencies(gsl::span<const std::string_view> names) {
  const auto watches = Watch(dependencies_, names);
  const auto is_ready = [](const std::optional<State>& state) { return state == State::Ready; };
  std::unique_lock lock(mutex_);
  const auto all = [this](auto predicate) {
    return std::ranges::all_of(dependencies_,
                               [&](const auto& item) { return predicate(item.second); });
  };
  // The first answers come at once; a line for each of them would only confuse.
  changed_.wait_for(lock, kPatience, [&] {
    return cause_ != Cause::None || all([](const auto& state) { return state.has_value(); });
  });
  std::string logged;
  while (cause_ == Cause::None && !all(is_ready)) {
    auto missing = Missing(dependencies_, is_ready);
    if (logged.empty()) {
      model_->SetMyServiceState(State::WaitingForDependencies);
    }
    if (missing != logged) {
      ZELT_LOG(kLogInfo, kModelLogCategory) << name_ << " waits for: " << missing;
      logged = std::move(missing);
    }
    changed_.wait(lock);
  }
  if (cause_ == Cause::None && !logged.empty()) {
    ZELT_LOG(kLogInfo, kModelLogCategory) << "Everything that " << name_ << " waited for is ready";
  }
}

void Runner::WaitForShutdownDependencies() {
  const auto watches = Watch(shutdown_states_, shutdown_dependencies_);
  std::unique_lock lock(mutex_);
  const auto all_gone = [this] {
    return std::ranges::all_of(shutdown_states_, IsGone, &States::value_type::second);
  };
  if (!changed_.wait_for(lock, kShutdownDependencyTime, all_gone)) {
    ZELT_LOG(kLogWarning, kModelLogCategory)
        << name_ << " stops although these still run: " << Missing(shutdown_states_, IsGone);
  }
}

void Runner::StopService() {
  model_->SetMyServiceState(State::Stopping);
  if (!shutdown_dependencies_.empty()) {
    WaitForShutdownDependencies();
  }
}

// Without mutex_.
void Runner::GiveUp() {
  model_->SetMyServiceState(State::Failed);
  connection_->Flush();
  std::_Exit(1);
}

}  // namespace

int ServiceRunner::RunService(const Factory& factory, std::string_view name,
                              gsl::span<const std::string_view> dependencies,
                              gsl::span<const std::string_view> shutdownDependencies) {
  KeepLittleFreeMemory();
  std::string identifier(name);
  std::ranges::transform(identifier, identifier.begin(),
                         [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  SetLogIdentifier(std::move(identifier));

  // Before there is a second thread: signals are read by the IPC thread and interrupt nothing.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGTERM);
  sigaddset(&stop_signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

  try {
    return Runner(name, BusConnection::Open(name)).Run(factory, dependencies, shutdownDependencies);
  } catch (const std::exception& error) {
    ZELT_LOG(kLogError, kModelLogCategory)
        << "Cannot start service " << name << ": " << error.what();
    return 1;
  }
}

}  // namespace zelt
