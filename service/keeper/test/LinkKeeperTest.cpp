// What the keeper does about what it hears, in simulated time.
#include "LinkKeeper.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <optional>
#include <random>
#include <sstream>
#include <string>

namespace zelt {
namespace {

// A script has words: "ready", "gone" (Kova), "told:LINK", "LINK" (published), "on", "off", "try",
// and a number of seconds that pass; "up" is a link found up, 5 s ago, "carried" what Kova
// publishes of a stop and a start. Run() gives all orders, each after its time:
// "0:start 1.5:stop+start".
class Script {
 public:
  explicit Script(double jitter) { keeper_.SetJitter(jitter); }

  std::string Run(const std::string& script) {
    std::istringstream words(script);
    for (std::string word; words >> word;) {
      Link link{};
      if (std::isdigit(word[0]) != 0) {
        Pass(std::stod(word));
      } else if (word == "up") {
        Run("ready told:CONNECTED 5");
      } else if (word == "carried") {
        Run("DISCONNECTED CONNECTING");
      } else if (word == "ready" || word == "gone") {
        Take(keeper_.OnKova(word == "ready"));
      } else if (word == "on" || word == "off") {
        Take(keeper_.OnSwitch(word == "on"));
      } else if (word == "try") {
        Take(keeper_.OnHint());
      } else if (word.starts_with("told:") &&
                 Kova::RtConnectionState_Parse(word.substr(5), &link)) {
        Take(keeper_.OnTold(link));
      } else if (Kova::RtConnectionState_Parse(word, &link)) {
        Take(keeper_.OnPublished(link));
      } else {
        ADD_FAILURE() << "no such word: " << word;
      }
    }
    return given_;
  }

  const LinkKeeper& Keeper() const { return keeper_; }

 private:
  using Link = LinkKeeper::Link;

  void Pass(double seconds) {
    const double end = now_ + seconds;
    while (due_ && *due_ <= end) {
      now_ = due_.value_or(end);
      due_.reset();
      Take(keeper_.OnTimer());
    }
    now_ = end;
  }

  void Take(const LinkKeeper::Orders& orders) {
    if (orders.timer) {
      due_ = now_ + orders.timer->count();
    }
    if (orders.stop || orders.start) {
      std::ostringstream text;
      text << (given_.empty() ? "" : " ") << now_ << ":" << (orders.stop ? "stop" : "")
           << (orders.stop && orders.start ? "+" : "") << (orders.start ? "start" : "");
      given_ += text.str();
    }
  }

