#pragma once

#include "Processes.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace testbed {

struct Options {
  std::filesystem::path folder;    // empty: one of its own
  std::filesystem::path config;    // empty: the sample
  std::filesystem::path programs;  // empty: beside this program, or in the PATH
  std::vector<std::string> radio_options;
  std::vector<std::string> without;  // "config", "radio", "kova"
  bool serial = false;
  bool keeper = false;
  bool no_link = false;
  bool keep = false;
};

// Bus, Config, radio and Kova in a folder, with the environment of this process set to them.
//
// What does not come up throws std::runtime_error, which says where to look; the folder then stays.
class Testbed {
 public:
  // Makes the folder and its files. `processes` must outlive this.
  Testbed(Options options, Processes& processes);
  Testbed(const Testbed&) = delete;
  Testbed& operator=(const Testbed&) = delete;
  // Stops everything; removes the folder unless it is to be kept.
  ~Testbed();

  // Each part is ready when the next one is started, and the link is up at the end.
  void Start();
  // Runs a command to its end: its status.
  int Run(const Processes::Words& command);
  // Prints the environment and stays until a signal: 0; or until Kova has ended: 1.
  int Stay();

 private:
  struct Part {
    std::string name;
    pid_t pid;
  };

  bool Has(const std::string& part) const;
  std::string Program(const std::string& name) const;
  std::filesystem::path Log(const std::string& name) const;
  void Set(const std::string& name, const std::string& value);
  // Starts a part; `ready` says when it is.
  void StartPart(const std::string& name, const Processes::Words& command,
                 const std::function<bool()>& ready, Processes::Variables variables = {});
  // One that tells a supervisor when it is ready.
  void StartService(const std::string& name, const std::string& program);
  void StartRadio();
  // Runs a tool to its end.
  void Tool(const Processes::Words& command, const std::string& what);
  [[noreturn]] void Fail(const std::string& what, const std::string& log);
  void TellWhoHasEnded() const;

  const Options options_;
  Processes& processes_;
  std::filesystem::path sockets_;  // with a short path, since theirs must be
  std::filesystem::path folder_;
  std::filesystem::path beside_;  // the programs that are started
  bool keep_;
  std::vector<Part> parts_;
  std::string environment_;  // lines for a shell
};

}  // namespace testbed
