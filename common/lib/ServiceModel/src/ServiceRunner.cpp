#include "zelt/ServiceRunner.h"

#include "ProcessSetup.h"
#include "ServiceModelImpl.h"
#include "zelt/FreeMemory.h"
#include "zelt/LogClient.h"
#include "zelt/Mutex.h"
#include "zelt/RunGuarded.h"
#include "zelt/StartThread.h"
#include "zelt/ThreadAnnotations.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace zelt {

namespace {

using service_state::State;

constexpr std::chrono::seconds kShutdownDependencyTime{5};
constexpr std::chrono::seconds kFirstAnswersTime{1};  // for all dependencies to tell their states
constexpr std::chrono::milliseconds kExitTime{1500};

// Ends the process when what is left of it after DoRun does not: a callback that holds the IPC
// thread, or a destructor, holds nobody up for longer than kExitTime.
class ExitGuard {
 public:
  explicit ExitGuard(std::string_view name) : name_(name) {}
  ExitGuard(const ExitGuard&) = delete;
  ExitGuard& operator=(const ExitGuard&) = delete;
  ~ExitGuard() {
    {
      const Lock lock(mutex_);
      is_over_ = true;
    }
    changed_.NotifyAll();
    if (thread_.joinable()) {
      thread_.join();
    }
  }

  // Lets the time begin. Once. Where there can be no further thread, there is no guard.
  void Start() {
    RunGuarded(
        kModelLogCategory, [this] { thread_ = StartThread([this] { Watch(); }); },
        "The end is not watched");
  }

 private:
  void Watch() {
    Lock lock(mutex_);
    const auto deadline = std::chrono::steady_clock::now() + kExitTime;
    bool in_time = true;
    while (!is_over_ && in_time) {
      in_time = changed_.WaitUntil(lock, deadline);
    }
    if (!is_over_) {
      ZELT_LOG_AS("RunService", kLogError, kModelLogCategory)
          << name_ << " does not come to its end, ending at once";
      FlushLog();
      std::_Exit(1);
    }
  }

  const std::string_view name_;
  std::thread thread_;
  Mutex mutex_;
  Condition changed_;
  bool is_over_ ZELT_GUARDED_BY(mutex_) = false;
};

// One run of one service. Three threads meet here: the one that runs the service; the stopper,
// which waits for a signal and then stops the service; and the IPC thread, with the states of
// others and the loss of the bus.
class Runner {
 public:
  Runner(std::string_view name, StopSignals& signals, ExitGuard& guard)
      : name_(name),
        signals_(signals),
        guard_(guard),
        connection_(BusConnection::Open(name)),
        model_(std::make_shared<ServiceModelImpl>(connection_)) {}
  Runner(const Runner&) = delete;
  Runner& operator=(const Runner&) = delete;
  ~Runner() { JoinStopper(); }

  int Run(const ServiceRunner::Factory& factory, gsl::span<const std::string_view> dependencies,
          gsl::span<const std::string_view> shutdown_dependencies);

 private:
  enum class Cause { None, Signal, BusLost };
  // What is known of the services of a list; no value: not told yet.
  using States = std::map<std::string, std::optional<State>, std::less<>>;

  void CheckNames(gsl::span<const std::string_view> names);
  void OnBusLost();
  void StopWhenDue();
  void StopService(MicroserviceIF& service);
  bool EndStopper();
  void JoinStopper();
  std::vector<AsyncCallbackHandle> Watch(States Runner::* states,
                                         gsl::span<const std::string_view> names);
  void WaitForDependencies(gsl::span<const std::string_view> names);
  void WaitForShutdownDependencies();
  bool RunToEnd(const ServiceRunner::Factory& factory);
  [[noreturn]] void GiveUp() ZELT_EXCLUDES(mutex_);

  // constant after construction
  const std::string name_;
  StopSignals& signals_;
  ExitGuard& guard_;
  const std::shared_ptr<BusConnection> connection_;
  const std::shared_ptr<ServiceModel> model_;

