#include "BusObject.h"

#include "BusLimits.h"
#include "LogCategory.h"
#include "zelt/LogClient.h"

#include <unistd.h>

#include <utility>

namespace zelt {

namespace {

constexpr std::size_t kMaxLevelChanges = 8;  // at a time

bool Is(const char* text, std::string_view expected) {
  return text != nullptr && text == expected;
}

}  // namespace

const sd_bus_vtable BusObject::kVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_NAMES(
        "Send", "sayt", SD_BUS_PARAM(type) SD_BUS_PARAM(payload) SD_BUS_PARAM(request), "b",
        SD_BUS_PARAM(taken), &Entry<&BusObject::OnSend>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES(
        "Respond", "tsay", SD_BUS_PARAM(request) SD_BUS_PARAM(type) SD_BUS_PARAM(payload), "b",
        SD_BUS_PARAM(taken), &Entry<&BusObject::OnRespond>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL_WITH_NAMES("Published", "say", SD_BUS_PARAM(topic) SD_BUS_PARAM(payload), 0),
    SD_BUS_SIGNAL_WITH_NAMES("Subscribed", "s", SD_BUS_PARAM(topic), 0),
    SD_BUS_PROPERTY("State", "u", &BusObject::GetState, 0, SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    // Only for root and for the user that the service runs as. OnAnyCall sees to that, since
    // sd-bus would ask the bus about the caller and wait for the answer.
    SD_BUS_WRITABLE_PROPERTY("LogLevel", "u", &BusObject::GetLogLevel, &BusObject::SetLogLevel, 0,
                             0),
    SD_BUS_VTABLE_END,
};

BusObject::BusObject(const NameMap& names, LineLimit& lines, Hooks hooks)
    : names_(names), lines_(lines), hooks_(std::move(hooks)) {}

void BusObject::Attach(sd_bus* bus) {
  sd_bus_slot* slot = nullptr;
  Check(sd_bus_add_object_vtable(bus, &slot, kObjectPath, kInterface, kVtable, this),
        "cannot put the object on the bus");
  vtable_slot_.reset(slot);
  Check(sd_bus_add_object(bus, &slot, kObjectPath, &Entry<&BusObject::OnAnyCall>, this),
        "cannot put the object on the bus");
  object_slot_.reset(slot);
  bus_ = bus;
}

void BusObject::Close() {
  level_changes_.clear();
  vtable_slot_.reset();
  object_slot_.reset();
  bus_ = nullptr;
}

// ---------------------------------------------------------------------------------------------
// Messages and answers

int BusObject::OnSend(sd_bus_message* message, sd_bus_error* error) {
  const char* type = "";
  std::string_view payload;
  std::uint64_t request = 0;
  if (sd_bus_message_read(message, "s", &type) < 0 || ReadBytes(message, payload) < 0 ||
      sd_bus_message_read(message, "t", &request) < 0) {
    return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS, "Send takes (s, ay, t)");
  }
  const std::string connection = SenderOf(message);
  if (const auto wrong = WhatIsWrong(type, payload); !wrong.empty()) {
    lines_.Complain("Refused a message from [" + names_.SenderName(connection) + "]: " + wrong);
    return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS, wrong.c_str());
  }
  const ServiceIPC::MessageEnvelope envelope{names_.SenderName(connection), type, connection,
                                             request};
  const auto delivery = hooks_.on_send(envelope, payload);
  if (delivery.taken == Delivery::Taken::Busy) {
    return sd_bus_error_set(error, kBusyError, delivery.why.c_str());
  }
  return sd_bus_reply_method_return(message, "b", delivery.taken == Delivery::Taken::Yes ? 1 : 0);
}

int BusObject::OnRespond(sd_bus_message* message, sd_bus_error* error) {
  const char* type = "";
  std::string_view payload;
  std::uint64_t request = 0;
  if (sd_bus_message_read(message, "ts", &request, &type) < 0 || ReadBytes(message, payload) < 0) {
    return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS, "Respond takes (t, s, ay)");
  }
  const std::string connection = SenderOf(message);
  if (const auto wrong = WhatIsWrong(type, payload); !wrong.empty()) {
    lines_.Complain("Refused a response from [" + names_.SenderName(connection) + "]: " + wrong);
    return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS, wrong.c_str());
  }
  const auto accepted = hooks_.on_respond(connection, request, type, payload);
  if (!accepted) {
    lines_.Complain("Refused response [" + std::string(type) + "] from [" +
                    names_.SenderName(connection) + "]: " + accepted.error());
  }
  return sd_bus_reply_method_return(message, "b", accepted ? 1 : 0);
}

