#pragma once

#include "Counters.h"
#include "Limits.h"
#include "SendQueue.h"
#include "orka/codec/Frame.h"
#include "orka/codec/LinkControl.h"
#include "orka/pel.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace orka {

// What became of a frame that is no link control.
struct FrameVerdict {
  enum class Kind : std::uint8_t { Taken, UnknownOpcode, Malformed };
  Kind kind = Kind::Taken;
  std::string detail;
};

// Told from inside Received() and TellEnd(), without a lock held. Each may close the link.
struct LinkEvents {
  std::function<void(const codec::HelloAnswer& answer)> connected;
  std::function<FrameVerdict(const pel::BaseMessage& header, codec::ByteView payload)> frame;
  std::function<void(bool was_connected)> ended;  // not after Close()
};

struct LinkSettings {
  codec::Hello hello;
  std::uint16_t address = 0;
  std::chrono::seconds handshake_timeout{0};  // from Open()
  std::string line;                           // its name, for log lines
  std::chrono::nanoseconds byte_time{0};      // of one byte on it; 0: nobody knows
};

// The rules of one attempt at a link, without the line: handshake, keep-alive, who is alive, what
// waits to be sent, which frames are good.
//
//   opening --LineIsThere()--> greeting --hello answered--> connected
//   any --time-out, refused, closed, silent, stuck--> closed, which TellEnd() tells
//   any --Close()--> closed, nothing is told
//
// It reads no clock and touches no line: whoever drives it says what time it is and what the line
// brought and took, carries what is Waiting(), and closes the line when IsClosed(). One thread,
// save for Queue() and Room().
class LinkLogic {
 public:
  using Time = std::chrono::steady_clock::time_point;

  LinkLogic(LinkSettings settings, AtomicCounters& counters, LinkEvents events);

  // Begins the attempt.
  void Open(Time now);
  // Greets the radio, now that there is a line.
  void LineIsThere(Time now);
  // Ends the link, since the line failed or could not be had.
  void LineFailed(std::string_view why);

  void Received(codec::ByteView bytes, Time now);

  // Returns what the line is to carry next, valid until the next call; empty: nothing. Took() is
  // told how much of it the line took. After the end there may still be a Goodbye, for a line that
  // takes it at once.
  codec::ByteView Waiting(Time now);
  void Took(std::size_t count, Time now);

  // Does what is due: repeats the hello, keeps the link alive, gives up. To be called at NextLook()
  // at the latest.
  void Look(Time now);
  Time NextLook(Time now) const;

  // Tell that the line is not read, and that it is read again. In between no radio counts as
  // silent.
  void Hold() { held_ = true; }
  void Continue(Time now);

  void Close();
  bool IsClosed() const { return state_ == State::Closed; }
  bool IsConnected() const { return state_ == State::Connected; }

  // Tells `ended` once, when the link ended by itself. To be called when the line is closed.
  void TellEnd();

  // Any thread. Takes one whole frame with so many bytes of payload for the line; false when too
  // much is waiting already. Room() tells how much is not.
  bool Queue(codec::ByteView frame, std::size_t payload);
  std::size_t Room() const { return queue_.Room(); }

 private:
  enum class State : std::uint8_t { Opening, Greeting, Connected, Closed };

  void SendLinkControl(codec::ByteView payload);
  bool HandleFrame(const pel::BaseMessage& header, codec::ByteView payload);
  void HandleLinkControl(codec::ByteView payload);
  void HandleHelloAnswer(codec::ByteView payload);
  void End(std::string_view why);
  bool IsSilent(Time now) const { return !held_ && now >= last_good_ + lost_after_; }
  Time StuckAt() const;  // of what waits for the line
  void CountDrop(std::atomic<std::uint64_t>& counter, std::string_view why);
  void LogDropsLeft();

  // Constant after construction.
  const LinkSettings settings_;
  const LinkEvents events_;
  const std::chrono::nanoseconds lost_after_;   // without a good frame
  const std::chrono::nanoseconds stuck_after_;  // without a byte taken

  AtomicCounters& counters_;
  SendQueue queue_;

  State state_ = State::Opening;
  std::optional<bool> end_;  // to be told: whether it was connected
  codec::Deframer deframer_;
  Time now_;  // of the call that is running
  Time greet_until_;
  Time greet_again_;
  Time last_good_;  // when the last good frame came
  bool held_ = false;

  bool waiting_ = false;  // something waits for the line
  Time last_took_;        // when it last took a byte, or something began to wait
  Time first_since_;      // when its first frame began to be the first
  Time last_sent_;        // when it last took a byte

  Time last_drop_ = Time::min();
  std::uint64_t drops_unlogged_ = 0;
};

}  // namespace orka