  LinkKeeper keeper_;
  double now_ = 0;
  std::optional<double> due_;
  std::string given_;
};

struct Case {
  const char* what;
  const char* script;
  const char* orders;
  LinkKeeper::State state = KeepLinkStatus::ON;
};

const Case kCases[] = {
    {"starts once Kova is ready and the link known", "told:DISCONNECTED 9 ready", "9:start"},
    {"starts nothing before it knows the link", "ready 99", ""},
    {"leaves a link alone that is on its way", "ready told:CONNECTING 99", ""},
    {"restarts a lost link at once", "up CONNECTION_IS_LOST", "5:stop+start"},
    {"restarts what it finds lost", "ready told:HANDSHAKE_FAILED", "0:stop+start"},
    {"leaves more and more time",
     "ready told:DISCONNECTED CONNECTING HANDSHAKE_FAILED 1 carried HANDSHAKE_FAILED 2 carried "
     "HANDSHAKE_FAILED 4",
     "0:start 1:stop+start 3:stop+start 7:stop+start"},
    {"counts it from the start of the attempt",
     "up CONNECTION_IS_LOST carried 0.7 HANDSHAKE_FAILED 0.3 carried 2.5 HANDSHAKE_FAILED",
     "5:stop+start 6:stop+start 8.5:stop+start"},
    {"tries again when a start is refused in silence", "ready told:DISCONNECTED 7.5",
     "0:start 1:start 3:start 7:start"},
    {"begins anew after a second up",
     "up CONNECTION_IS_LOST carried CONNECTED 1 CONNECTION_IS_LOST", "5:stop+start 6:stop+start"},
    {"does not after less", "up CONNECTION_IS_LOST carried CONNECTED 0.5 CONNECTION_IS_LOST 2",
     "5:stop+start 6.5:stop+start"},
    {"waits for an upgrade, then restarts",
     "up CONNECTION_IS_LOST carried HANDSHAKE_FAILED UPGRADE_IN_PROCESS 999 CONNECTION_IS_LOST 1",
     "5:stop+start 1005:stop+start"},
    {"holds when a tool stops it", "up DISCONNECTED 999", "", KeepLinkStatus::HELD},
    {"holds when a tool stops its attempts",
     "ready told:DISCONNECTED CONNECTING HANDSHAKE_FAILED 0.5 DISCONNECTED 999", "0:start",
     KeepLinkStatus::HELD},
    {"holds over a restart of Kova", "up DISCONNECTED gone ready told:DISCONNECTED 9", "",
     KeepLinkStatus::HELD},
    {"keeps on when a tool starts it",
     "up DISCONNECTED 9 CONNECTING CONNECTED 9 CONNECTION_IS_LOST", "23:stop+start"},
    {"starts again when switched on", "up DISCONNECTED 9 on", "14:start"},
    {"tries at once when switched on", "ready told:DISCONNECTED CONNECTING HANDSHAKE_FAILED 0.5 on",
     "0:start 0.5:stop+start"},
    {"tries when told that the radio is back",
     "ready told:DISCONNECTED CONNECTING HANDSHAKE_FAILED 0.25 try carried 0.25 try carried 0.25 "
     "CONNECTED try",
     "0:start 0.25:stop+start 0.5:stop+start"},
    {"but not when it is held", "up DISCONNECTED try off try 9", "", KeepLinkStatus::OFF},
    {"takes no stop of its own for another's when Kova is slow",
     "up CONNECTION_IS_LOST 1 carried HANDSHAKE_FAILED DISCONNECTED", "5:stop+start 6:stop+start"},
    {"does nothing when switched off",
     "off up CONNECTION_IS_LOST DISCONNECTED gone ready told:DISCONNECTED 99", "",
     KeepLinkStatus::OFF},
    {"stops what it started while a tool stopped it",
     "ready told:DISCONNECTED DISCONNECTED CONNECTING DISCONNECTED 99", "0:start 0:stop",
     KeepLinkStatus::HELD},
    {"and starts it when switched on at that moment",
     "ready told:DISCONNECTED DISCONNECTED CONNECTING on DISCONNECTED", "0:start 0:stop 0:start"},
    {"takes no later start for that one",
     "ready told:DISCONNECTED 0.5 DISCONNECTED 2 CONNECTING 99", "0:start"},
    {"takes Kova's end for no tool", "up gone DISCONNECTED gone ready told:DISCONNECTED",
     "5:start"},
    {"starts after Kova died", "up gone ready told:DISCONNECTED", "5:start"},
    {"does not believe old news", "up told:DISCONNECTED 9", ""},
};

TEST(LinkKeeper, DoesWhatTheTableSays) {
  for (const Case& row : kCases) {
    SCOPED_TRACE(row.what);
    Script script(0);
    EXPECT_EQ(script.Run(row.script), row.orders);
    EXPECT_EQ(script.Keeper().GetState(), row.state);
  }
}

// Kova and a radio that is switched off and on, in steps of 10 ms. While the radio is off, a port
// is silent: Kova greets it each second, for 30 s; or a start is refused at once.
class Camera {
 public:
  Camera(bool refuses, double jitter) : refuses_(refuses) {
    keeper_.SetJitter(jitter);
    Carry(keeper_.OnKova(true));
    Carry(keeper_.OnTold(link_));
  }

