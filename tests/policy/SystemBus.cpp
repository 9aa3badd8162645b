#include "SystemBus.h"

#include <fcntl.h>
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
#include <fstream>
#include <optional>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace policy {
namespace {

constexpr const char* kPath = "/zelt/ServiceIPC";
constexpr const char* kInterface = "zelt.ServiceIPC1";
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";
constexpr gid_t kFirstGroup = 800;

// Fails loudly: nothing here may go wrong in silence.
int Check(int result, const std::string& what) {
  if (result < 0) {
    throw std::runtime_error(what + ": " + std::strerror(result == -1 ? errno : -result));
  }
  return result;
}

const std::vector<const char*>& Groups() {
  static const std::vector<const char*> groups = {"zelt", "zelt-tools", "zelt-config"};
  return groups;
}

gid_t GroupId(std::string_view name) {
  return kFirstGroup + static_cast<gid_t>(std::ranges::find(Groups(), name) - Groups().begin());
}

void WriteFile(const std::filesystem::path& path, const std::string& text) {
  std::ofstream file(path);
  file << text;
  if (!file.flush()) {
    throw std::runtime_error("cannot write " + path.string());
  }
}

// Somebody who takes the log of dbus-broker: its launcher does not start without, and the bus
// stands still when nobody reads. Ends with this process.
void OfferJournal() {
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
std::string StockConfiguration() {
  std::ostringstream text;
  text << std::ifstream("/usr/share/dbus-1/system.conf").rdbuf();
  static const std::regex kOwn(
      "<(user|pidfile|servicehelper|listen|includedir|include)\\b[^>]*>[^<]*</[a-z]+>"
      "|<(fork|syslog|standard_system_servicedirs)/>|<include[^>]*>[^<]*</include>"
      "|</busconfig>");
  return std::regex_replace(text.str(), kOwn, "");
}

}  // namespace

const std::vector<User>& Users() {
  static const std::vector<User> users = {{"root", 0, {}},
                                          {"kova", 901, {"zelt", "zelt-config"}},
                                          {"zelt-config", 902, {"zelt"}},
                                          {"peer", 903, {"zelt"}},
                                          {"operator", 904, {"zelt-tools"}},
                                          {"stranger", 905, {}}};
  return users;
}

const User& UserNamed(std::string_view name) {
  return *std::ranges::find(Users(), name, &User::name);
}

void EnterWorldOfItsOwn() {
  Check(unshare(CLONE_NEWNS), "unshare");
  Check(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "mount /");
  Check(mount("tmpfs", "/run", "tmpfs", 0, "mode=755"), "mount /run");
  std::string passwd;
  std::string group = "root:x:0:\n";
  for (const User& user : Users()) {
    const std::string id = std::to_string(user.id);
    passwd += std::string(user.name) + ":x:" + id + ":" + id + "::/:/bin/false\n";
  }
  for (const char* name : Groups()) {
    group += std::string(name) + ":x:" + std::to_string(GroupId(name)) + ":";
    const char* separator = "";
    for (const User& user : Users()) {
      if (std::ranges::count(user.groups, std::string_view(name)) > 0) {
        group += std::string(std::exchange(separator, ",")) + user.name;
      }
    }
    group += "\n";
  }
  WriteFile("/run/passwd", passwd);
  WriteFile("/run/group", group);
  WriteFile("/run/nsswitch.conf", "passwd: files\ngroup: files\n");
  for (const std::string name : {"passwd", "group", "nsswitch.conf"}) {
    Check(mount(("/run/" + name).c_str(), ("/etc/" + name).c_str(), nullptr, MS_BIND, nullptr),
          "mount /etc/" + name);
  }
  OfferJournal();
}

SystemBus::SystemBus(const std::vector<std::string>& policies) {
  std::string folder = "/run/bus.XXXXXX";
  if (mkdtemp(folder.data()) == nullptr || chmod(folder.c_str(), 0755) != 0) {
    throw std::runtime_error("cannot create " + folder);
  }
  folder_ = folder;
  address_ = "unix:path=" + folder + "/socket";
  std::string config = StockConfiguration() + "<listen>" + address_ + "</listen>";
  for (const std::string& policy : policies) {
    const std::string file = folder + "/" + std::to_string(&policy - policies.data()) + ".conf";
    WriteFile(file, policy);
    config += "<include>" + file + "</include>";
  }
  WriteFile(folder_ / "bus.conf", config + "</busconfig>");
  const std::string config_option = "--config-file=" + folder + "/bus.conf";
  const char* wanted = std::getenv("ZELT_TEST_BUS");
  const bool is_broker = wanted != nullptr && std::string_view(wanted) == "dbus-broker";
  std::vector<std::string> command = {"dbus-daemon", config_option, "--nofork", "--nopidfile",
                                      "--print-address"};
  if (is_broker) {
    // Its launcher wants the socket open already, and the bus of the system to be this one.
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), 1);
    command = {"systemd-socket-activate", "-E",
               "DBUS_SYSTEM_BUS_ADDRESS", "-l",
               folder + "/socket",        "dbus-broker-launch",
               "--scope=system",          config_option};
  }
  process_ = std::make_unique<zelt::fake::ChildProcess>(command, folder_ / "bus.log");
  if (!process_->WaitForOutput(is_broker ? "Listening on" : "guid=")) {
    throw std::runtime_error(command[0] + " does not start: " + process_->Output());
  }
  Check(chmod((folder_ / "socket").c_str(), 0666), "chmod");
}

