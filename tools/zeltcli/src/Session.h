#pragma once

#include "CliError.h"
#include "zelt/Mutex.h"
#include "zelt/ServiceModel.h"
#include "zelt/ThreadAnnotations.h"

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zelt::cli {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

// Connects without a name: for questions about the bus. Throws CliError when there is no bus.
std::shared_ptr<ServiceModel> Connect();

// Asks the state of a service; NotRunning is thrown as CliError, as is a service that does not
// answer.
service_state::State StateOf(const std::string& service, Seconds timeout);

// Tells whether this is a tool's name on the bus, not a service's.
bool IsTool(std::string_view name);

// Lists the services on the bus, without the tools.
std::vector<std::string> ServiceNames();

// A received message.
struct Incoming {
  std::string sender;  // its name or, without one, its connection
  std::string type;
  std::string payload;
  bool published = false;    // false: sent to this tool alone, or the answer to its request
  std::string connection{};  // the sender's; empty for an answer
};

// The tool on the bus under a name, with everything that arrives for it in one inbox.
//
// One thread uses it. What goes wrong on the bus is thrown as CliError.
class Session {
 public:
  // As "zeltcli-N", or as the service `service`, which then reports itself ready.
  explicit Session(std::string_view service = {});

  const std::string& Name() const { return name_; }

  // Returns once a callback of the receiver has taken the message, for which it has 1 s.
  void Send(const std::string& service, const std::string& type, std::string_view payload);

  // Sends, and returns the answer: a response to the request or a message from that service to this
  // tool's own name, whichever comes first. Calls `tick` now and then while it waits; what that
  // throws ends it.
  Incoming Request(const std::string& service, const std::string& type, std::string_view payload,
                   Seconds timeout, const std::function<void()>& tick = {});

  // Takes what `publisher` publishes under `topic`, or sends to this tool alone; an empty topic is
  // everything, an empty publisher everybody. Nothing else is taken from then on. Again: announces
  // this tool anew, so that whoever keeps a state tells it.
  void Subscribe(const std::string& topic, std::string_view publisher);

  // Takes the next message, oldest first; nothing when none comes in time. Throws when the bus is
  // lost.
  std::optional<Incoming> Next(Clock::time_point deadline);

 private:
  // Shared with the callbacks, which may outlive this object by a moment.
  struct Inbox {
    void Put(Incoming message) ZELT_EXCLUDES(mutex);
    // Takes the oldest; with `sender`, the oldest of this service.
    std::optional<Incoming> Take(Clock::time_point deadline, std::string_view sender = {})
        ZELT_EXCLUDES(mutex);

    Mutex mutex;
    Condition filled;
    std::deque<Incoming> messages ZELT_GUARDED_BY(mutex);
  };

  ServiceIPC::MessageCallback ToInbox(bool published) const;
  void CheckBus();

  std::string name_;
  std::shared_ptr<ServiceModel> model_;
  std::shared_ptr<ServiceIPC> ipc_;
  std::shared_ptr<Inbox> inbox_ = std::make_shared<Inbox>();
  Clock::time_point checked_ = Clock::now();
  AsyncCallbackHandle own_name_;
  AsyncCallbackHandle addressed_;
  AsyncCallbackHandle subscription_;
};

// Keeps SIGINT and SIGTERM from ending the process: Interrupted() tells them from now on.
void CatchInterrupts();
bool Interrupted();

}  // namespace zelt::cli
