#pragma once

#include "Kova.pb.h"
#include "zelt.pb.h"

#include <chrono>
#include <optional>

namespace zelt {

// What Keeper decides: what it hears goes in, what it is to do comes out. Pure: it knows no bus, no
// clock and no chance.
//
//   ON --somebody else stops the link--> HELD      ON, HELD --switched off--> OFF
//   HELD --somebody else starts it--> ON           any --switched on--> ON, and tries at once
//
// While ON and Kova is ready, a link that is down is started, one that was lost or whose handshake
// failed is stopped and started: at once, then again when the attempt has failed and its time is
// over, which is 1, 2, 4 ... 30 s from its start. A link that was up for a second begins anew. One
// that is connecting, that is up, or whose radio upgrades itself is left alone.
//
// From its start, not from its failure: while an attempt is on its way Kova greets the radio each
// second, so that a radio that was silent is found at once, and no pause is to be between attempts.
// Only those that fail early, since nobody listens or there is no port, are for nothing, and have
// pauses.
//
// Not thread-safe; each call is one event.
class LinkKeeper {
 public:
  using Link = Kova::RtConnectionState;
  using State = KeepLinkStatus::State;
  using Seconds = std::chrono::duration<double>;

  // To be carried out in this order.
  struct Orders {
    bool stop = false;             // send Kova STOP
    bool start = false;            // send Kova START
    std::optional<Seconds> timer;  // call OnTimer after so long, in place of any earlier one
  };

  // The state of the service Kova has changed.
  Orders OnKova(bool ready);
  // Kova has told this process alone how the link is, because it subscribed. That may be late: a
  // published status passes it.
  Orders OnTold(Link link);
  // Kova has published a change of the link.
  Orders OnPublished(Link link);
  Orders OnSwitch(bool on);
  // Somebody knows that the radio may be back.
  Orders OnHint();
  Orders OnTimer();

  // How much earlier than it could be the next attempt is, by chance: 0 to 1.
  void SetJitter(double jitter) { jitter_ = jitter; }

  State GetState() const { return state_; }
  // Starts since the link was last up for a second.
  unsigned Attempts() const { return attempts_; }

 private:
  enum class Awaits : unsigned char {
    Nothing,      // of the timer
    NextTry,      // until the next attempt, counted from the start of the last one
    Failure,      // nothing: its time is over, and the attempt is still on its way
    SettledLink,  // until a link that is up counts as well
    OwnStart      // until an own start cannot come any more
  };

  Orders Look();
  Orders Try();
  Orders Stopped();
  Orders Started();
  Seconds Delay() const;

  State state_ = KeepLinkStatus::ON;
  bool kova_is_ready_ = false;
  std::optional<Link> link_;  // nothing is known before Kova tells it
  Awaits awaits_ = Awaits::Nothing;
  unsigned attempts_ = 0;
  double jitter_ = 0;
  // Own orders that Kova has not published the effect of yet: what else it publishes is of others.
  // A Kova that is slow may have several stops before it.
  unsigned own_stops_ = 0;
  bool own_start_ = false;
};

}  // namespace zelt
