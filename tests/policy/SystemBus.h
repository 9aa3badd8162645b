#pragma once

#include "zelt/fake/ChildProcess.h"
#include "zelt/fake/TempFolder.h"

#include <systemd/sd-bus.h>

#include <grp.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace policy {

inline constexpr const char* kPath = "/zelt/ServiceIPC";
inline constexpr const char* kServices = "zelt.ServiceIPC1";
inline constexpr const char* kProperties = "org.freedesktop.DBus.Properties";

// Users as those on a camera, and one who has no business there; root is 0 and in no group of ours.
struct User {
  const char* name;
  unsigned id;
  std::vector<gid_t> groups;
};
inline const std::map<std::string, gid_t> kGroups = {
    {"zelt", 800}, {"zelt-tools", 801}, {"zelt-config", 802}};
inline const std::vector<User> kUsers = {
    {"root", 0, {}},      {"kova", 901, {800, 802}}, {"zelt-config", 902, {800}},
    {"peer", 903, {800}}, {"operator", 904, {801}},  {"stranger", 905, {}}};
inline const User& UserNamed(std::string_view name) {
  return *std::ranges::find(kUsers, name, &User::name);
}

// Fails loudly: nothing here may go wrong in silence.
inline int Check(int result, const std::string& what) {
  if (result < 0) {
    throw std::runtime_error(what + ": " + std::strerror(result == -1 ? errno : -result));
  }
  return result;
}

inline std::string ReadFile(const std::filesystem::path& path) {
  return (std::ostringstream() << std::ifstream(path).rdbuf()).str();
}

// Somebody who takes the log of dbus-broker: its launcher does not start without, and the bus
// stands still when nobody reads. Ends with this process.
inline void OfferJournal() {
  std::filesystem::create_directories("/run/systemd/journal");
  const int fd = Check(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0), "socket");
  sockaddr_un address{AF_UNIX, "/run/systemd/journal/socket"};
  Check(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), "bind");
  if (Check(fork(), "fork") == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    char line[4096];
    while (recv(fd, line, sizeof line, 0) >= 0) {
    }
    _exit(0);
  }
  close(fd);
}

// What the machine's own configuration says, without where it listens, as whom it runs, and what
// else is installed.
inline std::string StockConfiguration() {
  static const std::regex kOwn(
      "<(user|pidfile|servicehelper|listen|includedir|include)\\b[^>]*>[^<]*</[a-z]+>"
      "|<(fork|syslog|standard_system_servicedirs)/>|<include[^>]*>[^<]*</include>"
      "|</busconfig>");
  return std::regex_replace(ReadFile("/usr/share/dbus-1/system.conf"), kOwn, "");
}

// From now on this process alone knows just these users, and has a /run of its own with a temporary
// folder in it. Needs root.
inline void EnterWorldOfItsOwn() {
  Check(unshare(CLONE_NEWNS), "unshare");
  Check(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "mount /");
  Check(mount("tmpfs", "/run", "tmpfs", 0, "mode=755"), "mount /run");
  Check(setenv("TMPDIR", "/run", 1), "TMPDIR");
  std::string passwd;
  std::string group = "root:x:0:\n";
  for (const User& user : kUsers) {
    const std::string id = std::to_string(user.id);
    passwd += user.name + (":x:" + id) + ":" + id + "::/:/bin/false\n";
  }
  for (const auto& [name, id] : kGroups) {
    group += name + ":x:" + std::to_string(id) + ":";
    const char* separator = "";
    for (const User& user : kUsers) {
      if (std::ranges::count(user.groups, id) > 0) {
        group += std::exchange(separator, ",") + std::string(user.name);
      }
    }
    group += "\n";
  }
  const std::map<std::string, std::string> files = {
      {"passwd", passwd}, {"group", group}, {"nsswitch.conf", "passwd: files\ngroup: files\n"}};
  for (const auto& [name, text] : files) {
    const std::string file = "/run/" + name;
    std::ofstream(file) << text;
    Check(mount(file.c_str(), ("/etc/" + name).c_str(), nullptr, MS_BIND, nullptr), file);
  }
  OfferJournal();
}

// The bus of the system, configured as the machine has it but for its socket, with `policies`
// (whole <busconfig> elements) added: dbus-daemon, or dbus-broker where ZELT_TEST_BUS says so.
class SystemBus {
 public:
  explicit SystemBus(const std::vector<std::string>& policies) {
    Check(chmod(folder_.path.c_str(), 0755), "chmod");
    std::string config = StockConfiguration() + "<listen>" + address_ + "</listen>";
    for (const std::string& policy : policies) {
      config += "<include>" + folder_.File(std::to_string(config.size()) + ".conf", policy) +
                "</include>";
    }
    const std::string option = "--config-file=" + folder_.File("bus.conf", config + "</busconfig>");
    const char* wanted = std::getenv("ZELT_TEST_BUS");
    const bool is_broker = wanted != nullptr && std::string_view(wanted) == "dbus-broker";
    std::vector<std::string> command = {"dbus-daemon", option, "--nofork", "--nopidfile",
                                        "--print-address"};
    if (is_broker) {
      // Its launcher wants the socket open already, and the bus of the system to be this one.
      setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), 1);
      command = {"systemd-socket-activate",
                 "-E",
                 "DBUS_SYSTEM_BUS_ADDRESS",
                 "-l",
                 socket_,
                 "dbus-broker-launch",
                 "--scope=system",
                 option};
    }
    process_ = std::make_unique<zelt::fake::ChildProcess>(command, folder_.path / "bus.log");
    if (!process_->WaitForOutput(is_broker ? "Listening on" : "guid=")) {
      throw std::runtime_error(command[0] + " does not start: " + process_->Output());
    }
    Check(chmod(socket_.c_str(), 0666), "chmod");
  }

  const std::string& Address() const { return address_; }

 private:
  zelt::fake::TempFolder folder_;
  const std::string socket_ = folder_.path / "socket";
  const std::string address_ = "unix:path=" + socket_;
  std::unique_ptr<zelt::fake::ChildProcess> process_;
};

