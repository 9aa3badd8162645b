#include "CliError.h"
#include "Commands.h"
#include "Output.h"
#include "Text.h"
#include "zelt/LogClient.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

namespace zelt::cli {
namespace {

// What the parser says, or the nearest commands when the first word is none.
CliError Explain(const CLI::ParseError& error, const std::vector<std::string>& words) {
  std::vector<std::string> names;
  for (const Command& command : Commands()) {
    names.emplace_back(command.path.substr(0, command.path.find(' ')));
  }
  const auto word =
      std::ranges::find_if(words, [](const auto& text) { return !text.starts_with('-'); });
  const bool known = word != words.end() && std::ranges::find(names, *word) != names.end();
  if (word != words.end() && !known &&
      dynamic_cast<const CLI::ConversionError*>(&error) == nullptr) {
    const std::string near = DidYouMean(*word, names);
    return {Exit::Usage, "there is no command \"" + *word + "\"",
            near.empty() ? "zeltcli --help lists them" : near};
  }
  return {Exit::Usage, error.what(), "zeltcli " + (known ? *word + " " : "") + "--help tells more"};
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
