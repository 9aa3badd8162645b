#include "BusWire.h"

#include "BusLimits.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace zelt {

namespace {

using Outcome = ServiceIPC::Outcome;

struct ErrorName {
  std::string_view name;
  Outcome outcome;
};
// What stands in an error reply; every other name means that the peer did not take the message.
constexpr std::array kErrorNames = {
    ErrorName{kBusyError, Outcome::Busy},
    ErrorName{SD_BUS_ERROR_NAME_HAS_NO_OWNER, Outcome::NoSuchService},
    ErrorName{SD_BUS_ERROR_SERVICE_UNKNOWN, Outcome::NoSuchService},
    ErrorName{SD_BUS_ERROR_ACCESS_DENIED, Outcome::NotPermitted},
    ErrorName{SD_BUS_ERROR_NO_REPLY, Outcome::TimedOut},
    ErrorName{SD_BUS_ERROR_TIMEOUT, Outcome::TimedOut},
    ErrorName{SD_BUS_ERROR_DISCONNECTED, Outcome::Disconnected},
    ErrorName{SD_BUS_ERROR_INVALID_ARGS, Outcome::Invalid},
    ErrorName{SD_BUS_ERROR_LIMITS_EXCEEDED, Outcome::Invalid},
};

}  // namespace

int NewCall(sd_bus* bus, const std::string& connection, const Letter& letter, MessagePtr& message) {
  const bool asks_state = letter.kind == Letter::Kind::AskState;
  const char* member = letter.kind == Letter::Kind::Send ? "Send" : "Respond";
  sd_bus_message* raw = nullptr;
  int result = sd_bus_message_new_method_call(
      bus, &raw, connection.c_str(), kObjectPath,
      asks_state ? "org.freedesktop.DBus.Properties" : kInterface, asks_state ? "Get" : member);
  message.reset(raw);
  if (result >= 0) {
    result = sd_bus_message_set_auto_start(raw, 0);
  }
  if (result >= 0 && asks_state) {
    return sd_bus_message_append(raw, "ss", kInterface, "State");
  }
  if (result >= 0 && letter.kind == Letter::Kind::Respond) {
    result = sd_bus_message_append(raw, "t", letter.request);
  }
  if (result >= 0) {
    result = sd_bus_message_append(raw, "s", letter.type.c_str());
  }
  if (result >= 0) {
    result = sd_bus_message_append_array(raw, 'y', letter.payload.data(), letter.payload.size());
  }
  if (result >= 0 && letter.kind == Letter::Kind::Send) {
    result = sd_bus_message_append(raw, "t", letter.request);
  }
  return result;
}

int NewSignal(sd_bus* bus, const Broadcast& broadcast, MessagePtr& message) {
  sd_bus_message* raw = nullptr;
  int result = sd_bus_message_new_signal(bus, &raw, kObjectPath, kInterface, "Published");
  message.reset(raw);
  if (result >= 0) {
    result = sd_bus_message_append(raw, "s", broadcast.topic.c_str());
  }
  if (result >= 0) {
    result =
        sd_bus_message_append_array(raw, 'y', broadcast.payload.data(), broadcast.payload.size());
  }
  return result;
}

CallResult ReadReply(Letter::Kind kind, sd_bus_message* reply) {
  if (const auto* error = sd_bus_message_get_error(reply)) {
    const auto* known = std::ranges::find(kErrorNames, error->name, &ErrorName::name);
    return {known == kErrorNames.end() ? Outcome::NotTaken : known->outcome,
            error->message == nullptr ? error->name : error->message};
  }
  if (kind == Letter::Kind::AskState) {
    std::uint32_t state = 0;
    if (sd_bus_message_read(reply, "v", "u", &state) < 0) {
      return {Outcome::NotTaken, "its State is no unsigned number"};
    }
    return {Outcome::Delivered, "", state};
  }
  int taken = 0;
  if (sd_bus_message_read(reply, "b", &taken) < 0 || taken == 0) {
    return {Outcome::NotTaken, kind == Letter::Kind::Send
                                   ? "the receiver has no callback for it, or refuses this sender"
                                   : "the asker does not await it any more"};
  }
  return {Outcome::Delivered, ""};
}

}  // namespace zelt