// The connection of one user, as the bus sees it. One thread; never waits for another connection
// unless said so.
class Connection {
 public:
  Connection(const SystemBus& bus, const User& user) {
    Check(sd_bus_new(&bus_), "sd_bus_new");
    Check(sd_bus_set_address(bus_, bus.Address().c_str()), "sd_bus_set_address");
    Check(sd_bus_set_bus_client(bus_, 1), "sd_bus_set_bus_client");
    // The kernel notes who connects; the bus asks it.
    Check(setgroups(user.groups.size(), user.groups.data()), "setgroups");
    Check(setegid(user.id), "setegid");
    Check(seteuid(user.id), "seteuid");
    const int started = sd_bus_start(bus_);
    Check(seteuid(0), "seteuid");
    Check(setegid(0), "setegid");
    Check(setgroups(0, nullptr), "setgroups");
    Check(started, "sd_bus_start as " + std::string(user.name));
    const auto answer = [](sd_bus_message* message, void*, sd_bus_error*) {
      return sd_bus_message_is_method_call(message, nullptr, nullptr) > 0
                 ? Check(sd_bus_reply_method_return(message, nullptr), "reply")
                 : 0;
    };
    Check(sd_bus_add_filter(bus_, nullptr, answer, nullptr), "sd_bus_add_filter");
    Settle();
  }

  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() { sd_bus_flush_close_unref(bus_); }

  // False when the policy forbids it; true also when somebody else owns the name already.
  bool Own(const char* name) {
    const int result = sd_bus_request_name(bus_, name, 0);
    if (result == -EACCES || result == -EPERM) {
      return false;
    }
    return result == -EEXIST || Check(result, name) > 0;
  }

  // Calls a method without arguments, or with the two or three of org.freedesktop.DBus.Properties,
  // and serves `receiver` meanwhile. False when the policy forbids it.
  bool Call(Connection& receiver, const char* destination, const char* interface,
            const char* member) {
    sd_bus_message* call = nullptr;
    Check(sd_bus_message_new_method_call(bus_, &call, destination, kPath, interface, member),
          member);
    if (std::string_view(interface) == kProperties) {
      Check(sd_bus_message_append(call, "ss", kServices, "LogLevel"), member);
      if (std::string_view(member) == "Set") {
        Check(sd_bus_message_append(call, "v", "u", 6), member);
      }
    }
    std::optional<bool> allowed;
    const auto note = [](sd_bus_message* reply, void* result, sd_bus_error*) {
      const bool denied = sd_bus_message_is_method_error(reply, SD_BUS_ERROR_ACCESS_DENIED) > 0;
      *static_cast<std::optional<bool>*>(result) = !denied;
      return 1;
    };
    Check(sd_bus_call_async(bus_, nullptr, call, note, &allowed, 60'000'000), member);
    sd_bus_message_unref(call);
    while (!allowed) {
      while (Check(sd_bus_process(bus_, nullptr), "process") > 0 ||
             Check(sd_bus_process(receiver.bus_, nullptr), "process") > 0) {
      }
      pollfd sockets[] = {{sd_bus_get_fd(bus_), POLLIN, 0},
                          {sd_bus_get_fd(receiver.bus_), POLLIN, 0}};
      poll(sockets, 2, allowed ? 0 : 60'000);
    }
    return *allowed;
  }

  // Emits a signal of the services' interface, and waits until the bus has dealt with it.
  void Emit(const char* member) {
    const bool has_payload = std::string_view(member) == "Published";
    Check(has_payload ? sd_bus_emit_signal(bus_, kPath, kServices, member, "say", "Kova.X", 0)
                      : sd_bus_emit_signal(bus_, kPath, kServices, member, "s", "Kova.X"),
          member);
    Settle();
  }

  // From now on takes such signals; and how many have come.
  void Listen(const char* member) {
    const auto count = [](sd_bus_message*, void* heard, sd_bus_error*) {
      ++*static_cast<int*>(heard);
      return 0;
    };
    const std::string rule =
        "type='signal',interface='" + std::string(kServices) + "',member='" + member + "'";
    Check(sd_bus_add_match(bus_, nullptr, rule.c_str(), count, &heard_), rule);
  }

  int Heard() {
    Settle();
    while (Check(sd_bus_process(bus_, nullptr), "process") > 0) {
    }
    return heard_;
  }

 private:
  // What was sent to this connection before the bus answers has come by then.
  void Settle() {
    Check(sd_bus_call_method(bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                             "org.freedesktop.DBus", "GetId", nullptr, nullptr, nullptr),
          "GetId");
  }

  sd_bus* bus_ = nullptr;
  int heard_ = 0;
};

}  // namespace policy
