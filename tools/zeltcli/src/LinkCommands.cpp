#include "CommandFunctions.h"
#include "Session.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string_view>
#include <utility>

namespace zelt::cli {
namespace {

constexpr Seconds kStateTimeout{1.0};
constexpr std::string_view kUpgrade = "UPGRADE_IN_PROCESS";

// Follows the link's status: Kova sends it to a new subscriber, then publishes every change.
class Link {
 public:
  Link(const Cli& cli, Clock::time_point deadline) : cli_(cli), deadline_(deadline) {
    StateOf(kKova, kStateTimeout);
  }
  explicit Link(const Cli& cli) : Link(cli, Deadline(cli)) {}

  // The status as Kova tells it when asked, after everything that was sent to it before.
  std::int64_t Ask() {
    session_.Subscribe(kLinkStatus, kKova);
    while (true) {
      const auto [status, published] = Next();
      if (!published) {
        return status;
      }
    }
  }

  void Order(const char* action) {
    const auto message = cli_.types.FromJson(cli_.types.Find("Kova.RtConnectionAction"),
                                             JsonObject().Add("action", action).Str());
    session_.Send(kKova, message.Type(), message.Bytes());
  }

  // Waits until the status is one of `ends`.
  std::int64_t WaitFor(std::initializer_list<std::string_view> ends, std::int64_t status) {
    while (std::ranges::find(ends, Name(status)) == ends.end()) {
      status = Next().first;
    }
    return status;
  }

  std::string Name(std::int64_t status) const {
    const auto* const value = cli_.types.Find(kLinkStatus)
                                  .FindFieldByName("status")
                                  ->enum_type()
                                  ->FindValueByNumber(static_cast<int>(status));
    return value == nullptr ? "UNKNOWN (" + std::to_string(status) + ")" : value->name();
  }

  void Result(std::int64_t status, const std::string& remark = {}) const {
    cli_.output.Result("the link is " + Name(status) + remark,
                       JsonObject().Add("status", Name(status)).Add("value", status));
  }

 private:
  std::pair<std::int64_t, bool> Next() {
    while (const auto message = session_.Next(deadline_)) {
      if (const auto value = message->type == kLinkStatus && message->sender == kKova
                                 ? cli_.types.Parse(message->type, message->payload)
                                 : std::nullopt) {
        last_ = value->Number("status");
        return {*last_, message->published};
      }
    }
    throw CliError(Exit::TimedOut,
                   last_ ? "the link is still " + Name(*last_)
                         : std::string("Kova did not tell the status of the link"),
                   "--timeout SECONDS waits longer");
  }

  const Cli& cli_;
  const Clock::time_point deadline_;
  Session session_;
  std::optional<std::int64_t> last_;
};

}  // namespace

void LinkStatus(const Cli& cli) {
  Link link(cli);
  link.Result(link.Ask());
}

void LinkUp(const Cli& cli) {
  Link link(cli);
  std::int64_t status = link.Ask();
  const std::string before = link.Name(status);
  if (before == "CONNECTED") {
    link.Result(status, "; it was up already");
    return;
  }
  // A radio that upgrades itself is left alone; IG_FAILED passes into CONNECTED by itself.
  if (before != "CONNECTING" && before != "IG_FAILED" && before != kUpgrade) {
    if (before != "DISCONNECTED") {
      link.Order("STOP");  // Kova starts only what is stopped
    }
    link.Order("START");
    // What Kova tells after the start tells whether it was refused. Asked once, it may still tell
    // of before: a service that becomes ready has all subscribers announced again, this one too.
    link.Ask();
    status = link.Ask();
    if (link.Name(status) == "DISCONNECTED") {
      throw CliError(Exit::Failed, "Kova could not start the link",
                     "set the radio's address with zeltcli socket set, or check the serial port; "
                     "Kova's log tells why");
    }
  }
  status = link.WaitFor(
      {"CONNECTED", "HANDSHAKE_FAILED", "CONNECTION_IS_LOST", "DISCONNECTED", kUpgrade}, status);
  if (link.Name(status) != "CONNECTED") {
    throw CliError(Exit::Failed, "the link is " + link.Name(status),
                   link.Name(status) == kUpgrade
                       ? "the radio upgrades itself, and zeltcli link watch shows when it is done; "
                         "zeltcli link down, then zeltcli link up starts afresh all the same"
                       : "is there a radio at the other end?");
  }
  link.Result(status);
}

void LinkDown(const Cli& cli) {
  Link link(cli);
  link.Order("STOP");
  link.Result(link.WaitFor({"DISCONNECTED"}, link.Ask()));
}

void LinkKeep(const Cli& cli) {
  std::string action = cli.arguments.name;
  std::ranges::transform(action, action.begin(), [](unsigned char c) { return std::toupper(c); });
  StateOf(kKeeper, kStateTimeout);
  Session session;
  const auto request = cli.types.FromJson(cli.types.Find("zelt.KeepLinkRequest"),
                                          JsonObject().Add("action", action).Str());
  const Incoming answer =
      session.Request(kKeeper, request.Type(), request.Bytes(), AnswerTime(cli));
  const auto status = cli.types.Parse(kKeepStatus, answer.payload);
  if (answer.type != kKeepStatus || !status) {
    throw CliError(Exit::Failed, "Keeper answered something else", "");
  }
  const std::int64_t state = status->Number("state");
  const std::int64_t attempts = status->Number("attempts");
  std::string text = "off: the link is left as it is";
  if (state == 1) {
    text = "held: the link was stopped on purpose, and stays down until it is started";
  } else if (state == 2) {
    text = "on: the link is kept up" +
           (attempts > 0 ? ", attempt " + std::to_string(attempts) : std::string());
  }
  cli.output.Result(
      text, JsonObject().Add("state", text.substr(0, text.find(':'))).Add("attempts", attempts));
}

std::string LinkState(const Cli& cli) {
  try {
    const auto soon = Clock::now() + std::chrono::duration_cast<Clock::duration>(kStateTimeout);
    Link link(cli, std::min(Deadline(cli), soon));
    return link.Name(link.Ask());
  } catch (const CliError& error) {
    if (error.exit != Exit::TimedOut) {
      throw;
    }
    return {};
  }
}

bool IsDown(std::string_view link_state) {
  return link_state == "DISCONNECTED" || link_state == "HANDSHAKE_FAILED" ||
         link_state == "CONNECTION_IS_LOST";
}

}  // namespace zelt::cli
