#pragma once

#include "Line.h"
#include "LinkLogic.h"

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

namespace orka {

// One attempt at a link on a real line and by the real clock: connects, reads and writes, and lets
// LinkLogic decide. Pending operations keep it alive.
//
// Open() and Close() belong to the thread that runs `io`; any thread may call the rest. The line is
// closed when Close() has returned and before LinkEvents::ended is told.
class Link : public std::enable_shared_from_this<Link> {
 public:
  // Throws std::system_error when the system has no more descriptors; the line is closed then.
  Link(asio::io_context& io, Line line, LinkSettings settings, AtomicCounters& counters,
       LinkEvents events);
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;
  ~Link() { Detach(); }

  void Open();
  void Close();

  // Takes one whole frame with so many bytes of payload for the wire; false when too much is
  // waiting already.
  bool Queue(codec::ByteView frame, std::size_t payload);
  std::size_t Room() const { return logic_.Room(); }

  // Stops reading once it is connected, and goes on.
  void Hold();
  void Continue();

 private:
  using Clock = std::chrono::steady_clock;

  void Connect(const asio::ip::tcp::endpoint& endpoint);
  void Greet();
  void Read();
  void OnReadable();
  int Write();    // until the line takes no more; 0, or the errno of why
  void Settle();  // after each step of logic_: writes, and closes the line when it is over
  void ArmTimer();
  void Fail(std::string_view why);
  void Detach();

  asio::io_context& io_;

  // Radio thread only.
  Line line_;  // the two below borrow its descriptor
  asio::ip::tcp::socket connecting_;
  asio::posix::stream_descriptor stream_;
  asio::steady_timer timer_;
  std::array<std::uint8_t, 64UL * 1024> read_buffer_{};
  bool reading_ = false;        // waits for the line to have something
  bool awaiting_room_ = false;  // waits for the line to take something

  // Any thread.
  LinkLogic logic_;  // radio thread only, save for what says otherwise
  std::atomic<bool> held_{false};
  std::atomic<bool> settle_posted_{false};
};

}  // namespace orka
