#include "BusNames.h"

#include "BusLimits.h"
#include "SdBus.h"

#include <algorithm>

namespace zelt {

namespace {

constexpr std::string_view kServicePrefix = "zelt.service.";
constexpr std::string_view kToolPrefix = "zelt.tool.";
constexpr std::string_view kToolName = "zeltcli-";

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

bool IsLetter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool IsTool(std::string_view name) {
  return name.starts_with(kToolName) && name.size() > kToolName.size() &&
         std::ranges::all_of(name.substr(kToolName.size()), IsDigit);
}

}  // namespace

std::optional<std::string> BusNameOf(std::string_view service) {
  std::string name(service);
  if (!name.starts_with(':')) {
    const bool claims_tool = name.starts_with(kToolName);
    if ((claims_tool && !IsTool(name)) || name.find('.') != std::string::npos) {
      return std::nullopt;
    }
    name.insert(0, claims_tool ? kToolPrefix : kServicePrefix);
  }
  if (name.find('\0') != std::string::npos || sd_bus_service_name_is_valid(name.c_str()) <= 0) {
    return std::nullopt;
  }
  return name;
}

std::optional<std::string> ServiceNameOf(std::string_view bus_name) {
  if (bus_name.starts_with(kServicePrefix)) {
    bus_name.remove_prefix(kServicePrefix.size());
    // A service that is called like a tool must not pass for one.
    if (bus_name.starts_with(kToolName) || bus_name.find('.') != std::string_view::npos) {
      return std::nullopt;
    }
    return std::string(bus_name);
  }
  if (bus_name.starts_with(kToolPrefix) && IsTool(bus_name.substr(kToolPrefix.size()))) {
    return std::string(bus_name.substr(kToolPrefix.size()));
  }
  return std::nullopt;
}

bool IsTypeName(std::string_view name) {
  return !name.empty() && name.size() <= kMaxTypeName && std::ranges::all_of(name, [](char c) {
    return IsDigit(c) || IsLetter(c) || c == '_' || c == '-' || c == '.';
  });
}

bool IsWellFormed(std::string_view type, std::string_view payload) {
  return IsTypeName(type) && payload.size() <= kMaxPayload;
}

std::string WhatIsWrong(std::string_view type, std::string_view payload) {
  if (!IsTypeName(type)) {
    return "a type or topic has 1 to " + std::to_string(kMaxTypeName) +
           " letters, digits, '_', '-' and '.', this one is " + std::to_string(type.size()) +
           " bytes long";
  }
  if (payload.size() > kMaxPayload) {
    return "a payload of " + std::to_string(payload.size()) + " bytes exceeds the limit of " +
           std::to_string(kMaxPayload);
  }
  return "";
}

void NameMap::Set(std::string_view bus_name, std::string_view owner) {
  if (!ServiceNameOf(bus_name)) {
    return;
  }
  const Lock lock(mutex_);
  if (const auto known = owners_.find(bus_name); known != owners_.end()) {
    const auto names = names_.find(known->second);
    names->second.erase(known->first);
    if (names->second.empty()) {
      names_.erase(names);
    }
    owners_.erase(known);
  }
  if (!owner.empty()) {
    owners_.emplace(bus_name, owner);
    names_[std::string(owner)].emplace(bus_name);
  }
}

std::string NameMap::OwnerOf(std::string_view bus_name) const {
  if (bus_name.starts_with(':')) {
    return std::string(bus_name);
  }
  const Lock lock(mutex_);
  const auto known = owners_.find(bus_name);
  return known == owners_.end() ? std::string() : known->second;
}

std::string NameMap::SenderName(std::string_view connection) const {
  const Lock lock(mutex_);
  const auto names = names_.find(connection);
  return names == names_.end() ? std::string(connection)
                               : ServiceNameOf(*names->second.begin()).value_or("");
}

bool NameMap::HasName(std::string_view connection) const {
  const Lock lock(mutex_);
  return names_.contains(connection);
}

bool NameMap::OwnsService(std::string_view connection) const {
  const Lock lock(mutex_);
  const auto names = names_.find(connection);
  return names != names_.end() && names->second.begin()->starts_with(kServicePrefix);
}

std::vector<std::string> NameMap::All() const {
  const Lock lock(mutex_);
  std::vector<std::string> all;
  all.reserve(owners_.size());
  for (const auto& [name, owner] : owners_) {
    all.push_back(ServiceNameOf(name).value_or(""));
  }
  return all;
}

}  // namespace zelt