  gsl::span<const std::string_view> shutdown_dependencies_;  // constant while it runs
  std::thread stopper_;                                      // touched by the service's thread only

  Mutex mutex_;
  Condition changed_;
  Cause cause_ ZELT_GUARDED_BY(mutex_) = Cause::None;  // the first one
  bool is_bus_lost_ ZELT_GUARDED_BY(mutex_) = false;
  bool is_stopping_ ZELT_GUARDED_BY(mutex_) = false;  // the stopper is at DoDie
  bool has_ended_ ZELT_GUARDED_BY(mutex_) = false;    // there is nothing left to stop
  std::shared_ptr<MicroserviceIF> service_;           // from its creation until DoRun has returned
  States dependencies_ ZELT_GUARDED_BY(mutex_);
  States shutdown_states_ ZELT_GUARDED_BY(mutex_);
};

bool IsGone(const std::optional<State>& state) {
  return state == State::NotRunning || state == State::Stopped;
}

template <class Predicate>
bool All(const std::map<std::string, std::optional<State>, std::less<>>& states,
         Predicate is_good) {
  return std::ranges::all_of(states, [&](const auto& item) { return is_good(item.second); });
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
  stopper_ = StartThread([this] { StopWhenDue(); });
  const auto disconnect = connection_->WatchDisconnect([this] { OnBusLost(); });

  WaitForDependencies(dependencies);
  if (!RunToEnd(factory)) {
    model_->SetMyServiceState(State::Failed);
    if (EndStopper()) {
      GiveUp();  // DoDie waits for a DoRun that has failed
    }
    return 1;
  }
  JoinStopper();
  StopSignals::EndProcessByNext();  // also while the connection is closed
  model_->SetMyServiceState(State::Stopped);
  const Lock lock(mutex_);
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
    const Lock lock(mutex_);
    if (cause_ != Cause::None) {
      guard_.Start();
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
      const Lock lock(mutex_);
      service_ = service;
    }
    changed_.NotifyAll();
    service->DoRun();
  };
  const bool completed = RunGuarded(kModelLogCategory, run, "Failed to ", step, " service ", name_);
  guard_.Start();
  const Lock lock(mutex_);
  service_ = nullptr;  // the stopper, if it is at it, holds its own
  return completed;
}

// On the IPC thread.
void Runner::OnBusLost() {
  {
    const Lock lock(mutex_);
    is_bus_lost_ = true;
    cause_ = cause_ == Cause::None ? Cause::BusLost : cause_;
  }
  changed_.NotifyAll();
  signals_.Cancel();
}

// The stopper. It comes to a stop whatever the other threads are at, and then a second signal ends
// the process, whatever the stopper is at.
void Runner::StopWhenDue() {
  const auto signal = signals_.Wait();
  StopSignals::EndProcessByNext();
  if (signal) {
    ZELT_LOG_AS("Stop", kLogInfo, kModelLogCategory)
        << "Received " << (*signal == SIGTERM ? "SIGTERM" : "SIGINT") << ", stopping " << name_;
    const Lock lock(mutex_);
    cause_ = cause_ == Cause::None ? Cause::Signal : cause_;
  }
  changed_.NotifyAll();
  std::shared_ptr<MicroserviceIF> service;
  {
    Lock lock(mutex_);
    while (!service_ && !has_ended_) {
      changed_.Wait(lock);
    }
    service = service_;
    is_stopping_ = service != nullptr;
  }
  if (service &&
      !RunGuarded(
          kModelLogCategory, [&] { StopService(*service); }, "Failed to stop service ", name_)) {
    GiveUp();  // nothing is left that would make DoRun return
  }
}

void Runner::StopService(MicroserviceIF& service) {
  model_->SetMyServiceState(State::Stopping);
  if (!shutdown_dependencies_.empty()) {
    WaitForShutdownDependencies();
  }
  service.DoDie();
}

