#pragma once

#include "FaultPlan.h"
#include "Later.h"
#include "Options.h"
#include "PacedLine.h"
#include "Radio.h"
#include "zelt/FileDescriptor.h"

#include <asio/io_context.hpp>

#include <chrono>
#include <cstdint>
#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace radiosim {

// Returns the opcode as it is printed, "0x0401".
std::string Hex(std::uint16_t opcode);

// The link to a camera, as the radio sees it: handshake, keep-alive, messages, and the faults that
// befall them. It serves one camera at a time. All of it runs on the thread that runs `io`.
//
//   no camera --hello--> greeted --goodbye, silence, end of the line, restart--> no camera
class CameraLink {
 public:
  struct Events {
    std::function<void(const Received& received)> message;  // what the faults have let through
    std::function<void()> session_ended;
    std::function<void(const std::string& line)> print;
  };

  // `options`, `plan` and `later` outlive it.
  CameraLink(asio::io_context& io, const Options& options, FaultPlan& plan, const Later& later,
             Events events);

  // Takes the line to a camera, which may be the other end of `slave`: then the line stays when a
  // camera goes. A line that is there is ended first.
  void TakeLine(zelt::FileDescriptor line, zelt::FileDescriptor slave = {});

  // Ends the session, and the line unless it stays.
  void End(const std::string& why);

  // Says goodbye, if there is a camera, and ends the line.
  void SwitchOff();

  // Is away for a moment, after so long: it hears nothing, and takes no line.
  void Restart(std::chrono::milliseconds after);
  bool IsAway() const { return away_; }

  // Says goodbye and ends the session. False if there is no camera.
  bool Close();

  // Keeps the link alive, and ends one that is silent. To be called many times a second.
  void Tick(PacedLine::Clock::time_point now);

  // Tells what was wrong. `transaction` 0 for what answers nothing.
  std::expected<void, std::string> Send(const orka::codec::MessageRow& row,
                                        orka::RadioNotificationData data, std::uint16_t transaction,
                                        std::uint16_t part);

  bool HasCamera() const { return greeted_; }  // it has said hello

  void SetSilent(bool silent) { silent_ = silent; }
  bool IsSilent() const { return silent_ || session_silent_; }

  std::uint64_t ByteCount() const {
    return ended_lines_bytes_ + (line_ ? line_->ByteCount() : 0);
  }  // both ways

 private:
  using Faults = std::vector<const FaultRule*>;
  // How often a frame goes on, and how late; and whether nothing may follow it.
  struct Passage {
    int times = 1;
    std::chrono::milliseconds delay{0};
    bool then_silent = false;
  };

  void EndSession();
  void DropLine();

  void OnFrame(const orka::pel::BaseMessage& header, orka::codec::ByteView payload);
  void OnLinkControl(const orka::pel::BaseMessage& header, orka::codec::ByteView payload);
  void OnHello(const orka::pel::BaseMessage& header, orka::codec::ByteView payload);

  void SendLinkControl(orka::codec::LinkControl code, orka::codec::ByteView payload);
  void SendGoodbye();
  void SendFrame(orka::pel::FrameKind kind, std::uint16_t transaction, std::uint16_t part,
                 orka::codec::ByteView payload, const Faults& faults);
  void Deliver(orka::codec::ByteView bytes);

  // Do what the faults demand: to a message; and to a frame, which is empty if it is the camera's.
  // Nothing is returned for a frame that goes no further. See CameraLinkFaults.cpp.
  static void Falsify(const Faults& faults, orka::RadioNotificationData& data,
                      std::uint16_t& transaction);
  std::optional<Passage> Pass(const Faults& faults, const std::string& if_dropped,
                              orka::codec::Bytes& frame);
  void FallSilent(const std::string& where = {});

  asio::io_context& io_;
  const Options& options_;
  FaultPlan& plan_;
  const Later& later_;
  const Events events_;

  std::shared_ptr<PacedLine> line_;
  zelt::FileDescriptor slave_;  // valid: the line is a pseudo-terminal
  std::uint64_t ended_lines_bytes_ = 0;
  bool away_ = false;    // restarting
  bool silent_ = false;  // by hand

  bool greeted_ = false;              // the camera has said hello
  bool in_use_ = false;               // and has sent more than that
  std::uint64_t session_number_ = 0;  // what waits for a session finds whether it is still that
  bool session_silent_ = false;       // a fault; until the next hello
  std::uint16_t address_ = 0;         // the camera's, repeated in every frame
  PacedLine::Clock::time_point last_keep_alive_;
  orka::codec::Bytes held_;  // a frame that waits for the next one
  std::uint64_t held_number_ = 0;
};

}  // namespace radiosim
