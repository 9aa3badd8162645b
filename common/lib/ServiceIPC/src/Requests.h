#pragma once

#include "BusNames.h"
#include "Courier.h"
#include "EventLoop.h"
#include "SdBus.h"
#include "zelt/Mutex.h"
#include "zelt/ThreadAnnotations.h"

#include <chrono>
#include <cstdint>
#include <expected>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace zelt {

// What was asked, and by whom an answer is awaited: requests to services, and questions for states.
//
// Any thread asks. Each question ends exactly once, `done` being called on the loop's thread or, if
// it is refused at once, on the asking one: when it is answered, when the receiver does not
// acknowledge it or leaves, when its time is over, and when the connection ends. All parameters of
// the constructor must outlive this object, and the loop has stopped when it is destroyed.
class Requests {
 public:
  using Time = TimerQueue::Time;
  using Milliseconds = std::chrono::milliseconds;

  struct Answer {
    ServiceIPC::Reply reply;
    std::uint32_t state = 0;  // of AskState
  };
  using Done = UniqueFunction<void(Answer)>;

  Requests(EventLoop& loop, NameMap& names, Courier& courier)
      : loop_(loop), names_(names), courier_(courier) {}
  Requests(const Requests&) = delete;
  Requests& operator=(const Requests&) = delete;

  // Gives the connection that is used from now on. Once, before the loop runs.
  void Attach(sd_bus* bus) { bus_ = bus; }

  // Sends `letter`, which has kind, receiver, type and payload, to the owner of `bus_name`. The
  // receiver has `delivery` to acknowledge it, and from now on `answer` to answer; without that,
  // the acknowledgement is the end. A failure to deliver a message leaves a line in the log.
  void Ask(const std::string& bus_name, Letter letter, std::chrono::microseconds delivery,
           Milliseconds answer, Done done);

  // --- the loop's thread

  // Takes an answer from `connection`; the error says why it is not awaited.
  std::expected<void, std::string> Accept(std::string_view connection, std::uint64_t request,
                                          std::string_view type, std::string_view payload);

  // Ends what was asked of `before` under this name, which it does not own any more.
  void OnOwnerChanged(std::string_view bus_name, std::string_view before);

  // Ends everything.
  void Close(const std::string& error);

 private:
  struct Request {
    std::string bus_name;
    std::string peer;  // the one connection that may answer
    std::string type;
    std::string receiver;
    bool delivered = false;
    Milliseconds answer{};
    Time answer_deadline{};
    SlotPtr end_of_peer;  // a match, for one that was asked by its unique name
    AsyncCallbackHandle timer;
    Done done;
  };

  void WatchEnd(std::uint64_t id);
  void OnAcknowledged(std::uint64_t id, const CallResult& result);
  void OnTime(std::uint64_t id);
  void Finish(std::uint64_t id, Answer answer);
  static int OnPeerGone(sd_bus_message* message, void* self, sd_bus_error* error) noexcept;

  EventLoop& loop_;
  NameMap& names_;
  Courier& courier_;
  sd_bus* bus_ = nullptr;  // touched by the loop's thread only, once it runs

  Mutex mutex_;
  // Elements are destroyed without it, since their timers may be running
  std::map<std::uint64_t, Request> requests_ ZELT_GUARDED_BY(mutex_);
  std::uint64_t last_id_ ZELT_GUARDED_BY(mutex_) = 0;
  std::optional<std::string> closed_ ZELT_GUARDED_BY(mutex_);  // why
};

}  // namespace zelt