// Lets the stopper end, unless it is stopping the service; true if it is.
bool Runner::EndStopper() {
  bool is_stopping = false;
  {
    const Lock lock(mutex_);
    has_ended_ = true;
    is_stopping = is_stopping_;
  }
  changed_.NotifyAll();
  signals_.Cancel();
  return is_stopping;
}

void Runner::JoinStopper() {
  EndStopper();
  if (stopper_.joinable()) {
    stopper_.join();
  }
}

std::vector<AsyncCallbackHandle> Runner::Watch(States Runner::* states,
                                               gsl::span<const std::string_view> names) {
  std::vector<AsyncCallbackHandle> watches;
  for (const auto name : names) {
    {
      const Lock lock(mutex_);
      (this->*states).emplace(name, std::nullopt);
    }
    watches.push_back(model_->WatchServiceState(name, [this, states, name](State state) {
      const Lock lock(mutex_);
      (this->*states).find(name)->second = state;
      changed_.NotifyAll();
    }));
  }
  return watches;
}

void Runner::WaitForDependencies(gsl::span<const std::string_view> names) {
  const auto watches = Watch(&Runner::dependencies_, names);
  const auto is_told = [](const std::optional<State>& state) { return state.has_value(); };
  const auto is_ready = [](const std::optional<State>& state) { return state == State::Ready; };
  Lock lock(mutex_);
  // The first answers come at once; a line for each of them would only confuse.
  const auto deadline = std::chrono::steady_clock::now() + kFirstAnswersTime;
  for (bool in_time = true; cause_ == Cause::None && !All(dependencies_, is_told) && in_time;) {
    in_time = changed_.WaitUntil(lock, deadline);
  }
  std::string logged;
  while (cause_ == Cause::None && !All(dependencies_, is_ready)) {
    auto missing = Missing(dependencies_, is_ready);
    if (logged.empty()) {
      model_->SetMyServiceState(State::WaitingForDependencies);
    }
    if (missing != logged) {
      ZELT_LOG(kLogInfo, kModelLogCategory) << name_ << " waits for: " << missing;
      logged = std::move(missing);
    }
    changed_.Wait(lock);
  }
  if (cause_ == Cause::None && !logged.empty()) {
    ZELT_LOG(kLogInfo, kModelLogCategory) << "Everything that " << name_ << " waited for is ready";
  }
}

// A bus that is lost tells no states.
void Runner::WaitForShutdownDependencies() {
  const auto watches = Watch(&Runner::shutdown_states_, shutdown_dependencies_);
  Lock lock(mutex_);
  const auto deadline = std::chrono::steady_clock::now() + kShutdownDependencyTime;
  bool in_time = true;
  while (!is_bus_lost_ && !All(shutdown_states_, IsGone) && in_time) {
    in_time = changed_.WaitUntil(lock, deadline);
  }
  if (!is_bus_lost_ && !All(shutdown_states_, IsGone)) {
    ZELT_LOG(kLogWarning, kModelLogCategory)
        << name_ << " stops although these still run: " << Missing(shutdown_states_, IsGone);
  }
}

void Runner::GiveUp() {
  model_->SetMyServiceState(State::Failed);
  connection_->Flush();
  FlushLog();
  std::_Exit(1);
}

}  // namespace

int ServiceRunner::RunService(const Factory& factory, std::string_view name,
                              gsl::span<const std::string_view> dependencies,
                              gsl::span<const std::string_view> shutdownDependencies) {
  SetUpProcess();
  KeepLittleFreeMemory();
  std::string identifier(name);
  std::ranges::transform(identifier, identifier.begin(),
                         [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  SetLogIdentifier(std::move(identifier));
  ExitGuard guard(name);
  try {
    StopSignals signals;
    return Runner(name, signals, guard).Run(factory, dependencies, shutdownDependencies);
  } catch (const std::exception& error) {
    ZELT_LOG(kLogError, kModelLogCategory)
        << "Cannot start service " << name << ": " << error.what();
    return 1;
  }
}

}  // namespace zelt
