#pragma once

#include "zelt/Mutex.h"
#include "zelt/ThreadAnnotations.h"

#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace zelt {

// How services and tools are called on the bus.
//
//   "Kova"      <-> zelt.service.Kova
//   "zeltcli-1" <-> zelt.tool.zeltcli-1   (a tool is "zeltcli-" and digits, nothing else)
//   ":1.42"     <-> :1.42                 (a connection that owns neither)

// Said of what is not.
inline constexpr const char* kNoName = "this is the name of no service, tool or connection";

// Returns nothing when `service` cannot be a name on the bus.
std::optional<std::string> BusNameOf(std::string_view service);

// Returns nothing when `bus_name` makes its owner neither a service nor a tool.
std::optional<std::string> ServiceNameOf(std::string_view bus_name);

// Tells whether these are 1 to 255 letters, digits, '_', '-' and '.': fit for a type name or a
// topic.
bool IsTypeName(std::string_view name);

// Tells whether type (or topic) and payload keep the limits.
bool IsWellFormed(std::string_view type, std::string_view payload);

// Returns why it is not, for a log line or an error; empty when it is.
std::string WhatIsWrong(std::string_view type, std::string_view payload);

// Who is who: which connection owns which names, as the bus told. Any thread may ask and tell.
class NameMap {
 public:
  // `owner` is a connection's unique name, or empty when nobody owns the name any more. Names that
  // are neither a service's nor a tool's are ignored.
  void Set(std::string_view bus_name, std::string_view owner);

  // Returns the connection; empty when nobody owns the name. A unique name owns itself.
  std::string OwnerOf(std::string_view bus_name) const;

  // Returns what the sender of a message is called. A connection with several names goes by the
  // first in alphabetical order, which prefers services to tools; one without, by its unique name.
  std::string SenderName(std::string_view connection) const;

  // Tells whether the connection owns a service's or a tool's name.
  bool HasName(std::string_view connection) const;

  // False for tools and for those without a name.
  bool OwnsService(std::string_view connection) const;

  // Returns every service and tool, by name.
  std::vector<std::string> All() const;

 private:
  mutable Mutex mutex_;
  std::map<std::string, std::string, std::less<>> owners_
      ZELT_GUARDED_BY(mutex_);  // bus name -> connection
  std::map<std::string, std::set<std::string>, std::less<>> names_
      ZELT_GUARDED_BY(mutex_);  // connection -> bus names
};

}  // namespace zelt
