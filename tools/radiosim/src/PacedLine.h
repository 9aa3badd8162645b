#pragma once

#include "orka/codec/Frame.h"
#include "orka/codec/LinkControl.h"

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace radiosim {

// One line to a camera: frames in, bytes out, no faster than the line may be. One thread.
class PacedLine : public std::enable_shared_from_this<PacedLine> {
 public:
  using Clock = std::chrono::steady_clock;

  struct Events {
    std::function<void(const orka::pel::BaseMessage& header, orka::codec::ByteView payload)> frame;
    std::function<void(orka::codec::Drop drop, std::size_t bytes)> drop;
    std::function<void(const std::string& why)> closed;  // not after Close()
  };

  // Owns `fd`. `bits_per_second`: with one start and one stop bit a byte; 0: as fast as it goes.
  PacedLine(asio::io_context& io, int fd, std::uint32_t bits_per_second, Events events);

  void Start();
  void Close();
  void Send(orka::codec::ByteView bytes);

  std::uint64_t ByteCount() const { return bytes_; }  // both ways

  // Tells whether no good frame has come for so long that, by the rule of both sides, the camera is
  // lost.
  bool IsSilent(Clock::time_point now) const {
    return now >= last_good_ + orka::codec::LostAfter(byte_time_);
  }
  Clock::time_point LastSent() const { return last_sent_; }

 private:
  void Read();
  void Write();
  void Pace();
  void Fail(const std::string& why);

  Events events_;
  asio::posix::stream_descriptor stream_;
  asio::steady_timer pace_;
  const std::chrono::nanoseconds byte_time_;  // 0: no limit
  const double bytes_per_step_;               // 0: no limit
  double may_read_ = 0;
  double may_write_ = 0;
  bool reading_ = false;
  bool awaiting_room_ = false;
  bool closed_ = false;
  std::array<std::uint8_t, 64UL * 1024> buffer_{};
  orka::codec::Bytes out_;
  std::uint64_t bytes_ = 0;
  orka::codec::Deframer deframer_;
  Clock::time_point last_good_ = Clock::now();
  Clock::time_point last_sent_ = Clock::now();
};

}  // namespace radiosim
