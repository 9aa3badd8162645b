#pragma once

#include "BusNames.h"
#include "SdBus.h"

#include <string>

namespace zelt {

// Opening a connection to the bus: these wait for the bus, and are called before a loop runs it.
// Each throws std::runtime_error with the address or the name and the reason.

// Returns where the bus is: ZELT_BUS_ADDRESS, else DBUS_SYSTEM_BUS_ADDRESS, else the system bus.
std::string BusAddress();

// Connects; the bus has 2 s for it. With `wait`, it may also begin to listen within that time, as
// when bus and service are started together.
BusPtr ConnectToBus(const std::string& address, bool wait);

// Has `handler` called for the signals that `rule` describes, for as long as the slot lives.
SlotPtr AddMatch(sd_bus* bus, const char* rule, sd_bus_message_handler_t handler, void* userdata);

// Reads who owns what. After the match for changes: one on the way is then told, and is told after
// what is read here.
void FillNames(sd_bus* bus, NameMap& names);

// Takes the name of a service or tool for this connection and returns it as the bus has it.
std::string OwnName(sd_bus* bus, const std::string& service);

}  // namespace zelt
