#include "Link.h"

#include "zelt/LogClient.h"

#include <sys/socket.h>
#include <unistd.h>
#include <asio/buffer.hpp>
#include <asio/post.hpp>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace orka {
namespace {

// Drops that follow each other within this time are one burst.
constexpr std::chrono::seconds kBurstGap{1};

}  // namespace

Link::Link(asio::io_context& io, Line line, LinkSettings settings, AtomicCounters& counters,
           LinkEvents events)
    : io_(io),
      settings_(std::move(settings)),
      events_(std::move(events)),
      name_(std::move(line.name)),
      connect_to_(line.connect_to),
      counters_(counters),
      stream_(io, line.fd.Release()),
      timer_(io),
      deframer_([this](const pel::BaseMessage& header,
                       codec::ByteView payload) { return HandleFrame(header, payload); },
                [this](codec::Drop drop, std::size_t bytes) {
                  damaged_ = true;
                  CountDrop(CounterOf(drop),
                            std::string(ToString(drop)) + ", " + std::to_string(bytes) + " bytes");
                }) {}

std::atomic<std::uint64_t>& Link::CounterOf(codec::Drop drop) {
  switch (drop) {
    case codec::Drop::Checksum:
      return counters_.dropped_checksum;
    case codec::Drop::TooLong:
      return counters_.dropped_too_long;
    default:
      return counters_.dropped_malformed;
  }
}

void Link::Open() {
  if (state_ == State::Closed) {
    return;  // stopped before it began
  }
  greet_until_ = Clock::now() + settings_.handshake_timeout;
  ArmTimer(greet_until_);
  if (connect_to_) {
    Connect(*connect_to_);
  } else {
    Greet();
  }
}

void Link::Connect(const asio::ip::tcp::endpoint& endpoint) {
  if (::connect(stream_.native_handle(), endpoint.data(),
                static_cast<socklen_t>(endpoint.size())) == 0) {
    Greet();
  } else if (errno == EINPROGRESS) {
    stream_.async_wait(asio::posix::stream_descriptor::wait_write,
                       [self = shared_from_this()](const asio::error_code& error) {
                         if (!error && self->state_ == State::Opening) {
                           self->FinishConnect();
                         }
                       });
  } else {
    End(std::strerror(errno));
  }
}

void Link::FinishConnect() {
  int error = 0;
  socklen_t size = sizeof(error);
  ::getsockopt(stream_.native_handle(), SOL_SOCKET, SO_ERROR, &error, &size);
  if (error != 0) {
    End(std::strerror(error));
  } else {
    Greet();
  }
}

void Link::Greet() {
  state_ = State::Greeting;
  Append(std::array<std::uint8_t, 1>{0});  // ends whatever the radio may have heard before
  AppendLinkControl(codec::Encode(settings_.hello));
  greet_again_ = Clock::now() + codec::kHelloRepeatedAfter;
  ArmTimer(std::min(greet_again_, greet_until_));
  Read();
  FlushOrEnd();
}

void Link::AppendLinkControl(codec::ByteView payload) {
  codec::Bytes frame;
  pel::BaseMessage header;
  header.address = settings_.address;
  header.kind = static_cast<std::uint8_t>(pel::FrameKind::LinkControl);
  codec::AppendFrame(header, payload, frame);
  counters_.frames_sent.fetch_add(1, std::memory_order_relaxed);
  Append(frame);
}

void Link::Read() {
  stream_.async_read_some(
      asio::buffer(read_buffer_),
      [self = shared_from_this()](const asio::error_code& error, std::size_t count) {
        if (self->state_ == State::Closed) {
          return;
        }
        if (error) {
          self->End(error == asio::error::eof ? "closed by the radio" : error.message());
          return;
        }
        self->Received(codec::ByteView(self->read_buffer_).first(count));
        if (self->state_ != State::Closed) {
          self->Read();
        }
      });
}

