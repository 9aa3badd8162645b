#include "LinkKeeper.h"

#include <algorithm>
#include <utility>

namespace zelt {
namespace {

constexpr LinkKeeper::Seconds kFirstDelay{1};
constexpr LinkKeeper::Seconds kLongestDelay{30};
constexpr double kJitter = 0.04;             // of the delay; with more, too many in an hour
constexpr LinkKeeper::Seconds kSettled{1};   // a link that is lost sooner was none
constexpr LinkKeeper::Seconds kOnItsWay{1};  // an order; Kova takes one in far less

bool IsDown(LinkKeeper::Link link) {
  return link == Kova::DISCONNECTED || link == Kova::CONNECTION_IS_LOST ||
         link == Kova::HANDSHAKE_FAILED;
}

}  // namespace

LinkKeeper::Orders LinkKeeper::OnKova(bool ready) {
  kova_is_ready_ = ready;
  if (ready) {
    return Look();
  }
  // Its next run starts without a link, and without what was sent to this one.
  link_.reset();
  awaits_ = Awaits::Nothing;
  attempts_ = 0;
  own_stops_ = 0;
  own_start_ = false;
  return {};
}

LinkKeeper::Orders LinkKeeper::OnTold(Link link) {
  if (link_) {
    return {};  // what was published is newer
  }
  link_ = link;
  return Look();
}

LinkKeeper::Orders LinkKeeper::OnPublished(Link link) {
  link_ = link;
  if (!kova_is_ready_) {
    return {};  // it stops the link because it ends
  }
  switch (link) {
    case Kova::DISCONNECTED:
      return Stopped();
    case Kova::CONNECTING:
      return Started();
    default:
      return Look();
  }
}

LinkKeeper::Orders LinkKeeper::OnSwitch(bool on) {
  state_ = on ? KeepLinkStatus::ON : KeepLinkStatus::OFF;
  attempts_ = 0;
  return Look();
}

LinkKeeper::Orders LinkKeeper::OnHint() {
  if (state_ != KeepLinkStatus::ON || !kova_is_ready_ || !link_ ||
      (!IsDown(*link_) && link_ != Kova::CONNECTING)) {
    return {};
  }
  // Also in place of an attempt that is on its way: a network may ask a host that was away only
  // after a long pause.
  attempts_ = 0;
  return Try();
}

LinkKeeper::Orders LinkKeeper::OnTimer() {
  switch (std::exchange(awaits_, Awaits::Nothing)) {
    case Awaits::NextTry:
      if (link_ == Kova::CONNECTING) {
        awaits_ = Awaits::Failure;
        return {};
      }
      return Try();
    case Awaits::SettledLink:
      attempts_ = 0;
      own_stops_ = 0;  // a stop that was not taken is over, too
      return {};
    case Awaits::OwnStart:
      own_start_ = false;
      return {};
    case Awaits::Failure:
    case Awaits::Nothing:
      return {};  // what it was set for is over
  }
  return {};
}

// What is to be done about the link as it is.
LinkKeeper::Orders LinkKeeper::Look() {
  const Awaits awaited = std::exchange(awaits_, Awaits::Nothing);
  if (!kova_is_ready_ || !link_) {
    return {};
  }
  if (link_ == Kova::CONNECTED) {
    awaits_ = Awaits::SettledLink;
    return {.timer = kSettled};
  }
  if (!IsDown(*link_) || state_ != KeepLinkStatus::ON) {
    return {};
  }
  if (attempts_ == 0 || awaited == Awaits::Failure) {
    return Try();
  }
  awaits_ = Awaits::NextTry;
  return {.timer = awaited == Awaits::NextTry ? std::nullopt : std::optional(Delay())};
}

LinkKeeper::Orders LinkKeeper::Try() {
  ++attempts_;
  const bool stop = link_ != Kova::DISCONNECTED;
  own_stops_ += stop ? 1 : 0;
  own_start_ = true;
  // Kova publishes nothing of a start that it refuses, be it that the port is not there.
  awaits_ = Awaits::NextTry;
  return {.stop = stop, .start = true, .timer = Delay()};
}

LinkKeeper::Orders LinkKeeper::Stopped() {
  if (own_stops_ > 0) {
    --own_stops_;
    return own_start_ ? Orders() : Look();
  }
  awaits_ = Awaits::Nothing;
  if (state_ != KeepLinkStatus::ON) {
    return {};
  }
  state_ = KeepLinkStatus::HELD;
  attempts_ = 0;
  if (!own_start_) {
    return {};
  }
  awaits_ = Awaits::OwnStart;
  return {.timer = kOnItsWay};
}

LinkKeeper::Orders LinkKeeper::Started() {
  const bool was_own = std::exchange(own_start_, false);
  if (was_own && state_ == KeepLinkStatus::ON) {
    return {};  // its time runs since it was ordered
  }
  awaits_ = Awaits::Nothing;
  if (state_ != KeepLinkStatus::HELD) {
    return {};
  }
  if (was_own) {  // on its way when somebody else stopped the link
    ++own_stops_;
    return {.stop = true, .start = false, .timer = {}};
  }
  state_ = KeepLinkStatus::ON;
  return {};
}

LinkKeeper::Seconds LinkKeeper::Delay() const {
  Seconds delay = kFirstDelay;
  for (unsigned attempt = 1; attempt < attempts_ && delay < kLongestDelay; ++attempt) {
    delay *= 2;
  }
  return std::min(delay, kLongestDelay) * (1 - kJitter * jitter_);
}

}  // namespace zelt
