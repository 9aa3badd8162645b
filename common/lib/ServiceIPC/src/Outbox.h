#pragma once

#include "Letter.h"
#include "TimerQueue.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <expected>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace zelt {

// What this process has accepted for others and they have not acknowledged: a mailbox for each
// receiving connection, and one for broadcasts. It decides who gets how much, and who is given up.
//
// It knows no bus, no clock and no threads: its owner locks, hands over what Next() gives, and
// tells what became of it. The bounds stand in BusLimits.h.
//
//   Put -> waiting -> Next -> unanswered -> Answered
//            |                    |
//            +-- Drop, GiveUp     +-- GiveUp: still unanswered, but nobody waits for it any more
class Outbox {
 public:
  using Time = TimerQueue::Time;

  struct HandedOver {
    std::string connection;
    Letter letter;
  };
  using Item = std::variant<HandedOver, Broadcast>;
  struct GivenUp {
    std::string connection;
    std::vector<Letter> dropped;
    std::size_t unanswered = 0;
  };

  // Takes `letter` into the mailbox of `connection`; the value says whether it may be handed over
  // at once. When it is refused, it is untouched, and the error says why: there is no connection
  // (it is empty), the mailbox is full (an empty one takes any letter), the receiver was given up,
  // too many receivers without a name have mail, or the outbox is closed.
  std::expected<bool, CallResult> Put(const std::string& connection, bool has_name, Letter& letter);

  // Takes a broadcast in the same way. A change of state is refused by a closed outbox only.
  std::expected<bool, CallResult> Put(Broadcast& broadcast);

  // Takes out the oldest item that may go now; nothing when there is none. A letter passes no
  // earlier one to the same connection and no earlier broadcast; a broadcast passes letters that
  // have to wait. From then on, a letter is unanswered.
  std::optional<Item> Next(Time now);

  // Ends an unanswered letter with a payload of `size` bytes. `by_receiver`: it was the receiver
  // that answered, not the bus in its place. True if the receiver had been given up and no longer
  // is.
  bool Answered(std::string_view connection, std::size_t size, bool by_receiver, Time now);

  // Gives up those who have had something unanswered, and acknowledged nothing, for kGiveUpTime.
  std::vector<GivenUp> GiveUp(Time now);

  // Returns when the next one is due to be given up, if none acknowledges anything before.
  std::optional<Time> NextGiveUp() const;

  // Empties the mailbox of a connection that does not own its name any more. What is unanswered
  // stays so.
  std::vector<Letter> Drop(std::string_view connection);

  // Takes out a letter that waits; nothing when it was handed over or dropped.
  std::optional<Letter> Withdraw(std::string_view connection, std::uint64_t id);

  // Refuses everything from now on and returns what waited, broadcasts left out. Nothing is
  // unanswered any more.
  std::vector<Letter> Close();

  // Tells whether nothing waits.
  bool IsEmpty() const;

 private:
  template <class T>
  struct Waiting {
    std::uint64_t number;  // in the order of Put
    T item;
  };
  struct Receiver {
    bool has_name = false;
    bool given_up = false;
    std::deque<Waiting<Letter>> waiting;
    std::size_t unanswered = 0;
    std::size_t bytes = 0;  // of both
    Time progress{};        // when it last acknowledged something or began to owe it
  };
  using Receivers = std::map<std::string, Receiver, std::less<>>;

  bool MayGo(const Receiver& receiver) const;
  std::optional<CallResult> Refusal(const Receiver* receiver, bool has_name,
                                    std::size_t size) const;
  std::vector<Letter> TakeWaiting(Receiver& receiver);
  void ForgetIdle(Receivers::iterator receiver);

  Receivers receivers_;  // by connection; those with a name stay for a while
  std::deque<Waiting<Broadcast>> broadcasts_;
  std::size_t broadcast_bytes_ = 0;
  std::size_t bytes_ = 0;  // of all letters
  std::size_t calls_ = 0;  // unanswered, of all receivers
  std::uint64_t last_number_ = 0;
  bool closed_ = false;
};

}  // namespace zelt
