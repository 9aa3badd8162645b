#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace zelt {

// Owners of what sd-bus and sd-event hand out. Their reference counts are not atomic: everything
// that belongs to one connection is released on its IPC thread, or when that thread is gone.
template <class T, T* (*unref)(T*)>
struct Unreferencer {
  void operator()(T* object) const { unref(object); }
};
using BusPtr = std::unique_ptr<sd_bus, Unreferencer<sd_bus, sd_bus_unref>>;
using SlotPtr = std::unique_ptr<sd_bus_slot, Unreferencer<sd_bus_slot, sd_bus_slot_unref>>;
using MessagePtr =
    std::unique_ptr<sd_bus_message, Unreferencer<sd_bus_message, sd_bus_message_unref>>;
using EventPtr = std::unique_ptr<sd_event, Unreferencer<sd_event, sd_event_unref>>;
using EventSourcePtr =
    std::unique_ptr<sd_event_source, Unreferencer<sd_event_source, sd_event_source_unref>>;

struct BusError {
  BusError() = default;
  BusError(const BusError&) = delete;
  BusError& operator=(const BusError&) = delete;
  ~BusError() { sd_bus_error_free(&error); }

  sd_bus_error error{};
};

// Returns the connection that sent a received message; empty when the bus did not say.
inline std::string SenderOf(sd_bus_message* message) {
  const char* sender = sd_bus_message_get_sender(message);
  return sender == nullptr ? "" : sender;
}

// A name that got, lost or changed its owner.
struct OwnerChange {
  std::string name;
  std::string before;  // a unique name; empty: nobody
  std::string now;
};

// Reads a NameOwnerChanged. Nothing when it is malformed or not from the bus: anybody can send us
// one.
inline std::optional<OwnerChange> ReadOwnerChange(sd_bus_message* message) {
  const char* name = nullptr;
  const char* before = nullptr;
  const char* now = nullptr;
  if (SenderOf(message) != "org.freedesktop.DBus" ||
      sd_bus_message_read(message, "sss", &name, &before, &now) < 0) {
    return std::nullopt;
  }
  return OwnerChange{name, before, now};
}

// Reads an array of bytes; the view lives as long as the message, and is never a null pointer,
// which parsers would have to treat apart.
inline int ReadBytes(sd_bus_message* message, std::string_view& bytes) {
  const void* data = nullptr;
  std::size_t size = 0;
  const int result = sd_bus_message_read_array(message, 'y', &data, &size);
  bytes = result < 0 || size == 0 ? std::string_view("")
                                  : std::string_view(static_cast<const char*>(data), size);
  return result;
}

inline std::string ErrorText(int result) {
  return std::strerror(result < 0 ? -result : result);
}

// Passes a result through; a negative one throws std::runtime_error with what was tried and why
// it failed.
inline int Check(int result, const std::string& what) {
  if (result < 0) {
    throw std::runtime_error(what + ": " + ErrorText(result));
  }
  return result;
}

}  // namespace zelt