void Link::Received(codec::ByteView bytes) {
  counters_.bytes_received.fetch_add(bytes.size(), std::memory_order_relaxed);
  deframer_.Feed(bytes);
  // A long frame on a slow line takes longer than a radio may be silent: its bytes count as life,
  // unless the line brings nothing but damage.
  if (deframer_.InFrame() && !damaged_) {
    pulse_.last_heard = Clock::now();
  }
}

bool Link::HandleFrame(const pel::BaseMessage& header, codec::ByteView payload) {
  if (header.kind > static_cast<std::uint8_t>(pel::FrameKind::LinkControl)) {
    CountDrop(counters_.dropped_malformed, "kind of frame " + std::to_string(header.kind));
    return true;
  }
  counters_.frames_received.fetch_add(1, std::memory_order_relaxed);
  damaged_ = false;
  pulse_.last_heard = Clock::now();
  if (header.kind == static_cast<std::uint8_t>(pel::FrameKind::LinkControl)) {
    HandleLinkControl(payload);
  } else if (state_ == State::Connected) {
    const FrameVerdict verdict = events_.frame(header, payload);
    if (verdict.kind == FrameVerdict::Kind::UnknownOpcode) {
      CountDrop(counters_.dropped_unknown_opcode, verdict.detail);
    } else if (verdict.kind == FrameVerdict::Kind::Malformed) {
      CountDrop(counters_.dropped_malformed, verdict.detail);
    }
  }  // else left over from an earlier session
  return state_ != State::Closed;
}

void Link::HandleLinkControl(codec::ByteView payload) {
  const auto code = codec::LinkControlCode(payload);
  if (state_ == State::Greeting && code == codec::LinkControl::HelloAnswer) {
    const auto answer = codec::DecodeHelloAnswer(payload);
    if (!answer) {
      CountDrop(counters_.dropped_malformed, "a hello's answer that is cut short");
      return;
    }
    if (answer->protocol_version != codec::kProtocolVersion) {
      End("the radio speaks protocol version " + std::to_string(answer->protocol_version) +
          ", not " + std::to_string(codec::kProtocolVersion));
      return;
    }
    state_ = State::Connected;
    ArmTimer(pulse_.NextLook(Clock::now()));
    ZELT_LOG(zelt::kLogInfo, kLogCategoryRadio)
        << "Radio \"" << answer->name << "\" answered on " << name_ << ", largest transfer "
        << answer->max_transfer_size << ", in service " << answer->in_service;
    events_.connected(*answer);
  } else if (state_ == State::Connected && code == codec::LinkControl::Goodbye) {
    End("ended by the radio");
  } else if (payload.size() < sizeof(codec::LinkControl)) {
    CountDrop(counters_.dropped_malformed, "a link-control frame without a number");
  }
}

bool Link::Queue(codec::ByteView frame) {
  const std::lock_guard lock(queue_mutex_);
  if (frame.size() > kMaxQueued - std::min(kMaxQueued, queued_.size() + unwritten_)) {
    return false;
  }
  queued_.insert(queued_.end(), frame.begin(), frame.end());
  counters_.frames_sent.fetch_add(1, std::memory_order_relaxed);
  if (!std::exchange(flush_posted_, true)) {
    asio::post(io_, [self = shared_from_this()] { self->FlushOrEnd(); });
  }
  return true;
}

void Link::Append(codec::ByteView bytes) {
  const std::lock_guard lock(queue_mutex_);
  queued_.insert(queued_.end(), bytes.begin(), bytes.end());
}

