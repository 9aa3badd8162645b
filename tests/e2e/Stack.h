#pragma once

#include "Process.h"

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace e2e {

struct ToolResult {
  int status = 0;
  std::string output;
};

// A whole system of real processes in a temporary folder: its own bus, ZELT_ROOT and radio.
// Each part is started by name, so that a test can leave it out, kill it or start it again.
class Stack {
 public:
  Stack();
  ~Stack();

  void StartBus();
  void StartConfig();
  // `options` are those of radiosim, e.g. {"--faults", file}.
  void StartRadio(const std::vector<std::string>& options = {});
  void StartKova();
  // With the radio's pseudo-terminal (--pty) as /dev/ttyS2; needs the right to make namespaces.
  void StartKovaOnSerial(const std::filesystem::path& pty);
  // All of them, each ready, and Kova told where the radio listens.
  void StartAll(const std::vector<std::string>& radio_options = {});
  // Tells Kova the radio's address, starts the link and waits until it is up.
  void LinkUp();

  // Runs zeltcli to its end.
  ToolResult Tool(const std::vector<std::string>& arguments);
  // The same, left running.
  std::unique_ptr<Process> ToolInBackground(const std::vector<std::string>& arguments);
  // Sends one line to the simulator's control channel and gives its answer.
  std::string Radio(const std::vector<std::string>& arguments);
  // Runs any program of the build in this system's environment.
  std::unique_ptr<Process> Run(const std::string& program,
                               const std::vector<std::string>& arguments);

  std::filesystem::path Root() const { return folder_ / "root"; }
  std::filesystem::path Folder() const { return folder_; }
  std::string RadioPort() const;
  const Process::Environment& Environment() const { return environment_; }

  std::unique_ptr<Process> bus;
  std::unique_ptr<Process> config;
  std::unique_ptr<Process> radio;
  std::unique_ptr<Process> kova;

 private:
  std::filesystem::path folder_;
  Process::Environment environment_;
};

void WriteFile(const std::filesystem::path& path, std::string_view text);
std::string ReadFile(const std::filesystem::path& path);

}  // namespace e2e
