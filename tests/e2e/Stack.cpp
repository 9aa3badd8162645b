#include "Stack.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace e2e {
namespace {

// Throws what `process` printed when it does not end well.
std::string Succeed(Process& process) {
  if (process.Wait() != 0) {
    throw std::runtime_error(process.Output());
  }
  return process.Output();
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

Testbed::Testbed() {
  std::string path = (std::filesystem::temp_directory_path() / "zelt-e2e-XXXXXX").string();
  if (mkdtemp(path.data()) == nullptr) {
    throw std::runtime_error("cannot create " + path);
  }
  folder_ = path;
  const std::vector<std::string> command = {std::string(KOVA_BIN_DIR) + "/zelt-testbed",
                                            "--folder",
                                            (folder_ / "bed").string(),
                                            "--without",
                                            "config",
                                            "--without",
                                            "radio",
                                            "--without",
                                            "kova"};
  program_ = std::make_unique<Process>(command, folder_ / "testbed.log");
  for (const char* variable : {"ZELT_BUS_ADDRESS", "ZELT_ROOT"}) {
    setenv(variable, Value(variable).c_str(), 1);
  }
}

Testbed::~Testbed() {
  program_->Signal(SIGTERM);
  program_->Wait();
  std::filesystem::remove_all(folder_);
}

void Testbed::Kill() const {
  kill(std::stoi(Value("BUS_PID")), SIGKILL);
}

std::string Testbed::Value(const std::string& variable) const {
  const std::string start = "export " + variable + "='";
  const std::string line = program_->WaitForLine(start);
  return line.substr(start.size(), line.size() - start.size() - 1);
}

Stack::Stack() {
  setenv("ZELT_LOG_LEVEL", "8", 1);
  setenv("NO_COLOR", "1", 1);
}

void Stack::StartConfig() {
  config.reset();
  config = Run("zelt-config", {});
  config->WaitForLine("Configuration published");
}

void Stack::StartRadio(const std::vector<std::string>& options) {
  radio.reset();
  std::vector<std::string> arguments = {"--control", (Folder() / "control").string(), "--store",
                                        (Folder() / "store").string()};
  const bool serial = std::ranges::find(options, "--pty") != options.end();
  if (!serial) {
    arguments.insert(arguments.end(),
                     {"--listen", "127.0.0.1:0", "--port-file", (Folder() / "port").string()});
  }
  arguments.insert(arguments.end(), options.begin(), options.end());
  radio = Run("radiosim", arguments);
  radio->WaitForLine(serial ? "pseudo-terminal" : "listens on");
}

void Stack::StartKova() {
  kova.reset();
  kova = Run("kova", {});
  kova->WaitForLine("Kova service running..........");
}

void Stack::StartAll(const std::vector<std::string>& radio_options) {
  StartConfig();
  StartRadio(radio_options);
  StartKova();
  LinkUp();
}

void Stack::LinkUp() {
  Succeed(*Run("zeltcli", {"socket", "set", "127.0.0.1", RadioPort()}));
  Succeed(*Run("zeltcli", {"link", "up"}));
}

std::string Stack::RadioPort() const {
  std::string port = ReadFile(Folder() / "port");
  port.erase(port.find_last_not_of('\n') + 1);
  return port;
}

std::unique_ptr<Process> Stack::Run(const std::string& program,
                                    const std::vector<std::string>& arguments) {
  std::vector<std::string> command = {
      program.contains('/') ? program : std::string(KOVA_BIN_DIR) + "/" + program};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return std::make_unique<Process>(command, Folder() / (std::to_string(++started_) + ".log"));
}

ToolResult Stack::Tool(const std::vector<std::string>& arguments) {
  const auto tool = Run("zeltcli", arguments);
  const int status = tool->Wait();
  return {.status = status, .output = tool->Output()};
}

std::unique_ptr<Process> Stack::Push(std::size_t size) {
  WriteFile(Folder() / "image", std::string(size, 'k'));
  return Run("zeltcli", {"firmware", "push", (Folder() / "image").string(), "--as", "fw"});
}

bool Stack::RadioHasImage() const {
  return ReadFile(Folder() / "store/fw") == ReadFile(Folder() / "image");
}

std::string Stack::Radio(const std::vector<std::string>& arguments) {
  std::vector<std::string> command = {"ctl", (Folder() / "control").string()};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return Succeed(*Run("radiosim", command));
}

}  // namespace e2e
