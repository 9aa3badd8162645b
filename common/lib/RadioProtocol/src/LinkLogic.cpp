#include "LinkLogic.h"

#include "zelt/LogClient.h"

#include <algorithm>
#include <array>
#include <utility>

namespace orka {
namespace {

// Drops that follow each other within this time are one burst.
constexpr std::chrono::seconds kBurstGap{1};

std::atomic<std::uint64_t>& CounterOf(AtomicCounters& counters, codec::Drop drop) {
  switch (drop) {
    case codec::Drop::Checksum:
      return counters.dropped_checksum;
    case codec::Drop::TooLong:
      return counters.dropped_too_long;
    default:
      return counters.dropped_malformed;
  }
}

}  // namespace

LinkLogic::LinkLogic(LinkSettings settings, AtomicCounters& counters, LinkEvents events)
    : settings_(std::move(settings)),
      events_(std::move(events)),
      lost_after_(codec::LostAfter(settings_.byte_time)),
      stuck_after_(StuckAfter(settings_.byte_time)),
      counters_(counters),
      queue_(SendRoom(settings_.byte_time), kSendReserve),
      deframer_([this](const pel::BaseMessage& header,
                       codec::ByteView payload) { return HandleFrame(header, payload); },
                [this](codec::Drop drop, std::size_t bytes) {
                  CountDrop(CounterOf(counters_, drop),
                            std::string(ToString(drop)) + ", " + std::to_string(bytes) + " bytes");
                }) {}

void LinkLogic::Open(Time now) {
  greet_until_ = now + settings_.handshake_timeout;
}

void LinkLogic::LineIsThere(Time now) {
  if (state_ != State::Opening) {
    return;
  }
  state_ = State::Greeting;
  queue_.PushUncounted(std::array<std::uint8_t, 1>{0});  // ends what the radio may have heard
  SendLinkControl(codec::Encode(settings_.hello));
  greet_again_ = now + codec::kHelloRepeatedAfter;
}

void LinkLogic::LineFailed(std::string_view why) {
  End(why);
}

void LinkLogic::SendLinkControl(codec::ByteView payload) {
  codec::Bytes frame;
  pel::BaseMessage header;
  header.address = settings_.address;
  header.kind = static_cast<std::uint8_t>(pel::FrameKind::LinkControl);
  codec::AppendFrame(header, payload, frame);
  counters_.frames_sent.fetch_add(1, std::memory_order_relaxed);
  queue_.PushUncounted(frame);
}

// ------------------------------------------------------------------------------------------------
// From the line.

void LinkLogic::Received(codec::ByteView bytes, Time now) {
  counters_.bytes_received.fetch_add(bytes.size(), std::memory_order_relaxed);
  if (state_ != State::Closed) {
    now_ = now;
    deframer_.Feed(bytes);
  }
}

bool LinkLogic::HandleFrame(const pel::BaseMessage& header, codec::ByteView payload) {
  if (header.kind > static_cast<std::uint8_t>(pel::FrameKind::LinkControl)) {
    CountDrop(counters_.dropped_malformed, "kind of frame " + std::to_string(header.kind));
    return true;
  }
  counters_.frames_received.fetch_add(1, std::memory_order_relaxed);
  last_good_ = now_;
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

void LinkLogic::HandleLinkControl(codec::ByteView payload) {
  const auto code = codec::LinkControlCode(payload);
  if (state_ == State::Greeting && code == codec::LinkControl::HelloAnswer) {
    HandleHelloAnswer(payload);
  } else if (state_ == State::Connected && code == codec::LinkControl::Goodbye) {
    End("ended by the radio");
  } else if (payload.size() < sizeof(codec::LinkControl)) {
    CountDrop(counters_.dropped_malformed, "a link-control frame without a number");
  }
}

void LinkLogic::HandleHelloAnswer(codec::ByteView payload) {
  const auto answer = codec::DecodeHelloAnswer(payload);
  if (!answer) {
    CountDrop(counters_.dropped_malformed, "a hello's answer that is cut short");
    return;
  }
  if (answer->protocol_version != codec::kProtocolVersion) {
    End("the radio speaks protocol version " + std::to_string(answer->protocol_version) + ", not " +
        std::to_string(codec::kProtocolVersion));
    return;
  }
  state_ = State::Connected;
  ZELT_LOG(zelt::kLogInfo, kRadioLogCategory)
      << "Radio \"" << answer->name << "\" answered on " << settings_.line << ", largest transfer "
      << answer->max_transfer_size << ", in service " << answer->in_service;
  if (answer->max_transfer_size == 0) {
    ZELT_LOG(zelt::kLogError, kRadioLogCategory)
        << "Radio \"" << answer->name
        << "\" takes no files: its largest transfer size is 0, and 1 to 65527 is expected";
  }
  events_.connected(*answer);
}

// ------------------------------------------------------------------------------------------------
// To the line.

bool LinkLogic::Queue(codec::ByteView frame, std::size_t payload) {
  if (!queue_.Push(frame, FrameCost(payload))) {
    return false;
  }
  counters_.frames_sent.fetch_add(1, std::memory_order_relaxed);
  return true;
}

codec::ByteView LinkLogic::Waiting(Time now) {
  const codec::ByteView bytes = queue_.Waiting();
  if (!std::exchange(waiting_, !bytes.empty())) {
    last_took_ = now;
    first_since_ = now;
  }
  return bytes;
}

void LinkLogic::Took(std::size_t count, Time now) {
  counters_.bytes_sent.fetch_add(count, std::memory_order_relaxed);
  last_sent_ = now;
  last_took_ = now;
  if (queue_.Took(count)) {
    first_since_ = now;
  }
}

LinkLogic::Time LinkLogic::StuckAt() const {
  const auto frame_time =
      settings_.byte_time * static_cast<std::chrono::nanoseconds::rep>(queue_.FirstSize());
  return stuck_after_ + std::min(last_took_, first_since_ + frame_time);
}

// ------------------------------------------------------------------------------------------------
// Time.

void LinkLogic::Look(Time now) {
  switch (state_) {
    case State::Opening:
      if (now >= greet_until_) {
        End("no connection in time");
      }
      break;
    case State::Greeting:
      if (now >= greet_until_) {
        End("no answer to the hello in time");
      } else if (now >= greet_again_) {
        greet_again_ = now + codec::kHelloRepeatedAfter;
        if (!waiting_) {  // one that the line has not taken yet is enough
          SendLinkControl(codec::Encode(settings_.hello));
        }
      }
      break;
    case State::Connected:
      if (IsSilent(now)) {
        End("the radio is silent");
      } else if (waiting_ && now >= StuckAt()) {
        End("the radio does not take what is sent");
      } else if (!waiting_ && now >= last_sent_ + codec::kKeepAliveAfter) {
        SendLinkControl(codec::Encode(codec::LinkControl::KeepAlive));
      }
      break;
    case State::Closed:
      break;
  }
}

LinkLogic::Time LinkLogic::NextLook(Time now) const {
  switch (state_) {
    case State::Opening:
      return greet_until_;
    case State::Greeting:
      return std::min(greet_again_, greet_until_);
    default:
      break;
  }
  Time next = (waiting_ ? now : last_sent_) + codec::kKeepAliveAfter;
  if (waiting_) {
    next = std::min(next, StuckAt());
  }
  if (!held_) {
    next = std::min(next, last_good_ + lost_after_);
  }
  return next;
}

void LinkLogic::Continue(Time now) {
  if (std::exchange(held_, false)) {
    last_good_ = now;
  }
}

// ------------------------------------------------------------------------------------------------
// The end.

void LinkLogic::Close() {
  if (state_ == State::Connected) {
    // What the line takes at once goes out, so that the radio need not wait for the silence.
    SendLinkControl(codec::Encode(codec::LinkControl::Goodbye));
  }
  if (std::exchange(state_, State::Closed) != State::Closed) {
    LogDropsLeft();
  }
}

void LinkLogic::End(std::string_view why) {
  if (state_ == State::Closed) {
    return;
  }
  end_ = state_ == State::Connected;
  Close();
  ZELT_LOG(zelt::kLogError, kRadioLogCategory)
      << (*end_ ? "Link to the radio lost on " : "No link to the radio on ") << settings_.line
      << ": " << why;
}

void LinkLogic::TellEnd() {
  if (const auto was_connected = std::exchange(end_, std::nullopt)) {
    events_.ended(*was_connected);
  }
}

void LinkLogic::CountDrop(std::atomic<std::uint64_t>& counter, std::string_view why) {
  counter.fetch_add(1, std::memory_order_relaxed);
  if (std::exchange(last_drop_, now_) + kBurstGap > now_) {
    ++drops_unlogged_;
    return;
  }
  LogDropsLeft();
  ZELT_LOG(zelt::kLogWarning, kRadioLogCategory) << "Dropped a frame of the radio: " << why;
}

void LinkLogic::LogDropsLeft() {
  if (drops_unlogged_ > 0) {
    ZELT_LOG(zelt::kLogWarning, kRadioLogCategory)
        << "Dropped " << std::exchange(drops_unlogged_, 0) << " more frames in the last burst";
  }
}

}  // namespace orka
