#pragma once

#include "UniqueFd.h"
#include "orka/RadioProtocol.h"
#include "orka/codec/Codec.h"
#include "orka/codec/Frame.h"
#include "orka/codec/LinkControl.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <deque>
#include <optional>
#include <stdexcept>
#include <utility>

namespace orka::test {

using namespace std::chrono_literals;

struct Frame {
  pel::BaseMessage header;
  codec::Bytes payload;
};

inline codec::HelloAnswer MakeAnswer(bool in_service = false, std::uint16_t version = 1) {
  return {version, in_service, 1024, "radio", {}};
}

// The radio's end of a link, driven step by step: it says what the test tells it to, and keeps
// the link alive only while it waits for a frame.
class TestRadio {
 public:
  TestRadio() : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    auto* const where = reinterpret_cast<sockaddr*>(&address);
    if (::bind(listener_.Get(), where, size) != 0 || ::listen(listener_.Get(), 4) != 0 ||
        ::getsockname(listener_.Get(), where, &size) != 0) {
      throw std::runtime_error("cannot listen");
    }
    port_ = ntohs(address.sin_port);
  }
  explicit TestRadio(UniqueFd line) : line_(std::move(line)) {}

  SocketSettings Address() const { return {"127.0.0.1", port_}; }
  void StopListening() { listener_ = UniqueFd(); }
  void Hang() { line_ = UniqueFd(); }

  // Takes the connection and waits for the hello. Nothing when none comes.
  std::optional<codec::Hello> AwaitHello() {
    if (!line_) {
      pollfd ready{listener_.Get(), POLLIN, 0};
      ::poll(&ready, 1, 10000);
      line_ = UniqueFd(::accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    }
    const int on = 1;
    ::setsockopt(line_.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    while (const auto frame = Next(pel::FrameKind::LinkControl)) {
      if (const auto hello = codec::DecodeHello(frame->payload)) {
        return hello;
      }
    }
    return std::nullopt;
  }

  bool Handshake(const codec::HelloAnswer& answer = MakeAnswer()) {
    const bool greeted = AwaitHello().has_value();
    Send(pel::FrameKind::LinkControl, codec::Encode(answer));
    return greeted;
  }

  // The next frame of this kind; others are skipped.
  std::optional<Frame> Next(pel::FrameKind kind) {
    const auto until = std::chrono::steady_clock::now() + 10s;
    while (std::chrono::steady_clock::now() < until) {
      while (!frames_.empty()) {
        Frame frame = std::move(frames_.front());
        frames_.pop_front();
        if (frame.header.kind == static_cast<std::uint8_t>(kind)) {
          return frame;
        }
      }
      pollfd ready{line_.Get(), POLLIN, 0};
      if (::poll(&ready, 1, 500) == 0) {
        Send(pel::FrameKind::LinkControl, codec::Encode(codec::LinkControl::KeepAlive));
        continue;
      }
      std::array<std::uint8_t, 4096> buffer;
      // NOLINTNEXTLINE(clang-analyzer-unix.BlockInCriticalSection): no lock is held here
      const ssize_t count = ::read(line_.Get(), buffer.data(), buffer.size());
      if (count <= 0) {
        return std::nullopt;
      }
      deframer_.Feed(codec::ByteView(buffer).first(static_cast<std::size_t>(count)));
    }
    return std::nullopt;
  }

  void Send(pel::FrameKind kind, codec::ByteView payload, std::uint16_t transaction = 0) {
    SendRaw(MakeFrame(kind, payload, transaction));
  }
  void SendRaw(codec::ByteView bytes) {
    while (!bytes.empty()) {
      ssize_t count = ::send(line_.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (count < 0 && errno == ENOTSOCK) {
        count = ::write(line_.Get(), bytes.data(), bytes.size());
      }
      if (count <= 0) {
        return;
      }
      bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
  }

  static codec::Bytes MakeFrame(pel::FrameKind kind, codec::ByteView payload,
                                std::uint16_t transaction = 0) {
    codec::Bytes bytes;
    pel::BaseMessage header;
    header.kind = static_cast<std::uint8_t>(kind);
    header.transaction = transaction;
    codec::AppendFrame(header, payload, bytes);
    return bytes;
  }

 private:
  UniqueFd listener_;
  std::uint16_t port_ = 0;
  UniqueFd line_;
  std::deque<Frame> frames_;
  codec::Deframer deframer_{[this](const pel::BaseMessage& header, codec::ByteView payload) {
                              frames_.push_back({header, {payload.begin(), payload.end()}});
                              return true;
                            },
                            [](codec::Drop, std::size_t) {}};
};

}  // namespace orka::test
