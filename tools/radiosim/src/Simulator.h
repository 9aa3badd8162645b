#pragma once

#include "FaultPlan.h"
#include "Radio.h"
#include "Session.h"

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/steady_timer.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace radiosim {

struct Options {
  std::string listen;     // "ADDRESS:PORT", port 0 for any; or
  std::string pty_link;   // the symbolic link to be kept to a pseudo-terminal
  std::string port_file;  // gets the port, when it listens
  std::string name = "radiosim";
  bool in_service = true;
  std::uint16_t max_transfer_size = 0;  // 0: 32768 on TCP, 4096 on a pseudo-terminal
  orka::qrx::DeviceDescriptors descriptors = {{0x00, 1}, {0x17, 90}, {0x18, 1}, {0x24, 3}};
  std::chrono::milliseconds restart_time{1000};  // how long it is away when it restarts
  bool verbose = false;                          // also keep-alives and single chunks
  Radio::Settings radio;
};

// A radio on a line: the handshake, the keep-alive, the faults, and the commands of whoever plays
// with it. It serves one camera at a time; a new connection takes the place of the old one. All of
// it runs on the thread that runs `io`. It sets SIGPIPE to be ignored.
class Simulator {
 public:
  using Print = std::function<void(const std::string& line)>;

  struct Reply {
    bool ok = true;
    std::string text;  // the answer, or what was wrong
  };

  Simulator(asio::io_context& io, Options options, FaultPlan plan, Print print);
  Simulator(const Simulator&) = delete;
  Simulator& operator=(const Simulator&) = delete;
  ~Simulator();

  // Opens the line. False with `error`.
  bool Start(std::string& error);

  // Closes everything; io.run() returns when there is nothing else.
  void Stop();

  // One command, as in the help that "help" gives.
  Reply Command(std::string_view line);

  std::uint16_t Port() const { return port_; }
  std::string FaultReport() const;

  // Called by "quit", after the reply.
  std::function<void()> on_quit;

 private:
  struct CommandRow;
  static const std::vector<CommandRow> kCommands;

  bool Listen(std::string& error);
  bool OpenPty(std::string& error);
  void Accept();
  void BeginSession(int fd);
  void EndSession();
  void EndLink(const std::string& why);
  void DropSession();
  void Restart(std::chrono::milliseconds after);
  void Tick();

  void OnFrame(const orka::pel::BaseMessage& header, orka::codec::ByteView payload);
  void OnLinkControl(const orka::pel::BaseMessage& header, orka::codec::ByteView payload);
  void OnMessage(const Received& received);
  void Record(const Received& received);

  // What was wrong, or nothing.
  std::string SendMessage(const orka::codec::MessageRow& row, orka::RadioNotificationData data,
                          std::uint16_t transaction, std::uint16_t part);
  void SendLinkControl(std::string_view name, orka::codec::ByteView payload);
  void SendFrame(orka::codec::Bytes bytes, const std::vector<const FaultRule*>& faults);
  void Deliver(orka::codec::ByteView bytes);
  void After(std::chrono::milliseconds delay, std::function<void()> action);

  Reply Help(std::string_view rest);
  Reply Notify(std::string_view rest);
  Reply TellReceived(std::string_view rest);
  Reply TellState(std::string_view rest);
  Reply AddFault(std::string_view rest);
  Reply TellFaults(std::string_view rest);
  Reply SetSilent(std::string_view rest);
  Reply CloseLink(std::string_view rest);
  Reply Reboot(std::string_view rest);
  Reply Quit(std::string_view rest);

  asio::io_context& io_;
  const Options options_;
  FaultPlan plan_;
  const Print print_;
  Radio radio_;

  // What still waits in `io` when the simulator is gone finds it gone.
  std::shared_ptr<void> alive_ = std::make_shared<int>(0);

  asio::ip::tcp::acceptor acceptor_;
  std::uint16_t port_ = 0;
  int pty_slave_ = -1;  // kept open, so that a camera may come and go
  asio::steady_timer tick_;
  bool stopped_ = false;
  bool away_ = false;  // restarting
  bool silent_ = false;

  std::shared_ptr<Session> session_;
  bool greeted_ = false;              // the camera has said hello
  bool in_use_ = false;               // and has sent more than that
  std::uint64_t session_number_ = 0;  // what waits for a session finds whether it is still that
  Session::Clock::time_point last_keep_alive_;
  std::uint64_t ended_sessions_bytes_ = 0;
  bool session_silent_ = false;  // a fault; until the next hello
  std::uint16_t address_ = 0;    // the camera's, repeated in every frame
  orka::codec::Bytes held_;      // a frame that waits for the next one
  std::uint64_t held_number_ = 0;
  std::map<std::uint16_t, std::uint16_t> last_transactions_;  // by opcode of the camera's request
  std::uint16_t last_request_ = 0;                            // the number of the radio's own

  std::uint64_t received_count_ = 0;
  std::deque<std::string> received_;  // as JSON
};

}  // namespace radiosim
