#pragma once

#include "zelt/fake/TestBus.h"

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace e2e {

using Process = zelt::fake::ChildProcess;

struct ToolResult {
  int status = 0;
  std::string output;
};

// What zelt-testbed starts when it starts nothing else: a folder, ZELT_ROOT, and a bus.
class Testbed {
 public:
  Testbed();
  Testbed(const Testbed&) = delete;
  Testbed& operator=(const Testbed&) = delete;
  ~Testbed();

  const std::filesystem::path& Folder() const { return folder_; }
  std::string Address() const { return Value("ZELT_BUS_ADDRESS"); }
  void Kill() const;

 private:
  // Of what it prints.
  std::string Value(const std::string& variable) const;

  std::filesystem::path folder_;
  std::unique_ptr<Process> program_;
};

// A whole system of real processes on a testbed. Each part but the bus is started here, by name, so
// that a test can leave it out, halt it, kill it or start it again, and knows every line of it.
class Stack {
 public:
  Stack();

  void StartConfig();
  // `options` are those of radiosim, e.g. {"--faults", file}.
  void StartRadio(const std::vector<std::string>& options = {});
  void StartKova();
  // All of them, each ready, and the link up.
  void StartAll(const std::vector<std::string>& radio_options = {});
  // Tells Kova the radio's address, starts the link and waits until it is up.
  void LinkUp();

  // Runs zeltcli to its end.
  ToolResult Tool(const std::vector<std::string>& arguments);
  // Copies an image of `size` bytes to the radio, and leaves the tool running.
  std::unique_ptr<Process> Push(std::size_t size);
  // True when the radio's store has what Push sent last.
  bool RadioHasImage() const;
  // Sends one line to the simulator's control channel and gives its answer.
  std::string Radio(const std::vector<std::string>& arguments);
  // Starts any program of the build, or one by its path.
  std::unique_ptr<Process> Run(const std::string& program,
                               const std::vector<std::string>& arguments);

  std::filesystem::path Root() const { return Folder() / "bed/root"; }
  const std::filesystem::path& Folder() const { return bus.Folder(); }
  std::string RadioPort() const;

  Testbed bus;
  std::unique_ptr<Process> config;
  std::unique_ptr<Process> radio;
  std::unique_ptr<Process> kova;

 private:
  int started_ = 0;
};

void WriteFile(const std::filesystem::path& path, std::string_view text);
std::string ReadFile(const std::filesystem::path& path);

}  // namespace e2e
