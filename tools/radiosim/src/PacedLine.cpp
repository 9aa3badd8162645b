#include "PacedLine.h"

#include <asio/buffer.hpp>
#include <asio/post.hpp>

#include <algorithm>
#include <utility>

namespace radiosim {
namespace {

constexpr std::chrono::milliseconds kStep{10};
constexpr int kBitsPerByte = 10;

}  // namespace

PacedLine::PacedLine(asio::io_context& io, int fd, std::uint32_t bits_per_second, Events events)
    : events_(std::move(events)),
      stream_(io, fd),
      pace_(io),
      byte_time_(bits_per_second == 0
                     ? std::chrono::nanoseconds(0)
                     : std::chrono::nanoseconds(std::chrono::seconds(kBitsPerByte)) /
                           bits_per_second),
      bytes_per_step_(static_cast<double>(bits_per_second) / kBitsPerByte *
                      std::chrono::duration<double>(kStep).count()),
      deframer_(
          [this](const orka::pel::BaseMessage& header, orka::codec::ByteView payload) {
            if (header.kind > static_cast<std::uint8_t>(orka::pel::FrameKind::LinkControl)) {
              events_.drop(orka::codec::Drop::Malformed, payload.size());
            } else {
              last_good_ = Clock::now();
              events_.frame(header, payload);
            }
            return !closed_;
          },
          [this](orka::codec::Drop drop, std::size_t bytes) { events_.drop(drop, bytes); }) {}

void PacedLine::Start() {
  stream_.non_blocking(true);
  if (bytes_per_step_ > 0) {
    Pace();
  }
  Read();
}

void PacedLine::Close() {
  if (!std::exchange(closed_, true)) {
    asio::error_code ignored;
    ignored = stream_.close(ignored);
    pace_.cancel();
  }
}

void PacedLine::Fail(const std::string& why) {
  if (!closed_) {
    Close();
    events_.closed(why);
  }
}

void PacedLine::Read() {
  std::size_t limit = buffer_.size();
  if (bytes_per_step_ > 0) {
    limit = std::min(limit, static_cast<std::size_t>(may_read_));
  }
  if (closed_ || reading_ || limit == 0) {
    return;
  }
  reading_ = true;
  stream_.async_read_some(
      asio::buffer(buffer_, limit),
      [self = shared_from_this()](const asio::error_code& error, std::size_t count) {
        self->reading_ = false;
        if (self->closed_) {
          return;
        }
        if (error) {
          self->Fail(error == asio::error::eof ? "closed by the camera" : error.message());
          return;
        }
        self->may_read_ -= static_cast<double>(count);
        self->bytes_ += count;
        self->deframer_.Feed(orka::codec::ByteView(self->buffer_).first(count));
        self->Read();
      });
}

void PacedLine::Send(orka::codec::ByteView bytes) {
  out_.insert(out_.end(), bytes.begin(), bytes.end());
  Write();
}

void PacedLine::Write() {
  while (!closed_ && !awaiting_room_) {
    std::size_t limit = out_.size();
    if (bytes_per_step_ > 0) {
      limit = std::min(limit, static_cast<std::size_t>(may_write_));
    }
    if (limit == 0) {
      return;
    }
    asio::error_code error;
    const std::size_t count = stream_.write_some(asio::buffer(out_, limit), error);
    if (error == asio::error::would_block) {
      awaiting_room_ = true;
      stream_.async_wait(asio::posix::stream_descriptor::wait_write,
                         [self = shared_from_this()](const asio::error_code& /*error*/) {
                           self->awaiting_room_ = false;
                           self->Write();
                         });
    } else if (error) {
      asio::post(stream_.get_executor(),
                 [self = shared_from_this(), error] { self->Fail(error.message()); });
      return;
    }
    last_sent_ = count > 0 ? Clock::now() : last_sent_;
    may_write_ -= static_cast<double>(count);
    bytes_ += count;
    out_.erase(out_.begin(), out_.begin() + static_cast<std::ptrdiff_t>(count));
  }
}

void PacedLine::Pace() {
  // What was not used does not add up: a line has no memory.
  const double most = std::max(1.0, 2 * bytes_per_step_);
  may_read_ = std::min(may_read_ + bytes_per_step_, most);
  may_write_ = std::min(may_write_ + bytes_per_step_, most);
  pace_.expires_after(kStep);
  pace_.async_wait([self = shared_from_this()](const asio::error_code& error) {
    if (!error && !self->closed_) {
      self->Pace();
    }
  });
  Read();
  Write();
}

}  // namespace radiosim
