#pragma once

#include "FirmwareTransfer.h"

#include "orka/RadioProtocol.h"
#include "zelt/ServiceIPC.h"

#include "Kova.pb.h"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

namespace zelt {

// What the handlers remember from one message to the next: a value, which can be copied and set as
// a whole. Service thread only.
//
// Not in it: timers, open files and registrations, which are handles of this process and mean
// nothing in another one; locks; and what stands beside its lock because more threads touch it,
// such as the status of the link.
struct KovaState {
  // Those who wait for an answer of the radio. A newer one takes the place of the older.
  std::optional<std::string> rt_version_requester;
  std::optional<std::string> hardware_id_requester;
  std::optional<std::string> led_brightness_requester;
  std::optional<std::string> get_date_time_requester;
  std::optional<std::string> set_date_time_requester;
  std::optional<ServiceIPC::MessageEnvelope> cli_requester;  // one for all requests of tools

  FirmwareTransfer firmware_transfer;

  // The radio's requests that no service has answered yet.
  std::optional<Kova::FileAccessWriteRequest> pending_file_access_write;
  std::optional<Kova::FileAccessCreateRequest> pending_file_access_create;

  bool radio_connected = false;  // what the radio said last
  // Key and state of the dock notification that was published last; never emptied.
  std::optional<std::pair<std::int32_t, std::uint32_t>> last_dock_status;
  std::optional<orka::SocketSettings> socket_settings;  // empty: the serial port is used
};

}  // namespace zelt
