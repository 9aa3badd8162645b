#pragma once

#include "Letter.h"
#include "SdBus.h"

#include <string>

namespace zelt {

// How letters and broadcasts look on the bus. On the loop's thread; results below 0 are those of
// sd-bus.

// Makes the call that brings `letter` to `connection`.
int NewCall(sd_bus* bus, const std::string& connection, const Letter& letter, MessagePtr& message);

// Makes the signal of a published message.
int NewSignal(sd_bus* bus, const Broadcast& broadcast, MessagePtr& message);

// Reads what came back for a letter of this kind: from the receiver or, in its place, from the bus.
CallResult ReadReply(Letter::Kind kind, sd_bus_message* reply);

}  // namespace zelt
