#pragma once

#include "CameraLink.h"
#include "FaultPlan.h"
#include "Later.h"
#include "Options.h"
#include "Radio.h"

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/steady_timer.hpp>

#include <cstdint>
#include <deque>
#include <expected>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <string_view>

namespace radiosim {

// A radio on a line, and the commands of whoever plays with it. It serves one camera at a time; a
// new connection takes the place of the old one. All of it runs on the thread that runs `io`. It
// sets SIGPIPE to be ignored.
class Simulator {
 public:
  using Print = std::function<void(const std::string& line)>;
  using Reply = std::expected<std::string, std::string>;  // the answer, or what was wrong

  Simulator(asio::io_context& io, Options options, FaultPlan plan, Print print);
  Simulator(const Simulator&) = delete;
  Simulator& operator=(const Simulator&) = delete;
  ~Simulator() { Stop(); }

  // Opens the line, or tells why it cannot.
  std::expected<void, std::string> Start();

  // Closes everything; io.run() returns when there is nothing else.
  void Stop();

  // Carries out one command, as in the help that "help" gives.
  Reply Command(std::string_view line);

  std::uint16_t Port() const { return port_; }
  std::string FaultReport() const;

  // Called by "quit", after the reply.
  std::function<void()> on_quit;

 private:
  struct CommandRow;
  static std::span<const CommandRow> Commands();

  void Accept();
  void Tick();
  void OnMessage(const Received& received);

  static Reply Help(std::string_view rest);
  Reply Notify(std::string_view rest);
  Reply TellReceived(std::string_view rest);
  Reply TellState() const;
  Reply AddFault(std::string_view rest);
  Reply SetSilent(std::string_view rest);

  const Options options_;
  FaultPlan plan_;
  const Print print_;
  Later later_;
  asio::ip::tcp::acceptor acceptor_;
  std::uint16_t port_ = 0;
  asio::steady_timer tick_;
  Radio radio_;
  CameraLink link_;

  std::map<std::uint16_t, std::uint16_t> last_transactions_;  // by opcode of the camera's request
  std::uint16_t last_request_ = 0;                            // the number of the radio's own
  std::uint64_t received_count_ = 0;
  std::deque<std::string> received_;  // as JSON
};

}  // namespace radiosim
