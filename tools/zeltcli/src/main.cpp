#include "CliError.h"
#include "Commands.h"
#include "Output.h"
#include "Text.h"
#include "zelt/LogClient.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

namespace zelt::cli {
namespace {

// The words of the command line that are neither options nor the value of --timeout.
std::vector<std::string> PlainWords(const std::vector<std::string>& words) {
  std::vector<std::string> plain;
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (words[i] == "--timeout") {
      ++i;
    } else if (!words[i].starts_with('-')) {
      plain.push_back(words[i]);
    }
  }
  return plain;
}

// What the parser says; or, when the command does not exist, those that look like it.
CliError Explain(const CLI::ParseError& error, const std::vector<std::string>& words) {
  std::string given;
  for (const std::string& word : PlainWords(words)) {
    const bool first = given.empty();
    given += first ? word : " " + word;
    std::vector<std::string> names;
    bool known = false;
    bool whole = false;
    for (const Command& command : Commands()) {
      whole = whole || command.path == given;
      known = known || whole || command.path.starts_with(given + " ");
      names.emplace_back(first ? command.path.substr(0, command.path.find(' ')) : command.path);
    }
    if (!known) {
      const std::string near = DidYouMean(given, names);
      return {Exit::Usage, "there is no command \"" + given + "\"",
              near.empty() ? "zeltcli --help lists them" : near};
    }
    if (whole) {
      break;  // what follows are its arguments
    }
  }
  return {Exit::Usage, error.what(),
          "zeltcli " + given + (given.empty() ? "" : " ") + "--help tells more"};
}

int Main(int argc, char** argv) {
  // What goes wrong is told once, in the tool's own words.
  if (std::getenv("ZELT_LOG_LEVEL") == nullptr) {
    LogClient::SetLevel(0);
  }
  Arguments arguments;
  const Command* command = nullptr;
  const auto app = MakeApp(arguments, command);
  try {
    app->parse(argc, argv);
  } catch (const CLI::Success& done) {
    return app->exit(done);
  } catch (const CLI::ParseError& error) {
    const std::vector<std::string> words(argv + 1, argv + argc);
    const CliError explained = Explain(error, words);
    Output(std::ranges::find(words, "--json") != words.end()).Error(explained);
    return static_cast<int>(explained.exit);
  }
  if (!arguments.timeout_given) {
    arguments.timeout = command->timeout;
  }
  const Output output(arguments.json);
  try {
    command->run({.arguments = arguments, .output = output, .types = {}});
    std::cout.flush();
    return static_cast<int>(Exit::Ok);
  } catch (const CliError& error) {
    output.Error(error);
    return static_cast<int>(error.exit);
  }
}

}  // namespace
}  // namespace zelt::cli

int main(int argc, char** argv) {
  try {
    return zelt::cli::Main(argc, argv);
  } catch (const std::exception& error) {
    std::cerr << "zeltcli: " << error.what() << '\n';
    return static_cast<int>(zelt::cli::Exit::Failed);
  }
}
