#include "CameraLink.h"

#include "ProtoJson.h"
#include "orka/codec/Codec.h"
#include "orka/codec/LinkControl.h"

#include <sys/ioctl.h>

#include <algorithm>
#include <array>
#include <iomanip>
#include <sstream>
#include <utility>

namespace radiosim {
namespace {

using orka::codec::Bytes;
using orka::codec::ByteView;
using orka::codec::LinkControl;
using orka::pel::FrameKind;

std::string LinkControlName(LinkControl code) {
  static constexpr std::array kNames = {"", "Hello", "HelloAnswer", "KeepAlive", "Goodbye"};
  const auto number = static_cast<std::size_t>(code);
  return number < kNames.size() ? kNames[number] : "";
}

// The number of the chunk that a message is about.
template <class Transfer>
std::optional<std::uint16_t> ChunkOf(const auto& message) {
  const auto* transfer = std::get_if<Transfer>(&message);
  return transfer != nullptr ? std::optional(transfer->chunk_number) : std::nullopt;
}

}  // namespace

std::string Hex(std::uint16_t opcode) {
  std::ostringstream text;
  text << "0x" << std::hex << std::uppercase << std::setw(4) << std::setfill('0') << opcode;
  return text.str();
}

CameraLink::CameraLink(asio::io_context& io, const Options& options, FaultPlan& plan,
                       const Later& later, Events events)
    : io_(io), options_(options), plan_(plan), later_(later), events_(std::move(events)) {}

// ------------------------------------------------------------------------------------------------
// The line and its sessions.

void CameraLink::TakeLine(zelt::FileDescriptor line, zelt::FileDescriptor slave) {
  if (line_) {
    End("another camera connects");
  }
  if (!slave) {
    events_.print("a camera connects");
  }
  slave_ = std::move(slave);
  line_ = std::make_shared<PacedLine>(
      io_, line.Release(), plan_.BitsPerSecond(),
      PacedLine::Events{[this](const auto& header, ByteView payload) { OnFrame(header, payload); },
                        [this](orka::codec::Drop drop, std::size_t bytes) {
                          events_.print("dropped a frame of " + std::to_string(bytes) +
                                        " bytes: " + std::string(ToString(drop)));
                        },
                        [this](const std::string& why) { End(why); }});
  line_->Start();
}

void CameraLink::EndSession() {
  ++session_number_;
  greeted_ = false;
  in_use_ = false;
  held_.clear();
  events_.session_ended();
}

void CameraLink::End(const std::string& why) {
  if (greeted_ || !slave_) {
    events_.print("link ends: " + why);
  }
  EndSession();
  if (slave_) {
    ::ioctl(slave_.Get(), TIOCNXCL);  // a camera that was killed cannot do it
  } else {
    DropLine();
  }
}

void CameraLink::DropLine() {
  if (line_) {
    ended_lines_bytes_ += line_->ByteCount();
    std::exchange(line_, nullptr)->Close();
  }
}

bool CameraLink::Close() {
  if (!line_ || (!greeted_ && slave_)) {
    return false;
  }
  if (greeted_) {
    SendGoodbye();
  }
  End("closed by hand");
  return true;
}

void CameraLink::SwitchOff() {
  if (greeted_) {
    SendGoodbye();
    End("the radio is switched off");
  }
  DropLine();
}

void CameraLink::Restart(std::chrono::milliseconds after) {
  later_(after, [this] {
    events_.print("restarts, away for " + std::to_string(options_.restart_time.count()) + " ms");
    away_ = true;
    End("the radio restarts");
    later_(options_.restart_time, [this] {
      away_ = false;
      events_.print("is back");
    });
  });
}

void CameraLink::Tick(PacedLine::Clock::time_point now) {
  if (greeted_ && line_->IsSilent(now)) {
    End("the camera is silent");
  }
  if (greeted_ &&
      now >= std::max(line_->LastSent(), last_keep_alive_) + orka::codec::kKeepAliveAfter) {
    last_keep_alive_ = now;  // also of one that a fault keeps from the line
    SendLinkControl(LinkControl::KeepAlive, Encode(LinkControl::KeepAlive));
  }
}

// ------------------------------------------------------------------------------------------------
// From the camera.

void CameraLink::OnFrame(const orka::pel::BaseMessage& header, ByteView payload) {
  if (away_) {
    return;
  }
  const auto kind = static_cast<FrameKind>(header.kind);
  if (kind == FrameKind::LinkControl) {
    OnLinkControl(header, payload);
    return;
  }
  if (!greeted_) {
    SendGoodbye();
    return;
  }
  in_use_ = true;
  auto decoded = orka::codec::DecodeToRadio(kind, payload);
  const std::string name = decoded.row != nullptr
                               ? std::string(decoded.row->name)
                               : Hex(orka::codec::ByteReader(payload).Take<std::uint16_t>());
  if (!decoded.message) {
    events_.print("not understood: " + name + ": " + decoded.error);
    return;
  }
  if (!decoded.note.empty()) {
    events_.print("not exactly: " + name + ": " + decoded.note);
  }
  const auto chunk = ChunkOf<orka::qrx::TransferDataRequest>(*decoded.message);
  Bytes none;
  const auto passage =
      Pass(plan_.Fire(true, name, false, false, chunk), "fault: drops " + name, none);
  if (!passage) {
    return;
  }
  const Received received{decoded.row, header, std::move(*decoded.message),
                          std::move(decoded.chunk)};
  for (int i = 0; i < passage->times; ++i) {
    later_(passage->delay, [this, received, session = session_number_] {
      if (session == session_number_) {
        events_.message(received);
      }
    });
  }
}

void CameraLink::OnLinkControl(const orka::pel::BaseMessage& header, ByteView payload) {
  const auto code = orka::codec::LinkControlCode(payload);
  if (!code) {
    return;
  }
  const std::string name = LinkControlName(*code);
  Bytes none;
  if (!Pass(plan_.Fire(true, name, false, true, {}), "fault: ignores " + name, none)) {
    return;
  }
  if (*code == LinkControl::Hello) {
    OnHello(header, payload);
  } else if (*code == LinkControl::Goodbye && greeted_) {
    End("the camera says goodbye");
  } else if (*code == LinkControl::KeepAlive && !greeted_) {
    SendGoodbye();
  } else if (*code == LinkControl::KeepAlive) {
    in_use_ = true;
  }
}

void CameraLink::OnHello(const orka::pel::BaseMessage& header, ByteView payload) {
  const auto hello = orka::codec::DecodeHello(payload);
  if (!hello) {
    events_.print("a hello that is cut short");
    return;
  }
  if (in_use_) {
    events_.print("the camera begins anew");
    EndSession();
  }  // else it repeats its hello, and may still get the answer to the one before
  session_silent_ = false;
  address_ = header.address;
  greeted_ = true;
  events_.print("hello of \"" + hello->product_id + "\" version \"" + hello->version +
                "\", protocol " + std::to_string(hello->protocol_version) + ", camera " +
                (hello->identify_as_camera ? "1" : "0") + ", tethered " +
                (hello->use_tethered_connection ? "1" : "0"));
  orka::codec::HelloAnswer answer;
  answer.in_service = options_.in_service;
  answer.max_transfer_size = slave_ ? 4096 : 32768;
  if (options_.max_transfer_size != 0) {
    answer.max_transfer_size = options_.max_transfer_size;
  }
  answer.name = options_.name;
  answer.descriptors = options_.descriptors;
  SendLinkControl(LinkControl::HelloAnswer, Encode(answer));
}

// ------------------------------------------------------------------------------------------------
// To the camera.

std::expected<void, std::string> CameraLink::Send(const orka::codec::MessageRow& row,
                                                  orka::RadioNotificationData data,
                                                  std::uint16_t transaction, std::uint16_t part) {
  const auto chunk = ChunkOf<orka::qrx::TransferDataResponse>(data);
  const std::string name(row.name);
  const auto faults = plan_.Fire(false, name, row.kind == FrameKind::Response, false, chunk);
  Falsify(faults, data, transaction);
  const orka::codec::Encoded encoded = EncodeFromRadio(row, data);
  if (!encoded.error.empty()) {
    return std::unexpected(encoded.error);
  }
  if (!encoded.note.empty()) {
    events_.print("not exactly: " + name + ": " + encoded.note);
  }
  if (!chunk || options_.verbose) {
    events_.print("-> " + name + " " + Hex(row.opcode) + " " + ToJson(data));
  }
  SendFrame(row.kind, transaction, part, encoded.payload, faults);
  return {};
}

void CameraLink::SendLinkControl(LinkControl code, ByteView payload) {
  const std::string name = LinkControlName(code);
  if (options_.verbose) {
    events_.print("-> " + name);
  }
  SendFrame(FrameKind::LinkControl, 0, 0, payload, plan_.Fire(false, name, false, true, {}));
}

void CameraLink::SendGoodbye() {
  SendLinkControl(LinkControl::Goodbye, Encode(LinkControl::Goodbye));
}

void CameraLink::SendFrame(FrameKind kind, std::uint16_t transaction, std::uint16_t part,
                           ByteView payload, const Faults& faults) {
  orka::pel::BaseMessage header;
  header.address = address_;
  header.kind = static_cast<std::uint8_t>(kind);
  header.source = part;
  header.transaction = transaction;
  Bytes frame;
  orka::codec::AppendFrame(header, payload, frame);
  const auto passage = Pass(faults, "fault: a frame is not sent", frame);
  if (!passage) {
    return;
  }
  later_(passage->delay,
         [this, frame = std::move(frame), passage = *passage, session = session_number_] {
           if (session != session_number_) {
             return;
           }
           for (int i = 0; i < passage.times; ++i) {
             Deliver(frame);
           }
           Deliver(std::exchange(held_, {}));
           if (passage.then_silent) {
             FallSilent(" in the middle of a frame");
           }
         });
}

void CameraLink::Deliver(ByteView bytes) {
  if (line_ && !IsSilent() && !bytes.empty()) {
    line_->Send(bytes);
  }
}

}  // namespace radiosim
