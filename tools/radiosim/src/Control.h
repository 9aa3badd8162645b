#pragma once

#include "Simulator.h"

#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <asio/steady_timer.hpp>

#include <chrono>
#include <expected>
#include <memory>
#include <string>

namespace radiosim {

// The control channel: a UNIX socket, one command a line. The reply is any number of lines, then
// "ok" or "error: " and what was wrong. Runs on the thread that runs `io`.
class Control {
 public:
  Control(asio::io_context& io, Simulator& simulator)
      : acceptor_(io), accept_again_(io), simulator_(simulator) {}
  Control(const Control&) = delete;
  Control& operator=(const Control&) = delete;
  ~Control() { Stop(); }

  // Serves `path`, which only this user may use, or tells why it cannot. A socket that nobody
  // serves any more is replaced.
  std::expected<void, std::string> Start(const std::string& path);
  void Stop();

 private:
  struct Client;

  void Accept();
  void Read(const std::shared_ptr<Client>& client);

  asio::local::stream_protocol::acceptor acceptor_;
  asio::steady_timer accept_again_;
  Simulator& simulator_;
  std::shared_ptr<void> alive_ = std::make_shared<int>(0);  // as in the simulator
  std::string path_;
};

// Sends one command and prints the reply. The exit status: 0 ok, 1 refused, 2 nobody there, or no
// reply in time.
int RunControlClient(const std::string& path, const std::string& command,
                     std::chrono::milliseconds timeout = std::chrono::seconds(10));

}  // namespace radiosim
