#include "Testbed.h"

#include "Files.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <ranges>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace testbed {
namespace {

namespace fs = std::filesystem;
using std::chrono::seconds;

constexpr seconds kReadyTime{60};  // far more than a part takes on a loaded machine
constexpr std::size_t kEndOfLog = 15;

std::string ReadFile(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void WriteFile(const fs::path& path, std::string_view text) {
  std::ofstream file(path, std::ios::binary);
  if (!(file << text << std::flush)) {
    throw std::runtime_error("cannot write " + path.string());
  }
}

// In quotes for a shell.
std::string Quoted(std::string_view text) {
  std::string quoted = "'";
  for (const char letter : text) {
    quoted += letter == '\'' ? std::string("'\\''") : std::string(1, letter);
  }
  return quoted + "'";
}

// A socket of the UNIX kind, closed with this.
class Socket {
 public:
  explicit Socket(int type) : descriptor_(socket(AF_UNIX, type | SOCK_CLOEXEC, 0)) {
    if (descriptor_ < 0) {
      throw std::system_error(errno, std::generic_category(), "cannot create a socket");
    }
  }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  ~Socket() { close(descriptor_); }

  bool Bind(const fs::path& path) const { return With(path, bind); }
  bool Connect(const fs::path& path) const { return With(path, connect); }
  // What has come; empty when there is nothing.
  std::string Receive() const {
    char text[4096];
    const ssize_t size = recv(descriptor_, text, sizeof text, MSG_DONTWAIT);
    return {text, size > 0 ? static_cast<std::size_t>(size) : 0};
  }

 private:
  bool With(const fs::path& path, int (*call)(int, const sockaddr*, socklen_t)) const {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.string().copy(address.sun_path, sizeof address.sun_path - 1);
    return call(descriptor_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  }

  int descriptor_;
};

// A new folder below the one for such things.
fs::path MakeFolder() {
  std::string path = (fs::temp_directory_path() / "zelt-testbed.XXXXXX").string();
  if (path.size() + std::strlen("/notify") >= sizeof sockaddr_un::sun_path) {
    throw std::runtime_error("TMPDIR has too long a path for sockets: " + path);
  }
  if (mkdtemp(path.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), "cannot create " + path);
  }
  return path;
}

bool ListensAt(const fs::path& path) {
  return Socket(SOCK_STREAM).Connect(path);
}

}  // namespace

Testbed::Testbed(Options options, Processes& processes)
    : options_(std::move(options)), processes_(processes), keep_(options_.keep) {
  const fs::path own = fs::read_symlink("/proc/self/exe").parent_path();
  if (!options_.programs.empty()) {
    beside_ = fs::absolute(options_.programs);
  } else if (fs::exists(own / "kova")) {
    beside_ = own;
  }
  const std::string config =
      options_.config.empty() ? kSampleConfiguration : ReadFile(options_.config);
  if (!options_.folder.empty()) {
    folder_ = fs::absolute(options_.folder);
    if (fs::exists(folder_) && !fs::is_empty(folder_)) {
      throw std::runtime_error(folder_.string() + " is not empty");
    }
    keep_ = true;
  }
  sockets_ = MakeFolder();
  if (folder_.empty()) {
    folder_ = sockets_;
  }
  const fs::path root = folder_ / "root";
  for (const char* name : {"dev", "etc/zelt", "var/lib/zelt"}) {
    fs::create_directories(root / name);
  }
  WriteFile(folder_ / "bus.conf", kBusConfiguration);
  WriteFile(root / "etc/zelt/config.toml", config);
  WriteFile(root / "etc/zelt/version", "VERSION=1.2.3\nBUILD_NUMBER=45\n");
  WriteFile(root / "etc/zelt/target-attributes", "MODEL=OTTR\n");

  Set("ZELT_TESTBED", folder_);
  Set("ZELT_BUS_ADDRESS", "unix:path=" + (sockets_ / "bus").string());
  Set("ZELT_ROOT", root);
  Set("RADIO_CONTROL", sockets_ / "radio");
  if (!beside_.empty()) {
    const char* const path = std::getenv("PATH");
    setenv("PATH", (beside_.string() + ":" + (path == nullptr ? "" : path)).c_str(), 1);
    environment_ += "export PATH=" + Quoted(beside_.string()) + ":\"$PATH\"\n";
  }
  // Those are of a supervisor of this program, not of the parts.
  unsetenv("NOTIFY_SOCKET");
  unsetenv("WATCHDOG_USEC");
}

Testbed::~Testbed() {
  processes_.StopAll();
  std::error_code ignored;
  if (!keep_ || folder_ != sockets_) {
    fs::remove_all(sockets_, ignored);
  }
}

void Testbed::Start() {
  StartPart("bus",
            {"dbus-daemon", "--config-file=" + (folder_ / "bus.conf").string(), "--nofork",
             "--nopidfile", "--address=unix:path=" + (sockets_ / "bus").string()},
            [this] { return ListensAt(sockets_ / "bus"); });
  if (Has("config")) {
    StartService("config", "zelt-config");
  }
  if (Has("radio")) {
    StartRadio();
  }
  const bool kova = Has("kova") && Has("config");
  if (kova) {
    StartService("kova", "kova");
  } else if (Has("kova")) {  // it waits for the Config that somebody else starts
    StartPart("kova", {Program("kova")}, [] { return true; });
  }
  if (kova && Has("radio") && !options_.serial) {
    Tool({"zeltcli", "socket", "set", "127.0.0.1", std::getenv("RADIO_PORT")},
         "Kova does not take the radio's address");
  }
  if (kova && Has("radio") && !options_.no_link) {
    Tool({"zeltcli", "link", "up"}, "the link does not come up");
  }
  if (options_.keeper) {
    StartService("keeper", "zelt-keeper");
  }
  // Whoever waits for this file finds all of it.
  WriteFile(folder_ / "env.part", environment_);
  fs::rename(folder_ / "env.part", folder_ / "env");
}

int Testbed::Run(const Processes::Words& command) {
  const pid_t pid = processes_.StartCommand(command);
  while (!processes_.Status(pid)) {
    const auto interrupted = processes_.Wait(std::chrono::hours(1));
    if (interrupted && !interrupted->from_terminal) {
      processes_.Stop(pid, interrupted->signal);
    }
  }
  processes_.KillOrphans();
  const int status = processes_.Status(pid).value_or(0);
  if (status != 0) {
    keep_ = true;
    TellWhoHasEnded();
    std::cerr << "zelt-testbed: " << command.front() << " ended with status " << status
              << "; the logs are in " << folder_.string() << std::endl;
  }
  return status;
}

int Testbed::Stay() {
  std::cerr << "\nThe system is up. In another terminal, paste this line, or those below:\n\n"
            << "    . " << (folder_ / "env").string() << "\n\nCtrl-C stops all of it.\n"
            << std::endl;
  std::cout << environment_ << std::flush;
  const auto kova = std::ranges::find(parts_, "kova", &Part::name);
  while (kova == parts_.end() || !processes_.Status(kova->pid)) {
    if (processes_.Wait(std::chrono::hours(1))) {
      std::cerr << "zelt-testbed: stopping" << std::endl;
      return 0;
    }
  }
  keep_ = true;
  TellWhoHasEnded();
  std::cerr << "zelt-testbed: the logs are in " << folder_.string() << std::endl;
  return 1;
}

bool Testbed::Has(const std::string& part) const {
  return std::ranges::find(options_.without, part) == options_.without.end();
}

std::string Testbed::Program(const std::string& name) const {
  const fs::path path = beside_ / name;
  return !beside_.empty() && fs::exists(path) ? path.string() : name;
}

fs::path Testbed::Log(const std::string& name) const {
  return folder_ / (name + ".log");
}

void Testbed::Set(const std::string& name, const std::string& value) {
  setenv(name.c_str(), value.c_str(), 1);
  environment_ += "export " + name + "=" + Quoted(value) + "\n";
}

void Testbed::StartPart(const std::string& name, const Processes::Words& command,
                        const std::function<bool()>& ready, Processes::Variables variables) {
  if (std::getenv("ZELT_LOG_LEVEL") == nullptr) {
    variables.emplace_back("ZELT_LOG_LEVEL", "7");
  }
  const pid_t pid = processes_.Start(command, Log(name), variables);
  parts_.push_back({.name = name, .pid = pid});
  std::string variable = name + "_PID";
  std::ranges::transform(variable, variable.begin(),
                         [](char letter) { return static_cast<char>(std::toupper(letter)); });
  Set(variable, std::to_string(pid));
  const bool in_time =
      processes_.WaitFor([&] { return processes_.Status(pid) || ready(); }, kReadyTime);
  if (const auto status = processes_.Status(pid)) {
    Fail(name + " has ended with status " + std::to_string(*status), name);
  }
  if (!in_time) {
    Fail(name + " is not ready after 60 s", name);
  }
}

void Testbed::StartService(const std::string& name, const std::string& program) {
  // Gone once it is ready: what the service tells later must not fill it.
  const Socket told(SOCK_DGRAM);
  const fs::path path = sockets_ / "notify";
  if (!told.Bind(path)) {
    throw std::system_error(errno, std::generic_category(), "cannot create " + path.string());
  }
  StartPart(name, {Program(program)}, [&] { return told.Receive().contains("READY=1"); },
            {{"NOTIFY_SOCKET", path.string()}});
  fs::remove(path);
}

void Testbed::StartRadio() {
  const fs::path port = folder_ / "port";
  Processes::Words command = {Program("radiosim"), "--control", (sockets_ / "radio").string(),
                              "--store", (folder_ / "radio-files").string()};
  const auto add = [&command](const std::vector<std::string>& words) {
    command.insert(command.end(), words.begin(), words.end());
  };
  if (options_.serial) {
    add({"--pty", (folder_ / "root/dev/ttyS2").string()});
  } else {
    add({"--listen", "127.0.0.1:0", "--port-file", port.string()});
  }
  add(options_.radio_options);
  // The control socket is the last that it opens.
  StartPart("radio", command, [this] { return ListensAt(sockets_ / "radio"); });
  if (!options_.serial) {
    std::string number = ReadFile(port);
    std::erase(number, '\n');
    Set("RADIO_PORT", number);
  }
}

void Testbed::Tool(const Processes::Words& command, const std::string& what) {
  Processes::Words words = command;
  words.front() = Program(command.front());
  const pid_t pid = processes_.Start(words, Log("link"), {});
  processes_.WaitFor([&] { return processes_.Status(pid).has_value(); }, kReadyTime);
  if (processes_.Status(pid) != 0) {
    Fail(what, "link");
  }
}

void Testbed::Fail(const std::string& what, const std::string& log) {
  keep_ = true;
  std::vector<std::string> lines;
  std::ifstream file(Log(log));
  for (std::string line; std::getline(file, line);) {
    lines.push_back(line);
  }
  std::ostringstream text;
  text << what << "; the end of " << Log(log).string() << ":\n";
  for (const std::string& line :
       lines | std::views::drop(lines.size() - std::min(lines.size(), kEndOfLog))) {
    text << "  " << line << '\n';
  }
  text << "All logs are in " << folder_.string();
  throw std::runtime_error(text.str());
}

void Testbed::TellWhoHasEnded() const {
  for (const Part& part : parts_) {
    if (const auto status = processes_.Status(part.pid)) {
      std::cerr << "zelt-testbed: " << part.name << " had ended with status " << *status << '\n';
    }
  }
}

}  // namespace testbed
