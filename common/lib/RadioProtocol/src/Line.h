#pragma once

#include "UniqueFd.h"
#include "orka/RadioProtocol.h"

#include <asio/ip/tcp.hpp>

#include <optional>
#include <string>

namespace orka {

// What a link runs over: a descriptor that never blocks and is closed on exec.
struct Line {
  UniqueFd fd;
  std::optional<asio::ip::tcp::endpoint> connect_to;  // TCP, which is still to be connected
  std::string name;                                   // for log lines
};

// Nothing when the settings make no sense, or the system refuses; `error` then says what and why.
std::optional<Line> MakeTcpLine(const SocketSettings& settings, std::string& error);

// Opens the device (under ZELT_ROOT, as every path), alone if asked for, sets it up and throws away what lies in its buffers. A
// pseudo-terminal will do.
std::optional<Line> OpenSerialLine(const UartSettings& settings, std::string& error);

// To be called before such a line is closed. Gives what was written a moment to go out, and throws
// the rest away: the driver would wait for a line that is stuck for half a minute.
void ReleaseSerialLine(int fd);

}  // namespace orka
