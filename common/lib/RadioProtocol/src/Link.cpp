#include "Link.h"

#include <asio/post.hpp>

#include <cerrno>
#include <cstring>
#include <utility>

namespace orka {

Link::Link(asio::io_context& io, Line line, LinkSettings settings, AtomicCounters& counters,
           LinkEvents events)
    : io_(io),
      line_(std::move(line)),
      connecting_(io),
      stream_(io),
      timer_(io),
      logic_(std::move(settings), counters, std::move(events)) {
  if (const auto& endpoint = line_.ConnectTo()) {
    connecting_.assign(endpoint->protocol(), line_.Fd());
  } else {
    stream_.assign(line_.Fd());
  }
}

// Gives the descriptor back to the line, which closes it. Pending operations are cancelled.
void Link::Detach() {
  asio::error_code ignored;
  if (connecting_.is_open()) {
    connecting_.release(ignored);
  }
  if (stream_.is_open()) {
    stream_.release();
  }
}

void Link::Open() {
  if (logic_.IsClosed()) {
    return;  // stopped before it began
  }
  logic_.Open(Clock::now());
  ArmTimer();
  if (const auto& endpoint = line_.ConnectTo()) {
    Connect(*endpoint);
  } else {
    Greet();
  }
}

void Link::Connect(const asio::ip::tcp::endpoint& endpoint) {
  connecting_.async_connect(endpoint, [self = shared_from_this()](const asio::error_code& error) {
    if (self->logic_.IsClosed()) {
      return;
    }
    asio::error_code failure = error;
    if (!failure) {
      failure = self->stream_.assign(self->connecting_.release(), failure);
    }
    if (failure) {
      self->Fail(failure.message());
    } else {
      self->Greet();
    }
  });
}

void Link::Greet() {
  logic_.LineIsThere(Clock::now());
  ArmTimer();
  Settle();
  Read();
}

void Link::Read() {
  if (reading_ || logic_.IsClosed() || (held_ && logic_.IsConnected())) {
    return;
  }
  reading_ = true;
  stream_.async_wait(asio::posix::stream_descriptor::wait_read,
                     [self = shared_from_this()](const asio::error_code&) {
                       self->reading_ = false;
                       self->OnReadable();
                     });
}

void Link::OnReadable() {
  if (logic_.IsClosed() || (held_ && logic_.IsConnected())) {
    return;
  }
  const ssize_t count = line_.Read(read_buffer_);
  if (count > 0) {
    logic_.Received(codec::ByteView(read_buffer_).first(static_cast<std::size_t>(count)),
                    Clock::now());
    Settle();
  } else if (count == 0) {
    Fail("closed by the radio");
  } else if (errno != EAGAIN && errno != EINTR) {
    Fail(std::strerror(errno));
  }
  Read();
}

bool Link::Queue(codec::ByteView frame, std::size_t payload) {
  if (!logic_.Queue(frame, payload)) {
    return false;
  }
  if (!settle_posted_.exchange(true)) {
    asio::post(io_, [self = shared_from_this()] {
      self->settle_posted_ = false;
      self->Settle();
    });
  }
  return true;
}

int Link::Write() {
  while (true) {
    const codec::ByteView bytes = logic_.Waiting(Clock::now());
    if (bytes.empty()) {
      return 0;
    }
    const ssize_t count = line_.Write(bytes);
    if (count > 0) {
      logic_.Took(static_cast<std::size_t>(count), Clock::now());
    } else if (count == 0) {
      return EAGAIN;
    } else if (errno != EINTR) {
      return errno;
    }
  }
}

void Link::Settle() {
  if (!stream_.is_open()) {
    return;  // not connected yet, or closed
  }
  if (!logic_.IsClosed() && !awaiting_room_) {
    const int error = Write();
    if (error == EAGAIN) {
      awaiting_room_ = true;
      stream_.async_wait(asio::posix::stream_descriptor::wait_write,
                         [self = shared_from_this()](const asio::error_code&) {
                           self->awaiting_room_ = false;
                           self->Settle();
                         });
    } else if (error != 0) {
      logic_.LineFailed(std::strerror(error));
    }
  }
  if (logic_.IsClosed()) {
    Close();
  } else if (logic_.NextLook(Clock::now()) < timer_.expiry()) {
    ArmTimer();
  }
}

void Link::Fail(std::string_view why) {
  logic_.LineFailed(why);
  Close();
}

void Link::Close() {
  logic_.Close();
  if (stream_.is_open()) {
    Write();  // a Goodbye, if the line takes it at once
  }
  Detach();
  line_.Close();
  timer_.cancel();
  logic_.TellEnd();
}

void Link::ArmTimer() {
  timer_.expires_at(logic_.NextLook(Clock::now()));
  timer_.async_wait([self = shared_from_this()](const asio::error_code& error) {
    if (error || self->logic_.IsClosed()) {
      return;
    }
    self->logic_.Look(Clock::now());
    if (self->logic_.IsClosed()) {
      self->Close();  // also of a line that is not connected yet
    } else {
      self->ArmTimer();
      self->Settle();
    }
  });
}

void Link::Hold() {
  held_ = true;
  asio::post(io_, [self = shared_from_this()] { self->logic_.Hold(); });
}

void Link::Continue() {
  held_ = false;
  asio::post(io_, [self = shared_from_this()] {
    self->logic_.Continue(Clock::now());
    self->Read();
  });
}

}  // namespace orka
