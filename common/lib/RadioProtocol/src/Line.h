#pragma once

#include "orka/RadioProtocol.h"
#include "orka/codec/Bytes.h"
#include "zelt/FileDescriptor.h"

#include <asio/ip/tcp.hpp>

#include <sys/types.h>
#include <chrono>
#include <cstdint>
#include <expected>
#include <optional>
#include <span>
#include <string>

namespace orka {

// What a link runs over: a descriptor that never blocks and is closed on exec. Owns it and closes
// it; one thread at a time.
class Line {
 public:
  // Tell what and why when the settings make no sense, or the system refuses. A TCP line is still
  // to be connected. A serial line is opened (under ZELT_ROOT, as every path), alone if asked for,
  // set up, and what lies in its buffers is thrown away; a pseudo-terminal will do.
  static std::expected<Line, std::string> MakeTcp(const SocketSettings& settings);
  static std::expected<Line, std::string> OpenSerial(const UartSettings& settings);

  Line(Line&&) = default;
  Line& operator=(Line&&) = delete;
  ~Line() { Close(); }

  int Fd() const { return fd_.Get(); }
  const std::string& Name() const { return name_; }  // for log lines

  // Returns the time that one byte takes; 0 on TCP, where nobody knows.
  std::chrono::nanoseconds ByteTime() const { return byte_time_; }

  // Where a TCP line is to be connected to.
  const std::optional<asio::ip::tcp::endpoint>& ConnectTo() const { return connect_to_; }

  // As read(2) and write(2), without a signal when the other end is gone.
  ssize_t Read(std::span<std::uint8_t> buffer) const;
  ssize_t Write(codec::ByteView bytes) const;

  // Gives what was written to a serial line a moment to go out, at most 0.1 s, and throws the rest
  // away: the driver would wait for a line that is stuck for half a minute. A second call does
  // nothing.
  void Close();

 private:
  Line() = default;

  zelt::FileDescriptor fd_;
  std::string name_;
  std::optional<asio::ip::tcp::endpoint> connect_to_;
  std::chrono::nanoseconds byte_time_{0};
  bool set_up_ = false;     // as a serial line
  bool exclusive_ = false;  // nobody else can open it until this is given up
};

}  // namespace orka
