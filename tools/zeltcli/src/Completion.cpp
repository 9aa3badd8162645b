#include "Accepted.h"
#include "CommandFunctions.h"
#include "Session.h"

#include <algorithm>
#include <cstddef>
#include <iostream>
#include <regex>
#include <utility>

namespace zelt::cli {
namespace {

// Bash takes words apart at ':' and '@'; it puts in only what follows the last ':', but all of a
// word that begins with '@'.
constexpr const char* kBashCompletion = R"sh(_zeltcli() {
  local IFS=$'\n' word last words=()
  for word in "${COMP_WORDS[@]:1:COMP_CWORD}"; do
    if [[ ${#words[@]} -gt 0 && ( $word == :* || ${words[-1]} == *: || ${words[-1]} == @ ) ]]; then
      words[-1]+=$word
    else
      words+=("$word")
    fi
  done
  last=${words[-1]}
  COMPREPLY=($(zeltcli __complete -- "${words[@]}" 2>/dev/null))
  if [[ "${COMPREPLY[*]}" == FILE && $last == @* ]]; then
    compopt -o nospace
    COMPREPLY=($(compgen -P @ -f -- "${last#@}"))
  elif [[ "${COMPREPLY[*]}" == FILE ]]; then
    compopt -o filenames
    COMPREPLY=($(compgen -f -- "$last"))
  fi
  COMPREPLY=("${COMPREPLY[@]#"${last%"${last##*:}"}"}")
}
complete -F _zeltcli zeltcli)sh";

constexpr const char* kZshCompletion = R"sh(#compdef zeltcli
_zeltcli() {
  local -a candidates
  candidates=(${(f)"$(zeltcli __complete -- "${words[@]:1:$((CURRENT - 1))}" 2>/dev/null)"})
  if [[ "${candidates[*]}" == FILE ]]; then
    compset -P @
    _files
  else
    compadd -- $candidates
  fi
}
compdef _zeltcli zeltcli)sh";

// For the argument after `before`, where `last` has been typed of it.
std::vector<std::string> CandidatesFor(const std::string& argument, std::string_view before,
                                       std::string_view last) {
  const MessageTypes types;
  if (argument == "SERVICE") {
    return ServiceNames();
  }
  if (argument == "TYPE" && before == kKova) {
    std::vector<std::string> names;
    names.reserve(kAcceptedByKova.size());
    for (const AcceptedType& accepted : kAcceptedByKova) {
      names.emplace_back(accepted.type);
    }
    return names;
  }
  if (argument == "TYPE") {
    return types.Names();
  }
  if (argument == "TOPIC") {
    return {kTopicsOfKova.begin(), kTopicsOfKova.end()};
  }
  if (argument == "ACTION") {
    return VideoActions(types);
  }
  if (argument == "SWITCH") {
    return {"off", "on", "status", "try"};
  }
  if (argument == "SHELL") {
    return {"bash", "zsh"};
  }
  if (argument == "TIME") {
    return {"now"};
  }
  const bool file = argument == "FILE" || (argument == "JSON" && last.starts_with('@'));
  return file ? std::vector<std::string>{"FILE"} : std::vector<std::string>{};
}

CLI::App* FindSubcommand(CLI::App& parent, const std::string& name) {
  const auto subs =
      parent.get_subcommands([&name](const CLI::App* sub) { return sub->get_name() == name; });
  return subs.empty() ? nullptr : subs.front();
}

}  // namespace

void Completion(const Cli& cli) {
  const bool bash = cli.arguments.name == "bash";
  if (!bash && cli.arguments.name != "zsh") {
    throw CliError(Exit::Usage, "there is no completion for \"" + cli.arguments.name + "\"",
                   "give bash or zsh");
  }
  const std::string script = bash ? kBashCompletion : kZshCompletion;
  cli.output.Result(script, JsonObject().Add("script", script));
}

void Complete(const Cli& cli) {
  Arguments ignored;
  const Command* chosen = nullptr;
  const auto app = MakeApp(ignored, chosen);
  for (const std::string& candidate : Completions(*app, cli.arguments.words)) {
    std::cout << candidate << '\n';
  }
}

std::vector<std::string> Completions(CLI::App& app, const std::vector<std::string>& words) {
  const std::string last = words.empty() ? "" : words.back();
  CLI::App* command = &app;
  const CLI::Option* wants_value = nullptr;
  std::size_t positionals = 0;
  std::string before;  // the last of them
  for (std::size_t i = 0; i + 1 < words.size(); ++i) {
    if (std::exchange(wants_value, nullptr) != nullptr) {
      continue;
    }
    if (words[i].starts_with('-')) {
      const CLI::Option* option = command->get_option_no_throw(words[i]);
      option = option == nullptr ? app.get_option_no_throw(words[i]) : option;
      wants_value = option != nullptr && option->get_expected_min() > 0 ? option : nullptr;
    } else if (CLI::App* const sub = FindSubcommand(*command, words[i])) {
      command = sub;
    } else {
      ++positionals;
      before = words[i];
    }
  }
  std::vector<std::string> candidates;
  if (wants_value == nullptr && last.starts_with('-')) {
    for (const CLI::App* const level :
         {static_cast<const CLI::App*>(command), static_cast<const CLI::App*>(&app)}) {
      for (const CLI::Option* const option : level->get_options()) {
        if (!option->get_positional()) {
          candidates.push_back(option->get_name());
        }
      }
    }
  } else if (wants_value == nullptr) {
    for (const CLI::App* const sub : command->get_subcommands({})) {
      if (!sub->get_group().empty()) {
        candidates.push_back(sub->get_name());
      }
    }
    for (const CLI::Option* const option : command->get_options()) {
      if (option->get_positional() && positionals-- == 0) {
        candidates = CandidatesFor(option->get_name(), before, last);
        break;
      }
    }
  }
  if (last.contains(':')) {
    for (std::string& candidate : candidates) {
      candidate = std::regex_replace(candidate, std::regex("[.]"), "::");
    }
  }
  std::erase_if(candidates, [&last](const std::string& candidate) {
    return candidate != "FILE" && !candidate.starts_with(last);
  });
  std::ranges::sort(candidates);
  const auto repeated = std::ranges::unique(candidates);
  candidates.erase(repeated.begin(), repeated.end());
  return candidates;
}

}  // namespace zelt::cli