// ---------------------------------------------------------------------------------------------
// Properties

void BusObject::TellState(std::uint32_t state) {
  state_ = state;  // which is what sd-bus reads for the signal
  if (bus_ == nullptr) {
    return;
  }
  const int result =
      sd_bus_emit_properties_changed(bus_, kObjectPath, kInterface, "State", nullptr);
  if (result < 0) {
    ZELT_LOG(kLogError, kIpcLogCategory) << "Cannot tell the state: " << ErrorText(result);
  }
}

int BusObject::GetState(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                        void* self, sd_bus_error*) noexcept {
  return sd_bus_message_append(reply, "u", static_cast<BusObject*>(self)->state_);
}

int BusObject::GetLogLevel(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                           void*, sd_bus_error*) noexcept {
  return sd_bus_message_append(reply, "u", static_cast<std::uint32_t>(LogClient::Level()));
}

// Sees every call of the object before sd-bus does, and takes those that set the log level.
int BusObject::OnAnyCall(sd_bus_message* call, sd_bus_error* error) {
  const char* interface = nullptr;
  const char* property = nullptr;
  if (sd_bus_message_is_method_call(call, "org.freedesktop.DBus.Properties", "Set") <= 0) {
    return 0;
  }
  if (sd_bus_message_read(call, "ss", &interface, &property) < 0 || !Is(interface, kInterface) ||
      !Is(property, "LogLevel")) {
    sd_bus_message_rewind(call, 1);
    return 0;
  }
  std::uint32_t level = 0;
  if (sd_bus_message_read(call, "v", "u", &level) < 0 || level > kLogVerbose) {
    return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS, "LogLevel is 0 to 8");
  }
  if (level_changes_.size() >= kMaxLevelChanges) {
    return sd_bus_error_set(error, SD_BUS_ERROR_LIMITS_EXCEEDED, "LogLevel is being set already");
  }
  const auto change = level_changes_.emplace(level_changes_.end());
  sd_bus_slot* slot = nullptr;
  const int result = sd_bus_call_method_async(
      bus_, &slot, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
      "GetConnectionUnixUser", &BusObject::OnUser, &*change, "s", SenderOf(call).c_str());
  if (result < 0) {
    level_changes_.erase(change);
    return result;
  }
  change->self = this;
  change->position = change;
  change->call.reset(sd_bus_message_ref(call));
  change->level = level;
  change->slot.reset(slot);
  return 1;  // it is answered later
}

// Everything that sets the level comes by OnAnyCall.
int BusObject::SetLogLevel(sd_bus*, const char*, const char*, const char*, sd_bus_message*, void*,
                           sd_bus_error* error) noexcept {
  return sd_bus_error_set(error, SD_BUS_ERROR_ACCESS_DENIED, nullptr);
}

int BusObject::OnUser(sd_bus_message* reply, void* change, sd_bus_error*) noexcept {
  auto& pending = *static_cast<LevelChange*>(change);
  BusObject& self = *pending.self;
  std::list<LevelChange> ended;
  ended.splice(ended.begin(), self.level_changes_, pending.position);
  std::uint32_t user = 0;
  const bool is_known = sd_bus_message_is_method_error(reply, nullptr) == 0 &&
                        sd_bus_message_read(reply, "u", &user) >= 0;
  sd_bus_message* const call = pending.call.get();
  if (!is_known || (user != 0 && user != geteuid())) {
    sd_bus_reply_method_errorf(call, SD_BUS_ERROR_ACCESS_DENIED,
                               "Only root and the user of this service may set LogLevel");
    return 0;
  }
  // Written whatever the level is, before or after.
  LogClient(__FILE__, "SetLogLevel", __LINE__, kLogInfo, kIpcLogCategory)
      << "Log level set from " << LogClient::Level() << " to " << pending.level << " by ["
      << self.names_.SenderName(SenderOf(call)) << "], user " << user;
  LogClient::SetLevel(static_cast<int>(pending.level));
  sd_bus_reply_method_return(call, nullptr);
  return 0;
}

}  // namespace zelt
