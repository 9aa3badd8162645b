#include "Session.h"

#include "Accepted.h"
#include "Words.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <utility>

namespace zelt::cli {
namespace {

using std::chrono::milliseconds;

constexpr const char* kToolPrefix = "zeltcli-";
constexpr int kNameAttempts = 5;
constexpr long kNameStep = 10'000'000;  // above every process number
constexpr Seconds kListTime{0.2};
constexpr milliseconds kLongestPoll{50};
constexpr milliseconds kTick{100};
constexpr milliseconds kBusCheck{1000};

std::atomic<bool> g_interrupted = false;
static_assert(std::atomic<bool>::is_always_lock_free);

std::string BusHint() {
  const char* const address = std::getenv("ZELT_BUS_ADDRESS");
  return address == nullptr
             ? "ZELT_BUS_ADDRESS is not set, so this was the system bus; set it to the bus on which "
               "the services are"
             : "ZELT_BUS_ADDRESS is " + std::string(address) + "; is that bus running?";
}

CliError NoService(const std::string& service) {
  const std::string near = DidYouMean(service, ServiceNames());
  return {Exit::NoService, "there is no service \"" + service + "\" on the bus",
          near.empty() ? "zeltcli services shows who is there" : near};
}

// What became of the message, when it did not end by the clock.
void ThrowUnlessTimedOut(const ServiceIPC::Reply& reply, const std::string& service,
                         const std::string& type) {
  using Outcome = ServiceIPC::Outcome;
  switch (reply.outcome) {
    case Outcome::NoSuchService:
      throw NoService(service);
    case Outcome::NotTaken:
      throw CliError(Exit::NotTaken, service + " did not take " + type + ": " + reply.error,
                     "zeltcli types shows what Kova accepts");
    case Outcome::Busy:
      throw CliError(Exit::NotTaken, service + " has no room for " + type + " now: " + reply.error,
                     "try again in a moment");
    case Outcome::NotPermitted:
      throw CliError(Exit::NotPermitted, "the bus does not permit it: " + reply.error,
                     "run it as a user whom the policy of the bus allows to talk to " + service);
    case Outcome::Disconnected:
      throw CliError(Exit::NoBus, "the connection to the bus is lost", BusHint());
    case Outcome::Invalid:
      throw CliError(Exit::Usage, "cannot send to \"" + service + "\": " + reply.error);
    case Outcome::TimedOut:
    default:
      break;
  }
}

[[noreturn]] void ThrowNotDelivered(const std::string& service, const std::string& type) {
  throw CliError(Exit::TimedOut,
                 service + " did not take " + type + " within 1 s: is it stopped or hung?",
                 "zeltcli status " + service + " tells whether it answers");
}

[[noreturn]] void ThrowNotAnswered(const ServiceIPC::Reply& reply, const std::string& service,
                                   const std::string& type) {
  std::string hint = "--timeout SECONDS waits longer; the log of " + service +
                     " tells what became of it, zeltcli status " + service +
                     " whether it is ready, zeltcli link status whether the radio is";
  const AcceptedType* const known = service == "Kova" ? FindAccepted(type) : nullptr;
  if (known != nullptr && known->answer == Answer::None) {
    hint = "Kova answers no " + type + ": use zeltcli send";
  } else if (known != nullptr && known->answer == Answer::Elsewhere) {
    hint = "the answer to " + type + " goes to " + std::string(known->detail) +
           ": use zeltcli send, and zeltcli listen --as that service";
  }
  throw CliError(Exit::TimedOut, service + " did not answer " + type + ": " + reply.error, hint);
}

std::shared_ptr<ServiceModel> CreateTool(std::string& name) {
  for (int attempt = 0;; ++attempt) {
    name = kToolPrefix + std::to_string(getpid() + attempt * kNameStep);
    try {
      return ServiceModel::Create(name);
    } catch (const std::runtime_error& error) {
      Connect();  // no bus is another fault than a name that another namespace's process has
      if (attempt + 1 == kNameAttempts) {
        throw CliError(Exit::NotPermitted, error.what(),
                       "does the policy of the bus allow this user to own zelt.tool names?");
      }
    }
  }
}

}  // namespace

std::shared_ptr<ServiceModel> Connect() {
  try {
    return ServiceModel::Create();
  } catch (const std::runtime_error& error) {
    throw CliError(Exit::NoBus, error.what(), BusHint());
  }
}

bool IsTool(std::string_view name) {
  return name.starts_with(kToolPrefix);
}

std::vector<std::string> ServiceNames() {
  std::vector<std::string> names;
  for (const auto& service : Connect()->ListServices(kListTime)) {
    if (!IsTool(service.name)) {
      names.push_back(service.name);
    }
  }
  return names;
}

service_state::State StateOf(const std::string& service, Seconds timeout) {
  const auto model = Connect();
  service_state::State state{};
  try {
    state = model->GetServiceState(service, timeout);
  } catch (const std::runtime_error& error) {
    throw CliError(Exit::TimedOut, error.what(), "is it stopped or hung, or is the bus gone?");
  }
  if (state == service_state::State::NotRunning) {
    throw NoService(service);
  }
  return state;
}

void Session::Inbox::Put(Incoming message) {
  const Lock lock(mutex);
  messages.push_back(std::move(message));
  filled.NotifyOne();
}

std::optional<Incoming> Session::Inbox::Take(Clock::time_point deadline, std::string_view sender) {
  const auto wanted = [sender](const Incoming& message) {
    return sender.empty() || message.sender == sender || message.connection == sender;
  };
  Lock lock(mutex);
  auto found = std::ranges::find_if(messages, wanted);
  for (bool in_time = true; found == messages.end() && in_time;) {
    in_time = filled.WaitUntil(lock, deadline);
    found = std::ranges::find_if(messages, wanted);
  }
  if (found == messages.end()) {
    return std::nullopt;
  }
  Incoming message = std::move(*found);
  messages.erase(found);
  return message;
}

Session::Session(std::string_view service) : name_(service) {
  if (name_.empty()) {
    model_ = CreateTool(name_);
  } else {
    try {
      model_ = ServiceModel::Create(name_);
    } catch (const std::runtime_error& error) {
      Connect();
      throw CliError(Exit::Failed, error.what(), "zeltcli services shows who is there");
    }
  }
  ipc_ = model_->GetServiceIPC();
  own_name_ = ipc_->RegisterCallbackImpl("", std::nullopt, ToInbox(false));
  if (!service.empty()) {
    model_->SetMyServiceState(service_state::State::Ready);
  }
}

ServiceIPC::MessageCallback Session::ToInbox(bool published) const {
  return [inbox = inbox_, published](const ServiceIPC::MessageEnvelope& envelope,
                                     std::string_view payload) {
    inbox->Put({.sender = envelope.sender,
                .type = envelope.type,
                .payload = std::string(payload),
                .published = published,
                .connection = envelope.connection});
  };
}

void Session::Send(const std::string& service, const std::string& type, std::string_view payload) {
  const auto reply = ipc_->RequestImpl(service, type, payload, milliseconds(0)).get();
  if (reply.outcome != ServiceIPC::Outcome::Delivered) {
    ThrowUnlessTimedOut(reply, service, type);
    ThrowNotDelivered(service, type);
  }
}

Incoming Session::Request(const std::string& service, const std::string& type,
                          std::string_view payload, Seconds timeout,
                          const std::function<void()>& tick) {
  const auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(timeout);
  auto future = ipc_->RequestImpl(service, type, payload, std::chrono::ceil<milliseconds>(timeout));
  auto next_tick = Clock::now();
  milliseconds poll{1};
  bool ended = false;
  while (true) {
    // A message wakes the inbox; the reply is looked at, the less often the longer it takes.
    poll = std::min(poll * 2, ended ? milliseconds(0) : kLongestPoll);
    if (auto message = inbox_->Take(Clock::now() + poll, service)) {
      return std::move(*message);
    }
    if (ended) {
      auto reply = future.get();
      if (reply.outcome == ServiceIPC::Outcome::Answered) {
        return {.sender = service, .type = reply.type, .payload = reply.payload};
      }
      ThrowUnlessTimedOut(reply, service, type);
      if (Clock::now() < deadline) {
        ThrowNotDelivered(service, type);  // that has less time than the answer
      }
      ThrowNotAnswered(reply, service, type);
    }
    // The inbox is looked at once more before the reply: a message may have come in between.
    ended = future.wait_for(milliseconds(0)) == std::future_status::ready;
    if (!ended && tick && Clock::now() >= next_tick) {
      next_tick = Clock::now() + kTick;
      tick();
    }
  }
}

void Session::Subscribe(const std::string& topic, std::string_view publisher) {
  own_name_.Close();
  subscription_.Close();
  if (!topic.empty()) {
    // What is sent to this tool alone is not what was published.
    std::optional<gsl::span<std::string_view>> allowed;
    if (!publisher.empty()) {
      allowed.emplace(&publisher, 1);
    }
    addressed_ = ipc_->RegisterCallbackImpl(topic, allowed, ToInbox(false));
  }
  subscription_ = ipc_->SubscribeImpl(topic, publisher, ToInbox(true));
}

std::optional<Incoming> Session::Next(Clock::time_point deadline) {
  while (!Interrupted()) {
    const auto now = Clock::now();
    if (auto message = inbox_->Take(std::min(deadline, now + kTick))) {
      return message;
    }
    if (now >= deadline) {
      break;
    }
    CheckBus();
  }
  return std::nullopt;
}

void Session::CheckBus() {
  if (Clock::now() - checked_ < kBusCheck) {
    return;
  }
  try {
    model_->GetServiceState(name_, kBusCheck);
  } catch (const std::runtime_error&) {
    throw CliError(Exit::NoBus, "the connection to the bus is lost", BusHint());
  }
  checked_ = Clock::now();
}

void CatchInterrupts() {
  struct sigaction action{};
  action.sa_handler = [](int) { g_interrupted = true; };
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

bool Interrupted() {
  return g_interrupted;
}

}  // namespace zelt::cli
