#include "Stack.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace e2e {
namespace {

std::string Binary(const std::string& name) {
  return std::string(KOVA_BIN_DIR) + "/" + name;
}

}  // namespace

void WriteFile(const std::filesystem::path& path, std::string_view text) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << text;
}

std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

Stack::Stack() {
  std::string name = (std::filesystem::temp_directory_path() / "kova-e2e-XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr) {
    throw std::runtime_error("mkdtemp " + name);
  }
  folder_ = name;
  for (const char* directory : {"etc/zelt", "var/lib/zelt", "dev/shm"}) {
    std::filesystem::create_directories(Root() / directory);
  }
  WriteFile(Root() / "etc/zelt/version", "VERSION=1.2.3\nBUILD_NUMBER=45\n");
  WriteFile(Root() / "etc/zelt/target-attributes", "MODEL=OTTR\n");
  std::filesystem::copy_file(std::string(KOVA_SOURCE_DIR) + "/service/config/config.toml",
                             Root() / "etc/zelt/config.toml");
  environment_ = {{"ZELT_ROOT", Root().string()},
                  {"ZELT_BUS_ADDRESS", "unix:path=" + (folder_ / "bus").string()},
                  {"ZELT_LOG_LEVEL", "8"},
                  {"NO_COLOR", "1"}};
}

Stack::~Stack() {
  kova.reset();
  radio.reset();
  config.reset();
  bus.reset();
  std::error_code ignored;
  std::filesystem::remove_all(folder_, ignored);
}

void Stack::StartBus() {
  bus.reset();
  bus = std::make_unique<Process>(
      std::vector<std::string>{
          "dbus-daemon",
          std::string("--config-file=") + KOVA_SOURCE_DIR + "/packaging/zelt-bus.conf",
          "--address=" + environment_["ZELT_BUS_ADDRESS"], "--nofork", "--nopidfile",
          "--print-address"},
      environment_);
  bus->WaitForLine("unix:path=");
}

void Stack::StartConfig() {
  config.reset();
  config = Run("zelt-config", {});
  config->WaitForLine("Configuration published");
}

void Stack::StartRadio(const std::vector<std::string>& options) {
  radio.reset();
  std::vector<std::string> arguments = {"--control", (folder_ / "control").string(), "--store",
                                        (folder_ / "store").string()};
  if (std::ranges::find(options, "--pty") == options.end()) {
    // The port stays the same when the radio is started again.
    const std::string port = RadioPort().empty() ? "0" : RadioPort();
    arguments.insert(arguments.end(),
                     {"--listen", "127.0.0.1:" + port, "--port-file", (folder_ / "port").string()});
  }
  arguments.insert(arguments.end(), options.begin(), options.end());
  radio = Run("radiosim", arguments);
  radio->WaitForLine(arguments.size() == options.size() + 4 ? "pseudo-terminal" : "listens on");
}

void Stack::StartKova() {
  kova.reset();
  kova = Run("kova", {});
  kova->WaitForLine("Kova service running..........");
}

void Stack::StartKovaOnSerial(const std::filesystem::path& pty) {
  kova.reset();
  kova = std::make_unique<Process>(
      std::vector<std::string>{std::string(KOVA_SOURCE_DIR) + "/scripts/with-serial", pty.string(),
                               Binary("kova")},
      environment_);
  kova->WaitForLine("Kova service running..........");
}

void Stack::StartAll(const std::vector<std::string>& radio_options) {
  StartBus();
  StartConfig();
  StartRadio(radio_options);
  StartKova();
}

void Stack::LinkUp() {
  const ToolResult set = Tool({"socket", "set", "127.0.0.1", RadioPort()});
  if (set.status != 0) {
    throw std::runtime_error("socket set: " + set.output);
  }
  const ToolResult up = Tool({"link", "up"});
  if (up.status != 0) {
    throw std::runtime_error("link up: " + up.output);
  }
  kova->WaitForLine("RtConnection status: CONNECTED");
}

std::string Stack::RadioPort() const {
  std::string port = ReadFile(folder_ / "port");
  port.erase(port.find_last_not_of('\n') + 1);
  return port;
}

std::unique_ptr<Process> Stack::Run(const std::string& program,
                                    const std::vector<std::string>& arguments) {
  std::vector<std::string> command = {Binary(program)};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return std::make_unique<Process>(command, environment_);
}

std::unique_ptr<Process> Stack::ToolInBackground(const std::vector<std::string>& arguments) {
  return Run("zeltcli", arguments);
}

ToolResult Stack::Tool(const std::vector<std::string>& arguments) {
  const auto tool = ToolInBackground(arguments);
  const int status = tool->Wait();
  return {.status = status, .output = tool->Output()};
}

std::string Stack::Radio(const std::vector<std::string>& arguments) {
  std::vector<std::string> command = {"ctl", (folder_ / "control").string()};
  command.insert(command.end(), arguments.begin(), arguments.end());
  const auto tool = Run("radiosim", command);
  if (tool->Wait() != 0) {
    throw std::runtime_error("radiosim ctl: " + tool->Output());
  }
  return tool->Output();
}

}  // namespace e2e
