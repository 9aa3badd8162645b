#pragma once

#include "MessageTypes.h"
#include "Output.h"

#include <CLI/CLI.hpp>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace zelt::cli {

// What the command line may say, of whichever command.
struct Arguments {
  bool json = false;
  double timeout = 0;  // seconds; what the command line says, else what the command has
  bool timeout_given = false;

  std::string service;
  std::string type;
  std::string text = "{}";  // JSON, hexadecimal digits, a time, an address
  std::string name;
  std::string file;
  std::string url;
  std::string header;
  std::uint32_t selector = 0;
  std::uint32_t id = 1;
  std::uint64_t count = 0;
  std::uint32_t port = 0;
  bool yes = false;
  bool keep_pairings = false;
  std::vector<std::string> words;
};

// What a command works with.
struct Cli {
  const Arguments arguments;
  const Output output;
  const MessageTypes types;
};

struct Command {
  std::string_view path;  // one word, or a group and a word: "link up"
  std::string_view help;
  double timeout;  // seconds, unless the command line says otherwise; 0: without end
  void (*arguments)(CLI::App& app, Arguments& arguments);  // nullptr: it has none
  void (*run)(const Cli& cli);  // throws CliError when it does not succeed
};

std::span<const Command> Commands();

// Makes the application with all commands. What it parses goes to `arguments`, and the chosen
// command to `chosen`; both must outlive it.
std::unique_ptr<CLI::App> MakeApp(Arguments& arguments, const Command*& chosen);

// Returns what the last of `words` may become. They are those after the tool's own name; the last
// one may be empty or unfinished. "FILE" alone stands for the names of files.
std::vector<std::string> Completions(CLI::App& app, const std::vector<std::string>& words);

}  // namespace zelt::cli
