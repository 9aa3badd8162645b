#include "CliError.h"
#include "Commands.h"
#include "Output.h"
#include "Words.h"
#include "zelt/LogClient.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <iterator>
#include <optional>
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

// The first option that neither the tool nor the command has, as an error; nothing when there is
// none, or when the command does not exist.
std::optional<CliError> UnknownOption(const CLI::App& app, const std::vector<std::string>& words) {
  const CLI::App* command = &app;
  for (std::size_t i = 0; i < words.size(); ++i) {
    const std::string name = words[i].substr(0, words[i].find('='));
    if (name == "--timeout") {
      i += name == words[i] ? 1 : 0;
    } else if (name.starts_with("--")) {
      if (name.size() > 2 && command->get_option_no_throw(name) == nullptr &&
          app.get_option_no_throw(name) == nullptr) {
        std::vector<std::string> names;
        for (const CLI::App* const level : {&app, command}) {
          std::ranges::transform(level->get_options(), std::back_inserter(names),
                                 [](const CLI::Option* option) { return option->get_name(); });
        }
        const std::string near = DidYouMean(name, names);
        return CliError(
            Exit::Usage, "there is no option \"" + name + "\"",
            near.empty() ? "zeltcli --help lists the tool's, zeltcli COMMAND --help the command's"
                         : near);
      }
    } else if (const auto subs = command->get_subcommands({}); !subs.empty()) {
      const auto found = std::ranges::find(subs, name, &CLI::App::get_name);
      if (found == subs.end()) {
        break;
      }
      command = *found;
    }
  }
  return std::nullopt;
}

// What the parser says; or, when an option or the command does not exist, so, with the commands
// that look like it.
CliError Explain(const CLI::App& app, const CLI::ParseError& error,
                 const std::vector<std::string>& words) {
  if (const auto unknown = UnknownOption(app, words)) {
    return *unknown;
  }
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
    const CliError explained = Explain(*app, error, words);
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
  } catch (const std::exception& error) {
    const CliError failed(Exit::Failed, error.what());
    output.Error(failed);
    return static_cast<int>(failed.exit);
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
