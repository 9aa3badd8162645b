#pragma once

#include <cstdint>
#include <string>

namespace zelt {

// The status of the link to the radio, as it is published.
//
//   DISCONNECTED --start--> CONNECTING             any --handshake completed--> CONNECTED
//   any --handshake failed--> HANDSHAKE_FAILED     any --link lost--> CONNECTION_IS_LOST
//   any --radio upgrades--> UPGRADE_IN_PROCESS     any --IG failed--> IG_FAILED -> CONNECTED
//   any --stop--> DISCONNECTED
//
// Only a stop leads back to DISCONNECTED, and only there a start is accepted.
enum class RtConnectionState : std::uint32_t {
  Disconnected = 0,
  Connecting = 1,
  ConnectionIsLost = 2,
  HandshakeFailed = 3,
  Connected = 4,
  UpgradeInProcess = 5,
  IgFailed = 6,
};

// For log lines; never parsed.
std::string RtConnectionStateText(RtConnectionState state);

}  // namespace zelt