SystemBus::~SystemBus() {
  process_.reset();
  std::filesystem::remove_all(folder_);
}

Connection::Connection(const SystemBus& bus, const User& user) {
  std::vector<gid_t> groups;
  for (const char* name : user.groups) {
    groups.push_back(GroupId(name));
  }
  Check(sd_bus_new(&bus_), "sd_bus_new");
  Check(sd_bus_set_address(bus_, bus.Address().c_str()), "sd_bus_set_address");
  Check(sd_bus_set_bus_client(bus_, 1), "sd_bus_set_bus_client");
  // The kernel notes who connects; the bus asks it.
  Check(setgroups(groups.size(), groups.data()), "setgroups");
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

Connection::~Connection() {
  sd_bus_flush_close_unref(bus_);
}

bool Connection::Own(const char* name) {
  const int result = sd_bus_request_name(bus_, name, 0);
  if (result == -EACCES || result == -EPERM) {
    return false;
  }
  return result == -EEXIST || Check(result, name) > 0;
}

bool Connection::Call(Connection& receiver, const char* destination, const char* interface,
                      const char* member) {
  sd_bus_message* call = nullptr;
  Check(sd_bus_message_new_method_call(bus_, &call, destination, kPath, interface, member), member);
  if (std::string_view(interface) == kProperties) {
    Check(sd_bus_message_append(call, "ss", kInterface, "LogLevel"), member);
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

void Connection::Emit(const char* member) {
  const bool has_payload = std::string_view(member) == "Published";
  Check(has_payload ? sd_bus_emit_signal(bus_, kPath, kInterface, member, "say", "Kova.X", 0)
                    : sd_bus_emit_signal(bus_, kPath, kInterface, member, "s", "Kova.X"),
        member);
  Settle();
}

void Connection::Listen(const char* member) {
  const auto count = [](sd_bus_message*, void* heard, sd_bus_error*) {
    ++*static_cast<int*>(heard);
    return 0;
  };
  const std::string rule =
      "type='signal',interface='" + std::string(kInterface) + "',member='" + member + "'";
  Check(sd_bus_add_match(bus_, nullptr, rule.c_str(), count, &heard_), rule);
}

int Connection::Heard() {
  Settle();
  while (Check(sd_bus_process(bus_, nullptr), "process") > 0) {
  }
  return heard_;
}

// What was sent to this connection before the bus answers has come by then.
void Connection::Settle() {
  Check(sd_bus_call_method(bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                           "org.freedesktop.DBus", "GetId", nullptr, nullptr, nullptr),
        "GetId");
}

}  // namespace policy
