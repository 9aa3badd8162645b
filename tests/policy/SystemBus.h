#pragma once

#include "zelt/fake/TestBus.h"

#include <systemd/sd-bus.h>

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace policy {

// Users as those on a camera, and one who has no business there; root is 0 and in no group of ours.
struct User {
  const char* name;
  unsigned id;
  std::vector<const char*> groups;
};
const std::vector<User>& Users();
const User& UserNamed(std::string_view name);

// From now on this process alone knows just these users, and has a /run of its own with a temporary
// folder in it. Needs root.
void EnterWorldOfItsOwn();

// The bus of the system, configured as the machine has it but for its socket, with `policy` (whole
// <busconfig> elements) added: dbus-daemon, or dbus-broker where ZELT_TEST_BUS says so.
class SystemBus {
 public:
  explicit SystemBus(const std::vector<std::string>& policies);
  SystemBus(const SystemBus&) = delete;
  SystemBus& operator=(const SystemBus&) = delete;
  ~SystemBus();

  const std::string& Address() const { return address_; }

 private:
  std::filesystem::path folder_;
  std::string address_;
  std::unique_ptr<zelt::fake::ChildProcess> process_;
};

// The connection of one user, as the bus sees it. One thread; never waits for another connection
// unless said so.
class Connection {
 public:
  Connection(const SystemBus& bus, const User& user);
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection();

  // False when the policy forbids it; true also when somebody else owns the name already.
  bool Own(const char* name);
  // Calls a method without arguments, or with the two or three of org.freedesktop.DBus.Properties,
  // and serves `receiver` meanwhile. False when the policy forbids it.
  bool Call(Connection& receiver, const char* destination, const char* interface,
            const char* member);
  // Emits a signal of the services' interface, and waits until the bus has dealt with it.
  void Emit(const char* member);
  // From now on takes such signals; and how many have come.
  void Listen(const char* member);
  int Heard();

 private:
  void Settle();

  sd_bus* bus_ = nullptr;
  int heard_ = 0;
};

}  // namespace policy
