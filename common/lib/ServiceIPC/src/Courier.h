#pragma once

#include "BusNames.h"
#include "EventLoop.h"
#include "Letter.h"
#include "LineLimit.h"
#include "Outbox.h"
#include "SdBus.h"
#include "zelt/BusConnection.h"
#include "zelt/Mutex.h"
#include "zelt/ThreadAnnotations.h"

#include <future>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace zelt {

// Brings what the process sends from the outbox to the bus, and the acknowledgements back.
//
// Any thread sends; that costs it a lock, one copy and, when the loop was idle, one system call.
// Only the loop's thread touches the bus. What fails later is logged, a few lines a second for each
// receiver, and counted. Loop, names and limit must outlive this object.
class Courier {
 public:
  // Called on the loop's thread.
  struct Hooks {
    UniqueFunction<void(std::uint32_t state)> tell_state;  // a change of the own state is due
    UniqueFunction<void(const std::string& connection)> revived;  // answers after it was given up
  };

  Courier(EventLoop& loop, NameMap& names, LineLimit& lines, Hooks hooks);
  Courier(const Courier&) = delete;
  Courier& operator=(const Courier&) = delete;

  // Gives the connection that is used from now on. Once, before the loop runs.
  void Attach(sd_bus* bus);

  // --- any thread

  // Accepts a letter for the owner of a name on the bus, or for a unique name; true when it was.
  // When it is refused, its `done` is told at once, on the calling thread.
  bool Send(std::string_view bus_name, Letter letter);
  // Accepts a broadcast; true when it was. The reason of a refusal is logged.
  bool Send(Broadcast broadcast);

  // Writes the line that a failure leaves, unless there were too many about this receiver.
  void LogFailure(std::string_view verb, std::string_view type, std::string_view receiver,
                  const CallResult& result);

  // Waits until what was accepted is written and acknowledged, for kDrainTime at most. Returns at
  // once on the loop's thread.
  void Drain();

  BusConnection::Counters GetCounters() const;

  // --- the loop's thread

  // Hands over what may go. Called whenever the loop was woken.
  void Pump();

  // Takes back a letter whose time is over, if it still can; else its end is of no interest any
  // more. It counts as timed out, and its `done` is not told.
  void Withdraw(std::string_view connection, std::uint64_t id);

  // Keeps the names current, and drops what waits for an owner that is one no more.
  void ChangeOwner(std::string_view bus_name, const std::string& before, std::string_view now);

  // Ends everything: from now on nothing is accepted. `error` is told to whoever waits. A second
  // call does nothing. The bus is not touched any more after it.
  void Close(const std::string& error);

 private:
  using Time = TimerQueue::Time;
  // A letter that was handed over, without its payload.
  struct Call {
    Courier* self = nullptr;
    std::list<Call>::iterator position;
    std::string connection;
    Letter letter;
    std::size_t size = 0;   // of its payload
    bool is_ended = false;  // it was given up or withdrawn; only the bus still counts it
    SlotPtr slot;
  };

  bool IsOpen() const { return bus_ != nullptr && sd_bus_is_open(bus_) > 0; }
  void Wake();
  bool MayWrite();
  void HandOver(Outbox::HandedOver item);
  void HandOver(const Broadcast& broadcast);
  static int OnReply(sd_bus_message* reply, void* call, sd_bus_error* error) noexcept;
  static int OnPost(sd_event_source* source, void* self) noexcept;
  void Finish(std::list<Call>::iterator call, const CallResult& result, bool by_receiver);
  // Counts how a letter ended, and tells whoever waits for it; else, with `log`, writes the line.
  void End(Letter& letter, const CallResult& result, bool log);
  void Count(Letter::Kind kind, ServiceIPC::Outcome outcome);
  static bool IsAwaited(const Call& call);
  void Tell(Letter& letter, const CallResult& result, bool log);
  void GiveUp();
  void ArmGiveUp();

  // constant once the loop runs
  EventLoop& loop_;
  NameMap& names_;
  LineLimit& lines_;
  Hooks hooks_;

  // touched by the loop's thread only, once it runs
  sd_bus* bus_ = nullptr;
  EventSourcePtr post_source_;  // enabled while the bus does not read fast enough
  std::list<Call> calls_;
  bool is_pumping_ = false;
  bool is_give_up_armed_ = false;
  AsyncCallbackHandle give_up_timer_;
  std::vector<std::shared_ptr<std::promise<void>>> drained_;

  mutable Mutex mutex_;
  Outbox outbox_ ZELT_GUARDED_BY(mutex_);
  bool is_awake_ ZELT_GUARDED_BY(mutex_) = false;  // the loop is going to pump
  BusConnection::Counters counters_ ZELT_GUARDED_BY(mutex_);
};

}  // namespace zelt
