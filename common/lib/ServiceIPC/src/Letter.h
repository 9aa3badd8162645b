#pragma once

#include "zelt/ServiceIPC.h"
#include "zelt/UniqueFunction.h"

#include <cstdint>
#include <optional>
#include <string>

namespace zelt {

// How a call of a peer ended.
struct CallResult {
  ServiceIPC::Outcome outcome = ServiceIPC::Outcome::Disconnected;
  std::string error{};      // for a human; empty when it went well
  std::uint32_t state = 0;  // what a question for the state found
};

inline bool IsGood(ServiceIPC::Outcome outcome) {
  return outcome == ServiceIPC::Outcome::Delivered || outcome == ServiceIPC::Outcome::Answered;
}

// One call of one receiver on its way out.
struct Letter {
  enum class Kind : std::uint8_t { Send, Respond, AskState };

  Kind kind = Kind::Send;
  std::string receiver;       // as the sender called it, for the log
  std::string type;           // empty for AskState
  std::string payload;        // empty for AskState
  std::uint64_t request = 0;  // Send: how an answer will refer to it, 0: none is awaited
                              // Respond: the request that this answers
  std::uint64_t id = 0;       // by which it can be withdrawn; 0: it never is
  // Told once how it ended; not told when the letter was withdrawn. Empty: a failure is logged.
  UniqueFunction<void(const CallResult&)> done{};
};

// What is told to everybody: a published message or, with a state, a change of the own state.
struct Broadcast {
  std::string topic;
  std::string payload;
  std::optional<std::uint32_t> state;
};

}  // namespace zelt
