// The smallest service that keeps the bus's contract: it owns a name, has the object with its
// state, and says that it is ready. What Kova's start is compared with.
//
// usage: bench_minimal BUS
#include <systemd/sd-bus.h>

#include <array>
#include <cstdint>
#include <cstdlib>

namespace {

constexpr const char* kPath = "/zelt/ServiceIPC";
constexpr const char* kInterface = "zelt.ServiceIPC1";
constexpr std::uint32_t kReady = 5;

int GetState(sd_bus* /*bus*/, const char* /*path*/, const char* /*interface*/,
             const char* /*property*/, sd_bus_message* reply, void* /*data*/,
             sd_bus_error* /*error*/) {
  return sd_bus_message_append_basic(reply, 'u', &kReady);
}

void Check(int result) {
  if (result < 0) {
    std::exit(1);
  }
}

}  // namespace

int main(int argc, char** argv) {
  static const std::array kTable = {
      sd_bus_vtable SD_BUS_VTABLE_START(0),
      sd_bus_vtable SD_BUS_PROPERTY("State", "u", &GetState, 0,
                                    SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
      sd_bus_vtable SD_BUS_VTABLE_END,
  };
  sd_bus* bus = nullptr;
  Check(sd_bus_new(&bus));
  Check(sd_bus_set_address(bus, argc == 2 ? argv[1] : ""));
  Check(sd_bus_set_bus_client(bus, 1));
  Check(sd_bus_start(bus));
  Check(sd_bus_add_object_vtable(bus, nullptr, kPath, kInterface, kTable.data(), nullptr));
  Check(sd_bus_request_name(bus, "zelt.service.Minimal", 0));
  Check(sd_bus_emit_properties_changed(bus, kPath, kInterface, "State", nullptr));
  while (true) {
    while (sd_bus_process(bus, nullptr) > 0) {
    }
    Check(sd_bus_wait(bus, UINT64_MAX));
  }
}
