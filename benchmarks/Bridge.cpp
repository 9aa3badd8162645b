// The bare bridge: what a service between bus and radio costs at least. One thread, one connection
// to the bus, one to the radio; nothing is parsed, checked, queued or logged. It keeps the bus's
// contract: who sends is answered, and who receives is called and may answer.
//
// usage: bench_bridge BUS PORT
#include "Load.h"
#include "Wire.h"

#include <systemd/sd-bus.h>

#include <array>
#include <csignal>
#include <cstring>
#include <iostream>
#include <stdexcept>

namespace bench {
namespace {

constexpr const char* kPath = "/zelt/ServiceIPC";
constexpr const char* kInterface = "zelt.ServiceIPC1";

void Check(int result) {
  if (result < 0) {
    throw std::runtime_error(std::string("the bus: ") + std::strerror(-result));
  }
}

struct Bridge {
  sd_bus* bus = nullptr;
  Stream radio;

  // From the bus to the radio. What else comes is an acknowledgement.
  static int OnMessage(sd_bus_message* message, void* self, sd_bus_error* /*error*/) {
    const char* type = nullptr;
    const void* payload = nullptr;
    std::size_t size = 0;
    if (sd_bus_message_is_method_call(message, kInterface, "Send") <= 0) {
      return 0;
    }
    Check(sd_bus_message_read_basic(message, 's', static_cast<void*>(&type)));
    Check(sd_bus_message_read_array(message, 'y', &payload, &size));
    Stream& radio = static_cast<Bridge*>(self)->radio;
    Put32(radio.Out(), static_cast<std::uint32_t>(size));
    radio.Out().append(static_cast<const char*>(payload), size);
    Check(sd_bus_reply_method_return(message, "b", 1));
    return 1;
  }

  void ToBus(bool publish, View payload) const {
    sd_bus_message* message = nullptr;
    std::uint64_t cookie = 0;
    if (publish) {
      Check(sd_bus_message_new_signal(bus, &message, kPath, kInterface, "Published"));
      Check(sd_bus_message_append_basic(message, 's', kPublishedType));
    } else {
      Check(sd_bus_message_new_method_call(bus, &message, "zelt.service.Collaboration", kPath,
                                           kInterface, "Send"));
      Check(sd_bus_message_append_basic(message, 's', kDownType));
    }
    Check(sd_bus_message_append_array(message, 'y', payload.data(), payload.size()));
    constexpr std::uint64_t kNoRequest = 0;
    if (!publish) {
      Check(sd_bus_message_append_basic(message, 't', &kNoRequest));
    }
    Check(sd_bus_send(bus, message, &cookie));
    sd_bus_message_unref(message);
  }

  int Run() {
    Check(sd_bus_add_filter(bus, nullptr, &Bridge::OnMessage, this));
    Check(sd_bus_request_name(bus, "zelt.service.Kova", 0));
    std::cout << "{}" << std::endl;
    std::array watched = {pollfd{.fd = sd_bus_get_fd(bus), .events = POLLIN, .revents = 0},
                          pollfd{.fd = radio.Fd(), .events = POLLIN, .revents = 0}};
    while (true) {
      int result = 0;
      do {
        result = sd_bus_process(bus, nullptr);
        Check(result);
      } while (result > 0);
      radio.Flush();
      watched[0].events = static_cast<short>(sd_bus_get_events(bus));
      watched[1].events = radio.Events();
      ::poll(watched.data(), watched.size(), -1);
      if ((watched[1].revents & POLLIN) != 0) {
        if (!radio.Fill()) {
          return 0;
        }
        for (View in = radio.In(); in.size() >= kRawHeader; in = radio.In()) {
          const std::uint32_t word = Get32(in, 0);
          const std::size_t size = word & ~kRawPublish;
          if (in.size() - kRawHeader < size) {
            break;
          }
          ToBus((word & kRawPublish) != 0, in.substr(kRawHeader, size));
          radio.Take(kRawHeader + size);
        }
      }
    }
  }
};

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  return bench::RunMain("bench_bridge", [&] {
    if (argc != 3) {
      throw std::runtime_error("usage: bench_bridge BUS PORT");
    }
    std::signal(SIGPIPE, SIG_IGN);
    sd_bus* bus = nullptr;
    bench::Check(sd_bus_new(&bus));
    bench::Check(sd_bus_set_address(bus, argv[1]));
    bench::Check(sd_bus_set_bus_client(bus, 1));
    bench::Check(sd_bus_start(bus));
    const auto port = static_cast<std::uint16_t>(bench::Number(argv[2]));
    return bench::Bridge{.bus = bus, .radio = bench::Stream(bench::ConnectTcp(port))}.Run();
  });
}
