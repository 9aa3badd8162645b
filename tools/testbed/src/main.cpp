#include "Testbed.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <exception>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr int kExitFailed = 125;  // this program's own fault, as with other programs of its kind

// Splits the command line at "--": the options, and the command to run.
std::pair<std::vector<std::string>, std::vector<std::string>> Split(int argc, char** argv) {
  const std::vector<std::string> words(argv + 1, argv + argc);
  const auto end = std::ranges::find(words, "--");
  return {{words.begin(), end}, {end == words.end() ? end : end + 1, words.end()}};
}

int Main(int argc, char** argv) {
  auto [words, command] = Split(argc, argv);
  testbed::Options options;
  std::string fault_plan;
  CLI::App app(
      "A whole camera to test against: a private bus, Config, the simulated radio and Kova, with "
      "the link up, for as long as COMMAND runs.\n"
      "Without COMMAND, it stays until Ctrl-C, and prints its environment.\n"
      "Example: zelt-testbed -- pytest tests");
  app.name("zelt-testbed");
  app.set_version_flag("--version", KOVA_VERSION);
  app.add_flag("--serial", options.serial, "the radio is at the serial port, not on the network");
  app.add_flag("--keeper", options.keeper, "start zelt-keeper, too, which keeps the link up");
  app.add_flag("--no-link", options.no_link, "do not start the link");
  app.add_option("--without", options.without, "do not start this part; any number of times")
      ->check(CLI::IsMember({"config", "radio", "kova"}))
      ->expected(1)
      ->take_all();
  app.add_option("--faults", fault_plan, "what the radio does wrong, a TOML file")
      ->check(CLI::ExistingFile);
  app.add_option("--radio-option", options.radio_options,
                 "an option for radiosim, as --radio-option=--battery=10; any number of times")
      ->expected(1)
      ->take_all();
  app.add_option("--config", options.config, "the configuration, in place of the sample")
      ->check(CLI::ExistingFile);
  app.add_option("--programs", options.programs,
                 "folder of the programs; else those beside this one, or in the PATH")
      ->check(CLI::ExistingDirectory);
  app.add_option("--folder", options.folder,
                 "a new or empty folder for logs and files, which stays");
  app.add_flag("--keep", options.keep, "keep the logs also when all went well");
  std::vector<std::string> astray;
  app.add_option("COMMAND", astray, "what to run, after --");
  try {
    std::ranges::reverse(words);  // as the parser wants them
    app.parse(std::move(words));
    if (!astray.empty()) {
      throw CLI::ValidationError("COMMAND", "wants -- before it");
    }
  } catch (const CLI::ParseError& failure) {
    return app.exit(failure) == 0 ? 0 : kExitFailed;
  }
  if (!fault_plan.empty()) {
    options.radio_options.insert(options.radio_options.end(), {"--faults", fault_plan});
  }

  testbed::Processes processes;
  testbed::Testbed testbed(std::move(options), processes);
  try {
    testbed.Start();
  } catch (const testbed::Interrupted& interrupted) {
    return 128 + interrupted.signal;
  }
  return command.empty() ? testbed.Stay() : testbed.Run(command);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Main(argc, argv);
  } catch (const std::exception& error) {
    std::cerr << "zelt-testbed: " << error.what() << '\n';
    return kExitFailed;
  }
}
