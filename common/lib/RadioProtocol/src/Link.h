#pragma once

#include "Line.h"
#include "orka/RadioProtocol.h"
#include "orka/codec/Frame.h"
#include "orka/codec/LinkControl.h"
#include "orka/pel.h"

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace orka {

inline constexpr std::uint32_t kLogCategoryRadio = 0x8030;

// What LinkCounters is read from.
struct AtomicCounters {
  std::atomic<std::uint64_t> frames_sent{0};
  std::atomic<std::uint64_t> bytes_sent{0};
  std::atomic<std::uint64_t> frames_received{0};
  std::atomic<std::uint64_t> bytes_received{0};
  std::atomic<std::uint64_t> dropped_checksum{0};
  std::atomic<std::uint64_t> dropped_malformed{0};
  std::atomic<std::uint64_t> dropped_too_long{0};
  std::atomic<std::uint64_t> dropped_unknown_opcode{0};
  std::atomic<std::uint64_t> sends_refused{0};
};

// What became of a frame that was handed on.
struct FrameVerdict {
  enum class Kind : std::uint8_t { Taken, UnknownOpcode, Malformed };
  Kind kind = Kind::Taken;
  std::string detail;  // for the log, unless taken
};

// Told on the radio thread, without a lock held. Each may close the link.
struct LinkEvents {
  std::function<void(const codec::HelloAnswer& answer)> connected;
  std::function<FrameVerdict(const pel::BaseMessage& header, codec::ByteView payload)> frame;
  std::function<void(bool was_connected)> ended;  // not after Close()
};

struct LinkSettings {
  codec::Hello hello;
  std::uint16_t address = 0;
  std::chrono::seconds handshake_timeout{0};
};

// What decides when a link that is up has to look after itself.
struct LinkPulse {
  using Time = std::chrono::steady_clock::time_point;
  Time last_heard;
  Time last_sent;
  bool line_is_full = false;

  bool IsLost(Time now) const { return now >= last_heard + codec::kLostAfter; }
  // While the line is full, what waits for it is sign of life enough.
  bool NeedsKeepAlive(Time now) const {
    return !line_is_full && now >= last_sent + codec::kKeepAliveAfter;
  }
  // When one of the two may be so next.
  Time NextLook(Time now) const {
    return std::min(last_heard + codec::kLostAfter,
                    (line_is_full ? now : last_sent) + codec::kKeepAliveAfter);
  }
};

// One attempt at a link, from opening the line to its end:
//
//   opening --line is there--> greeting --hello answered--> connected
//   any --refused, time-out, closed, silent--> closed, `ended` is told
//   any --Close()--> closed, nothing is told
//
// Everything but Queue() belongs to the thread that runs `io`. Pending operations keep it alive.
class Link : public std::enable_shared_from_this<Link> {
 public:
  // Bytes that may wait for the line.
  static constexpr std::size_t kMaxQueued = 4 * codec::kMaxEncodedFrame;

  Link(asio::io_context& io, Line line, LinkSettings settings, AtomicCounters& counters,
       LinkEvents events);

  void Open();
  void Close();

  // Any thread. Takes one whole frame for the wire; false when too much is waiting already.
  bool Queue(codec::ByteView frame);

 private:
  using Clock = std::chrono::steady_clock;
  enum class State : std::uint8_t { Opening, Greeting, Connected, Closed };

  void Connect(const asio::ip::tcp::endpoint& endpoint);
  void FinishConnect();
  void Greet();
  void AppendLinkControl(codec::ByteView payload);
  void Read();
  void Received(codec::ByteView bytes);
  bool HandleFrame(const pel::BaseMessage& header, codec::ByteView payload);
  void HandleLinkControl(codec::ByteView payload);
  void Append(codec::ByteView bytes);
  int Flush();  // writes until the line takes no more; 0, or the errno of a broken line
  void FlushOrEnd();
  void ArmTimer(Clock::time_point at);
  void OnTimer();
  void End(std::string_view why);
  std::atomic<std::uint64_t>& CounterOf(codec::Drop drop);
  void CountDrop(std::atomic<std::uint64_t>& counter, std::string_view why);
  void LogDropsLeft();

  // Constant after construction.
  asio::io_context& io_;
  const LinkSettings settings_;
  const LinkEvents events_;
  const std::string name_;
  const std::optional<asio::ip::tcp::endpoint> connect_to_;

  // Radio thread only.
  AtomicCounters& counters_;
  asio::posix::stream_descriptor stream_;
  asio::steady_timer timer_;
  State state_ = State::Opening;
  codec::Deframer deframer_;
  std::array<std::uint8_t, 64UL * 1024> read_buffer_{};
  codec::Bytes writing_;     // being written
  std::size_t written_ = 0;  // of writing_
  bool damaged_ = false;     // a frame was dropped since the last good one
  Clock::time_point greet_until_;
  Clock::time_point greet_again_;
  LinkPulse pulse_;
  Clock::time_point last_drop_;
  std::uint64_t drops_unlogged_ = 0;

  std::mutex queue_mutex_;
  codec::Bytes queued_;                    // guarded by queue_mutex_
  bool flush_posted_ = false;              // guarded by queue_mutex_
  std::atomic<std::size_t> unwritten_{0};  // what of writing_ is left
};

}  // namespace orka
