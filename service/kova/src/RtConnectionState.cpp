#include "RtConnectionState.h"

namespace zelt {

std::string RtConnectionStateText(RtConnectionState state) {
  switch (state) {
    case RtConnectionState::Disconnected:
      return "DISCONNECTED";
    case RtConnectionState::Connecting:
      return "CONNECTING";
    case RtConnectionState::ConnectionIsLost:
      return "CONNECTION_IS_LOST";
    case RtConnectionState::HandshakeFailed:
      return "HANDSHAKE_FAILED";
    case RtConnectionState::Connected:
      return "CONNECTED";
    case RtConnectionState::UpgradeInProcess:
      return "UPGRADE_IN_PROCESS";
    case RtConnectionState::IgFailed:
      return "IG_FAILED";
  }
  return "Unknown status";
}

}  // namespace zelt
