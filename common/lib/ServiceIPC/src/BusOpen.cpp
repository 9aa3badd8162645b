#include "BusOpen.h"

#include "TimerQueue.h"

#include <poll.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <vector>

namespace zelt {

namespace {

constexpr std::chrono::seconds kConnectTime{2};
constexpr int kRetryMilliseconds = 10;

// The time limits of sd-bus are counted in microseconds.
template <class Duration>
std::uint64_t Microseconds(Duration duration) {
  return static_cast<std::uint64_t>(std::chrono::microseconds(duration).count());
}

// Nobody listens there yet.
bool IsAbsent(int result) {
  return result == -ENOENT || result == -ECONNREFUSED || result == -ECONNRESET;
}

}  // namespace

std::string BusAddress() {
  for (const char* variable : {"ZELT_BUS_ADDRESS", "DBUS_SYSTEM_BUS_ADDRESS"}) {
    const char* value = std::getenv(variable);
    if (value != nullptr && *value != '\0') {
      return value;
    }
  }
  return "unix:path=/run/dbus/system_bus_socket";
}

BusPtr ConnectToBus(const std::string& address, bool wait) {
  const std::string what = "cannot connect to the bus at " + address;
  const auto deadline = TimerQueue::Now() + kConnectTime;
  for (;;) {
    sd_bus* raw = nullptr;
    Check(sd_bus_new(&raw), what);
    BusPtr bus(raw);
    Check(sd_bus_set_address(raw, address.c_str()), what);
    Check(sd_bus_set_bus_client(raw, 1), what);
    Check(sd_bus_set_method_call_timeout(raw, Microseconds(kConnectTime)), what);
    Check(sd_bus_set_close_on_exit(raw, 0), what);  // it would flush without a limit
    int result = sd_bus_start(raw);
    while (result >= 0 && (result = sd_bus_is_ready(raw)) == 0) {
      result = sd_bus_process(raw, nullptr);
      const auto left = deadline - TimerQueue::Now();
      if (result == 0 && left <= std::chrono::microseconds(0)) {
        throw std::runtime_error(what + ": it accepts connections but does not answer");
      }
      if (result == 0) {
        result = sd_bus_wait(raw, Microseconds(left));
      }
    }
    if (result > 0) {
      return bus;
    }
    if (!wait || !IsAbsent(result) || TimerQueue::Now() >= deadline) {
      Check(result, what);
    }
    poll(nullptr, 0, kRetryMilliseconds);
  }
}

SlotPtr AddMatch(sd_bus* bus, const char* rule, sd_bus_message_handler_t handler, void* userdata) {
  sd_bus_slot* slot = nullptr;
  Check(sd_bus_add_match(bus, &slot, rule, handler, userdata),
        "the bus refuses the match " + std::string(rule));
  return SlotPtr(slot);
}

void FillNames(sd_bus* bus, NameMap& names) {
  char** listed = nullptr;
  Check(sd_bus_list_names(bus, &listed, nullptr), "cannot list the names on the bus");
  std::vector<std::string> all;
  for (char** name = listed; *name != nullptr; ++name) {
    all.emplace_back(*name);
    std::free(*name);
  }
  std::free(static_cast<void*>(listed));
  for (const auto& name : all) {
    if (!ServiceNameOf(name)) {
      continue;
    }
    sd_bus_message* raw = nullptr;
    const int result = sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                          "org.freedesktop.DBus", "GetNameOwner", nullptr, &raw,
                                          "s", name.c_str());
    const MessagePtr reply(raw);
    const char* owner = nullptr;
    if (result >= 0 && sd_bus_message_read(raw, "s", &owner) > 0) {
      names.Set(name, owner);
    }  // else it was given up meanwhile
  }
}

std::string OwnName(sd_bus* bus, const std::string& service) {
  const auto bus_name = BusNameOf(service);
  if (!bus_name || service.starts_with(':')) {
    throw std::runtime_error("\"" + service +
                             "\" is no name of a service (letters, digits, '_' and '-', no digit "
                             "first) or of a tool (\"zeltcli-\" and digits)");
  }
  const int result = sd_bus_request_name(bus, bus_name->c_str(), 0);
  if (result == -EEXIST) {
    throw std::runtime_error("the name " + *bus_name + " is taken: " + service +
                             " is running already");
  }
  Check(result, "the bus does not let this process own the name " + *bus_name);
  return *bus_name;
}

}  // namespace zelt
