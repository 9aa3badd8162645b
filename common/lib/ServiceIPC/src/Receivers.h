#pragma once

#include "BusNames.h"
#include "LineLimit.h"
#include "SdBus.h"
#include "zelt/Mutex.h"
#include "zelt/RevocableCallback.h"
#include "zelt/ServiceIPC.h"
#include "zelt/ThreadAnnotations.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zelt {

// What became of a message that was delivered to this process.
struct Delivery {
  enum class Taken : std::uint8_t { No, Yes, Busy };

  Taken taken = Taken::No;
  std::string why{};  // Busy: what the callback said
};

// Who listens: registrations, subscribe handlers and subscriptions, and who is called for what.
//
// Any thread adds and removes receivers; callbacks run on the loop's thread, which alone touches
// the bus. Names and limit must outlive this object.
class Receivers {
 public:
  using MessageEnvelope = ServiceIPC::MessageEnvelope;

  enum class Kind : std::uint8_t { Callback, Handler, Subscription };
  class Receiver;
  using ReceiverPtr = std::shared_ptr<Receiver>;

  Receivers(const NameMap& names, LineLimit& lines) : names_(names), lines_(lines) {}
  Receivers(const Receivers&) = delete;
  Receivers& operator=(const Receivers&) = delete;

  // --- any thread

  // Adds a receiver: `name` is a type, a topic, or empty for any, which a handler cannot have;
  // `senders` are those whose messages it takes, by name (nothing: all). Of a subscription, it is
  // the publisher. Nothing, with a line in the log, when one of the names is malformed.
  ReceiverPtr Add(Kind kind, std::string_view name, std::optional<std::vector<std::string>> senders,
                  ServiceIPC::MessageCallback callback);

  // Removes it: no new call of it begins. See Revoke for one that is running.
  void Remove(const ReceiverPtr& receiver);

  // Ends the callback, as the handle that is closed promises.
  static void Revoke(Receiver& receiver);

  // --- the loop's thread

  // Has the bus pass on what `receiver` listens to, and announces a subscription to publishers.
  void InstallMatch(sd_bus* bus, const ReceiverPtr& receiver);
  void RemoveMatch(const ReceiverPtr& receiver);

  // Calls whoever takes messages of the type: the latest registration; else every subscription of
  // that name, so that a subscriber takes what is sent to it alone, as when it has just subscribed;
  // else the latest registration for everything.
  Delivery Deliver(const MessageEnvelope& envelope, std::string_view payload);

  // Announces every subscription again.
  void AnnounceAll(sd_bus* bus) const;

  // Removes everything; nobody is called any more.
  void Close();

 private:
  static int OnSignal(sd_bus_message* message, void* receiver, sd_bus_error* error) noexcept;
  static int OnInstalled(sd_bus_message* reply, void* receiver, sd_bus_error* error) noexcept;
  void OnSignal(Receiver& receiver, sd_bus_message* message);
  std::vector<ReceiverPtr> Find(std::string_view type) const;
  bool Believes(const Receiver& receiver, const MessageEnvelope& envelope) const;
  Delivery Call(Receiver& receiver, const MessageEnvelope& envelope, std::string_view payload);

  const NameMap& names_;
  LineLimit& lines_;
  std::map<Receiver*, std::pair<ReceiverPtr, SlotPtr>>
      matches_;  // touched by the loop's thread only

  mutable Mutex mutex_;
  std::vector<ReceiverPtr> receivers_ ZELT_GUARDED_BY(mutex_);  // in order of registration
};

}  // namespace zelt
