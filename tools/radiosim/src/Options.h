#pragma once

#include "Radio.h"
#include "orka/codec/LinkControl.h"

#include <chrono>
#include <cstdint>
#include <string>

namespace radiosim {

struct Options {
  std::string listen;     // "ADDRESS:PORT", port 0 for any; or
  std::string pty_link;   // the symbolic link to be kept to a pseudo-terminal
  std::string port_file;  // gets the port, when it listens
  std::string name = "radiosim";
  bool in_service = true;
  std::uint16_t max_transfer_size = 0;  // 0: 32768 on TCP, 4096 on a pseudo-terminal
  orka::qrx::DeviceDescriptors descriptors = {{0x00, 1}, {0x17, 90}, {0x18, 1}, {0x24, 3}};
  std::chrono::milliseconds restart_time{1000};  // how long it is away when it restarts
  bool verbose = false;                          // also keep-alives and single chunks
  Radio::Settings radio;
};

}  // namespace radiosim