int Link::Flush() {
  while (!pulse_.line_is_full) {
    if (written_ == writing_.size()) {
      writing_.clear();
      written_ = 0;
      const std::lock_guard lock(queue_mutex_);
      flush_posted_ = false;
      std::swap(writing_, queued_);
      unwritten_ = writing_.size();
    }
    if (writing_.empty()) {
      return 0;
    }
    const codec::ByteView rest = codec::ByteView(writing_).subspan(written_);
    const int fd = stream_.native_handle();
    const ssize_t count = connect_to_ ? ::send(fd, rest.data(), rest.size(), MSG_NOSIGNAL)
                                      : ::write(fd, rest.data(), rest.size());
    if (count >= 0) {
      written_ += static_cast<std::size_t>(count);
      unwritten_ = writing_.size() - written_;
      pulse_.last_sent = Clock::now();
      counters_.bytes_sent.fetch_add(static_cast<std::uint64_t>(count), std::memory_order_relaxed);
    } else if (errno == EAGAIN) {
      pulse_.line_is_full = true;
      stream_.async_wait(asio::posix::stream_descriptor::wait_write,
                         [self = shared_from_this()](const asio::error_code&) {
                           self->pulse_.line_is_full = false;
                           self->FlushOrEnd();
                         });
    } else if (errno != EINTR) {
      return errno;
    }
  }
  return 0;
}

void Link::FlushOrEnd() {
  if (state_ == State::Closed) {
    return;
  }
  if (const int error = Flush(); error != 0) {
    End(std::strerror(error));
  }
}

void Link::ArmTimer(Clock::time_point at) {
  timer_.expires_at(at);
  timer_.async_wait([self = shared_from_this()](const asio::error_code& error) {
    if (!error) {
      self->OnTimer();
    }
  });
}

void Link::OnTimer() {
  const Clock::time_point now = Clock::now();
  switch (state_) {
    case State::Opening:
    case State::Greeting:
      if (now >= greet_until_) {
        End(state_ == State::Opening ? "no connection in time" : "no answer to the hello in time");
        return;
      }
      if (state_ == State::Greeting && now >= greet_again_) {
        AppendLinkControl(codec::Encode(settings_.hello));
        greet_again_ = now + codec::kHelloRepeatedAfter;
      }
      ArmTimer(state_ == State::Opening ? greet_until_ : std::min(greet_again_, greet_until_));
      break;
    case State::Connected:
      if (pulse_.IsLost(now)) {
        End("the radio is silent");
        return;
      }
      if (pulse_.NeedsKeepAlive(now)) {
        AppendLinkControl(codec::Encode(codec::LinkControl::KeepAlive));
        pulse_.last_sent = now;
      }
      ArmTimer(pulse_.NextLook(now));
      break;
    case State::Closed:
      return;
  }
  FlushOrEnd();
}

void Link::Close() {
  if (state_ == State::Closed) {
    return;
  }
  if (state_ == State::Connected) {
    // What the line takes at once goes out, so that the radio need not wait for the silence.
    AppendLinkControl(codec::Encode(codec::LinkControl::Goodbye));
    Flush();
  }
  state_ = State::Closed;
  LogDropsLeft();
  if (!connect_to_) {
    ReleaseSerialLine(stream_.native_handle());
  }
  asio::error_code ignored;
  ignored = stream_.close(ignored);
  timer_.cancel();
}

void Link::End(std::string_view why) {
  if (state_ == State::Closed) {
    return;
  }
  const bool was_connected = state_ == State::Connected;
  Close();
  ZELT_LOG(zelt::kLogError, kLogCategoryRadio)
      << (was_connected ? "Link to the radio lost on " : "No link to the radio on ") << name_
      << ": " << why;
  events_.ended(was_connected);
}

void Link::CountDrop(std::atomic<std::uint64_t>& counter, std::string_view why) {
  counter.fetch_add(1, std::memory_order_relaxed);
  const Clock::time_point now = Clock::now();
  if (std::exchange(last_drop_, now) + kBurstGap > now) {
    ++drops_unlogged_;
    return;
  }
  LogDropsLeft();
  ZELT_LOG(zelt::kLogWarning, kLogCategoryRadio) << "Dropped a frame of the radio: " << why;
}

void Link::LogDropsLeft() {
  if (drops_unlogged_ > 0) {
    ZELT_LOG(zelt::kLogWarning, kLogCategoryRadio)
        << "Dropped " << std::exchange(drops_unlogged_, 0) << " more frames in the last burst";
  }
}

}  // namespace orka
