#pragma once

#include "BusNames.h"
#include "LineLimit.h"
#include "Receivers.h"
#include "SdBus.h"

#include <cstdint>
#include <expected>
#include <list>
#include <string>
#include <string_view>

namespace zelt {

// The object of this process on the bus: what others call, and the properties that they read.
//
// On the loop's thread only, Attach() apart. All parameters must outlive this object.
class BusObject {
 public:
  struct Hooks {
    // A message for this process.
    UniqueFunction<Delivery(const ServiceIPC::MessageEnvelope&, std::string_view payload)> on_send;
    // An answer to one of its requests; the error says why it is not awaited.
    UniqueFunction<std::expected<void, std::string>(const std::string& connection,
                                                    std::uint64_t request, std::string_view type,
                                                    std::string_view payload)>
        on_respond;
  };

  BusObject(const NameMap& names, LineLimit& lines, Hooks hooks);
  BusObject(const BusObject&) = delete;
  BusObject& operator=(const BusObject&) = delete;

  // Puts the object on a connection. Once, before the loop runs. Throws std::runtime_error.
  void Attach(sd_bus* bus);

  // Changes the property State and tells everybody. Each value is told, whatever follows it.
  void TellState(std::uint32_t state);

  // Takes the object off the bus.
  void Close();

 private:
  // Who wants to set the log level, while the bus is asked for its user.
  struct LevelChange {
    BusObject* self = nullptr;
    std::list<LevelChange>::iterator position;
    MessagePtr call;
    std::uint32_t level = 0;
    SlotPtr slot;
  };

  int OnSend(sd_bus_message* message, sd_bus_error* error);
  int OnRespond(sd_bus_message* message, sd_bus_error* error);
  int OnAnyCall(sd_bus_message* call, sd_bus_error* error);

  template <int (BusObject::*handler)(sd_bus_message*, sd_bus_error*)>
  static int Entry(sd_bus_message* message, void* self, sd_bus_error* error) noexcept {
    return (static_cast<BusObject*>(self)->*handler)(message, error);
  }
  static int OnUser(sd_bus_message* reply, void* change, sd_bus_error* error) noexcept;
  static int GetState(sd_bus*, const char* path, const char* interface, const char* property,
                      sd_bus_message* reply, void* self, sd_bus_error* error) noexcept;
  static int GetLogLevel(sd_bus*, const char* path, const char* interface, const char* property,
                         sd_bus_message* reply, void* self, sd_bus_error* error) noexcept;
  static int SetLogLevel(sd_bus*, const char* path, const char* interface, const char* property,
                         sd_bus_message* value, void* self, sd_bus_error* error) noexcept;
  static const sd_bus_vtable kVtable[];

  const NameMap& names_;
  LineLimit& lines_;
  Hooks hooks_;
  sd_bus* bus_ = nullptr;
  SlotPtr vtable_slot_;
  SlotPtr object_slot_;
  std::uint32_t state_ = 0;  // as it was told
  std::list<LevelChange> level_changes_;
};

}  // namespace zelt
