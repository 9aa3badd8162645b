#pragma once

#include "orka/RadioProtocol.h"
#include "orka/codec/Codec.h"
#include "orka/codec/Frame.h"
#include "orka/codec/LinkControl.h"
#include "zelt/FileDescriptor.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
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

// The radio's end of a link, driven step by step. It reads only when the test asks for a frame, and
// keeps the link alive by itself from the handshake on, so that no test has to be in time.
class TestRadio {
 public:
  enum class On : std::uint8_t { Tcp, Pty };

  explicit TestRadio(On on = On::Tcp) {
    if (on == On::Pty) {
      line_ = zelt::FileDescriptor(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
      ::grantpt(line_.Get());
      ::unlockpt(line_.Get());
      device_ = ::ptsname(line_.Get());
      return;
    }
    listener_ = zelt::FileDescriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
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
  TestRadio(const TestRadio&) = delete;
  TestRadio& operator=(const TestRadio&) = delete;
  ~TestRadio() {
    {
      const std::lock_guard lock(mutex_);
      over_ = true;
    }
    changed_.notify_all();
    if (alive_.joinable()) {
      alive_.join();
    }
  }

  SocketSettings Address() const { return {"127.0.0.1", port_}; }
  const std::string& Device() const { return device_; }
  int Line() const { return line_.Get(); }
  void StopListening() { listener_.Close(); }

  // Connections wait from now on, until the result, which is one that came before, is taken.
  zelt::FileDescriptor MakeConnectionsWait() {
    ::listen(listener_.Get(), 0);
    zelt::FileDescriptor first(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port_);
    if (::connect(first.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
      throw std::runtime_error("cannot connect");
    }
    return first;
  }
  void TakeConnection() {
    zelt::FileDescriptor(::accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC)).Close();
  }
  void Hang() {
    const std::lock_guard lock(mutex_);
    line_.Close();
  }

  // Takes the connection and waits for the hello. Nothing when none comes.
  std::optional<codec::Hello> AwaitHello() {
    if (!line_) {
      pollfd ready{listener_.Get(), POLLIN, 0};
      ::poll(&ready, 1, 20'000);
      const std::lock_guard lock(mutex_);
      line_ = zelt::FileDescriptor(::accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
      const int on = 1;
      ::setsockopt(line_.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    }
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
    if (!alive_.joinable()) {
      alive_ = std::thread([this] { KeepAlive(); });
    }
    return greeted;
  }

  // The next frame of this kind; others are skipped. Nothing when the line ends, or none comes.
  std::optional<Frame> Next(pel::FrameKind kind) {
    while (true) {
      while (!frames_.empty()) {
        Frame frame = std::move(frames_.front());
        frames_.pop_front();
        if (frame.header.kind == static_cast<std::uint8_t>(kind)) {
          return frame;
        }
      }
      pollfd ready{line_.Get(), POLLIN, 0};
      std::array<std::uint8_t, 4096> buffer;
      if (::poll(&ready, 1, 20'000) <= 0) {
        return std::nullopt;
      }
      // NOLINTNEXTLINE(clang-analyzer-unix.BlockInCriticalSection): no lock is held here
      const ssize_t count = ::read(line_.Get(), buffer.data(), buffer.size());
      if (count <= 0) {
        return std::nullopt;
      }
      deframer_.Feed(codec::ByteView(buffer).first(static_cast<std::size_t>(count)));
    }
  }

  void Send(pel::FrameKind kind, codec::ByteView payload, std::uint16_t transaction = 0) {
    SendRaw(MakeFrame(kind, payload, transaction));
  }
  // A message of the table.
  void Send(std::string_view name, const RadioNotificationData& data,
            std::uint16_t transaction = 0) {
    const auto* row = codec::FindRow(codec::Direction::FromRadio, name);
    Send(row->kind, codec::EncodeFromRadio(*row, data).payload, transaction);
  }
  void SendRaw(codec::ByteView bytes) {
    const std::lock_guard lock(mutex_);
    for (ssize_t count = 1; count > 0 && !bytes.empty();) {
      count = Write(bytes);
      bytes = bytes.subspan(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
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
  void KeepAlive() {
    const codec::Bytes frame =
        MakeFrame(pel::FrameKind::LinkControl, codec::Encode(codec::LinkControl::KeepAlive));
    std::unique_lock lock(mutex_);
    while (!changed_.wait_for(lock, 400ms, [this] { return over_; })) {
      pollfd ready{line_.Get(), POLLOUT, 0};
      if (::poll(&ready, 1, 0) == 1) {
        Write(frame);
      }
    }
  }
  // With mutex_ held.
  ssize_t Write(codec::ByteView bytes) const {
    const ssize_t count = ::send(line_.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    return count < 0 && errno == ENOTSOCK ? ::write(line_.Get(), bytes.data(), bytes.size())
                                          : count;
  }

  zelt::FileDescriptor listener_;
  std::uint16_t port_ = 0;
  std::string device_;
  std::deque<Frame> frames_;
  codec::Deframer deframer_{[this](const pel::BaseMessage& header, codec::ByteView payload) {
                              frames_.push_back({header, {payload.begin(), payload.end()}});
                              return true;
                            },
                            [](codec::Drop, std::size_t) {}};

  std::mutex mutex_;  // held while something is sent, and while the line is replaced
  std::condition_variable changed_;
  zelt::FileDescriptor line_;
  bool over_ = false;
  std::thread alive_;
};

}  // namespace orka::test