  void Pass(double seconds) {
    for (const long end = now_ + std::lround(seconds * 100); now_ < end; ++now_) {
      Step();
    }
  }
  // `told`: the keeper hears of it. Gives the seconds until the link is up.
  double SwitchOn(bool told) {
    is_on_ = true;
    if (link_ == Kova::CONNECTED) {
      Tell(Kova::CONNECTION_IS_LOST);  // it knows nothing of that link
    }
    if (told) {
      Carry(keeper_.OnHint());
    }
    const long before = now_;
    while (link_ != Kova::CONNECTED) {
      Pass(0.01);
    }
    return static_cast<double>(now_ - before) / 100;
  }
  void SwitchOff() {
    is_on_ = false;
    silent_since_ = now_;
  }
  const LinkKeeper& Keeper() const { return keeper_; }

 private:
  void Step() {
    if (due_ && now_ >= *due_) {
      due_.reset();
      Carry(keeper_.OnTimer());
    }
    if (link_ == Kova::CONNECTING && is_on_ && (now_ - started_) % 100 == 0) {
      Tell(Kova::CONNECTED);
    } else if (link_ == Kova::CONNECTING && (refuses_ || now_ - started_ >= 3000)) {
      Tell(Kova::HANDSHAKE_FAILED);
    } else if (link_ == Kova::CONNECTED && !is_on_ && now_ - silent_since_ >= 250) {
      Tell(Kova::CONNECTION_IS_LOST);
    }
  }
  void Tell(LinkKeeper::Link link) {
    link_ = link;
    Carry(keeper_.OnPublished(link));
  }
  void Carry(const LinkKeeper::Orders& orders) {
    if (orders.timer) {
      due_ = now_ + std::lround(orders.timer->count() * 100);
    }
    if (orders.stop) {
      Tell(Kova::DISCONNECTED);
    }
    if (orders.start) {
      started_ = now_;
      Tell(Kova::CONNECTING);
    }
  }

  const bool refuses_;
  LinkKeeper keeper_;
  LinkKeeper::Link link_ = Kova::DISCONNECTED;
  bool is_on_ = false;
  long now_ = 0;
  long started_ = 0;
  long silent_since_ = 0;
  std::optional<long> due_;
};

TEST(LinkKeeper, HasTheLinkUpSoonAfterTheRadioIsBack) {
  for (const bool refuses : {false, true}) {
    SCOPED_TRACE(refuses ? "refuses" : "is silent");
    std::mt19937 chance(42);
    std::uniform_real_distribution<> part;
    double longest = 0;
    for (const bool told : {false, true}) {
      Camera camera(refuses, part(chance));
      for (int times = 0; times < 100; ++times) {
        camera.Pass(part(chance) * 120);
        const double took = camera.SwitchOn(told);
        EXPECT_LE(took, told || !refuses ? 2 : 30) << "time " << times;
        longest = std::max(longest, took);
        camera.Pass(4 + 20 * part(chance));
        camera.SwitchOff();
      }
    }
    EXPECT_GE(longest, refuses ? 20 : 0.5);  // as documented, and not because nothing was tried
  }
}

TEST(LinkKeeper, TriesForAnHourAndNotTooOften) {
  for (const bool refuses : {false, true}) {
    for (const double jitter : {0.0, 1.0}) {
      Camera camera(refuses, jitter);
      camera.SwitchOn(false);
      camera.Pass(5);
      camera.SwitchOff();
      camera.Pass(3600);
      EXPECT_LE(camera.Keeper().Attempts(), 130U) << refuses << " " << jitter;
      EXPECT_GE(camera.Keeper().Attempts(), 119U) << refuses << " " << jitter;
      EXPECT_EQ(camera.Keeper().GetState(), KeepLinkStatus::ON);
    }
  }
}

}  // namespace
}  // namespace zelt
