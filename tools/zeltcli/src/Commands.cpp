#include "Commands.h"

#include "CommandFunctions.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <memory>
#include <string>
#include <system_error>
#include <utility>

namespace zelt::cli {
namespace {

constexpr double kNoEnd = 24.0 * 3600;  // seconds; no wait for an answer is longer
constexpr double kLongestTimeout = 365 * kNoEnd;

constexpr const char* kExitHelp =
    "Exit status: 0 done, 1 refused or failed, 2 wrong usage, 3 no bus, 4 no such service, 5 not "
    "taken, 6 not permitted, 7 no answer.";

// The parser itself would take -1 for a very large number.
std::string IsWholeNumber(const std::string& text) {
  const bool good = !text.empty() && text.size() < 10 &&
                    text.find_first_not_of("0123456789") == std::string::npos;
  return good ? "" : "\"" + text + "\" is no whole number, or too large";
}

void ServiceOption(CLI::App& app, Arguments& arguments) {
  app.add_option("SERVICE", arguments.service, "The service's name, such as Kova")->required();
}

void MessageOptions(CLI::App& app, Arguments& arguments) {
  ServiceOption(app, arguments);
  app.add_option("TYPE", arguments.type, "The message's type (zeltcli types)")->required();
  app.add_option("JSON", arguments.text, "The message; - reads standard input, @FILE a file");
  app.add_option("--as", arguments.name, "Send it as the service of this name, such as Upgrade");
}

void CountOption(CLI::App& app, Arguments& arguments) {
  app.footer(
      "A line has the time, the sender, \">\" (sent to this tool) or \"*\" (published), the type "
      "and the message.");
  app.add_option("--count", arguments.count, "End after so many messages")->check(IsWholeNumber);
}

constexpr auto kCommands = std::to_array<Command>({
    {"services", "Who is on the bus, and in which state", 1, nullptr, Services},
    {"status", "The state of one service", 1, ServiceOption, Status},
    {"link status", "The state of the link to the radio", 5, nullptr, LinkStatus},
    {"link up", "Start the link and wait until it is up", 40, nullptr, LinkUp},
    {"link down", "Stop the link", 10, nullptr, LinkDown},
    {"link keep", "Whether the keeper keeps the link up", 5,
     [](CLI::App& app, Arguments& arguments) {
       app.add_option("SWITCH", arguments.name, "on, off, try or status")
           ->required()
           ->check(CLI::IsMember({"on", "off", "try", "status"}));
     },
     LinkKeep},
    {"link watch", "Print every state of the link", 0, CountOption, LinkWatch},
    {"socket set", "Reach the radio over the network", 5,
     [](CLI::App& app, Arguments& arguments) {
       app.add_option("IP", arguments.text, "Numeric address")->required();
       app.add_option("PORT", arguments.port, "1 to 65535")->required()->check(IsWholeNumber);
     },
     SetSocket},
    {"socket clear", "Reach the radio over the serial port", 5, nullptr, ClearSocket},
    {"version", "The radio's software version", 5, nullptr, Version},
    {"hardware-id", "The radio's hardware identity", 5, nullptr, HardwareId},
    {"datetime get", "The radio's date and time", 5, nullptr, GetDateTime},
    {"datetime set", "Set the radio's date and time", 5,
     [](CLI::App& app, Arguments& arguments) {
       app.add_option("TIME", arguments.text, "now, or such as \"2026-11-21 10:00:00 +01:00\"")
           ->required();
     },
     SetDateTimeOnRadio},
    {"firmware push", "Copy a file of the camera onto the radio", 0,
     [](CLI::App& app, Arguments& arguments) {
       app.add_option("FILE", arguments.file, "The image")->required();
       app.add_option("--as", arguments.name, "Its name on the radio (default: the file's own)");
     },
     PushFirmware},
    {"factory-reset", "Return the radio to its factory settings", 30,
     [](CLI::App& app, Arguments& arguments) {
       app.add_flag("--yes", arguments.yes, "Do not ask");
       app.add_flag("--keep-pairings", arguments.keep_pairings, "Keep the paired devices");
     },
     FactoryReset},
    {"inject", "Send raw bytes to the radio and print its answer", 10,
     [](CLI::App& app, Arguments& arguments) {
       app.add_option("HEX", arguments.text, "Opcode and body in hexadecimal")->required();
       app.add_option(
           "--header", arguments.header,
           "Up to seven numbers: address,kind,flags,source,destination,transaction,length; the "
           "link writes the true length");
     },
     Inject},
    {"video", "Tell the radio a video action", 5,
     [](CLI::App& app, Arguments& arguments) {
       app.add_option("ACTION", arguments.name, "Such as start-recording")->required();
       app.add_option("--url", arguments.url, "Where to stream to, for start-streaming");
       app.add_option("--selector", arguments.selector, "The part of the radio that is addressed")
           ->check(IsWholeNumber);
       app.add_option("--id", arguments.id, "The number of the request")->check(IsWholeNumber);
     },
     Video},
    {"types", "What Kova accepts and publishes; of one type its fields", 0,
     [](CLI::App& app, Arguments& arguments) {
       app.add_option("TYPE", arguments.type, "A message type");
     },
     Types},
    {"send", "Send a message to a service", 1, MessageOptions, Send},
    {"request", "Send a message to a service and print the answer", 5, MessageOptions, Request},
    {"listen", "Be a service, and print the messages that it gets", 0,
     [](CLI::App& app, Arguments& arguments) {
       app.add_option("--as", arguments.name, "The service's name, such as Upgrade")->required();
       CountOption(app, arguments);
     },
     Listen},
    {"subscribe", "Print what is published under a topic", 0,
     [](CLI::App& app, Arguments& arguments) {
       app.add_option("TOPIC", arguments.type, "A message type")->required();
       CountOption(app, arguments);
     },
     Subscribe},
    {"watch", "Print everything that is published", 0, CountOption, Watch},
    {"completion", "Print the completion script of a shell", 0,
     [](CLI::App& app, Arguments& arguments) {
       app.add_option("SHELL", arguments.name, "bash or zsh")->required();
     },
     Completion},
    {"__complete", "", 0,
     [](CLI::App& app, Arguments& arguments) {
       app.add_option("WORDS", arguments.words)->expected(-1);
     },
     Complete},
});

constexpr auto kGroups = std::to_array<std::pair<std::string_view, const char*>>({
    {"link", "The link to the radio"},
    {"socket", "How the radio is reached"},
    {"datetime", "The radio's date and time"},
    {"firmware", "The radio's firmware"},
});

}  // namespace

Clock::time_point Deadline(const Cli& cli) {
  const double seconds = cli.arguments.timeout;
  return seconds <= 0
             ? Clock::time_point::max()
             : Clock::now() + std::chrono::duration_cast<Clock::duration>(Seconds(seconds));
}

Seconds AnswerTime(const Cli& cli) {
  const double seconds = cli.arguments.timeout;
  return Seconds(seconds <= 0 ? kNoEnd : std::min(seconds, kNoEnd));
}

std::span<const Command> Commands() {
  return kCommands;
}

std::unique_ptr<CLI::App> MakeApp(Arguments& arguments, const Command*& chosen) {
  auto app = std::make_unique<CLI::App>(
      "Talks to the services of the camera, and through Kova to the radio.", "zeltcli");
  app->fallthrough();
  app->require_subcommand(1);
  app->add_flag("--json", arguments.json, "One JSON object a line, for scripts");
  app->add_option_function<std::string>(
         "--timeout",
         [&arguments](const std::string& text) {
           const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(),
                                                     arguments.timeout, std::chars_format::fixed);
           const double seconds = arguments.timeout;
           const bool in_range = seconds >= 0 && seconds <= kLongestTimeout;  // "nan" is not
           if (error != std::errc() || end != text.data() + text.size() || !in_range) {
             throw CLI::ValidationError(
                 "--timeout", "\"" + text + "\" is no number of seconds from 0 to a year's");
           }
           arguments.timeout_given = true;
         },
         "How long to wait for an answer (5 s for most commands), or to listen; 0 without end")
      ->type_name("SECONDS");
  app->set_version_flag("--version", KOVA_VERSION);
  for (const auto& [name, help] : kGroups) {
    app->add_subcommand(std::string(name), help)->require_subcommand(1);
  }
  for (const Command& command : kCommands) {
    CLI::App* parent = app.get();
    std::string name(command.path);
    if (const auto blank = name.find(' '); blank != std::string::npos) {
      parent = app->get_subcommand(name.substr(0, blank));
      name.erase(0, blank + 1);
    }
    CLI::App* const sub = parent->add_subcommand(name, std::string(command.help));
    if (name.starts_with("__")) {
      sub->group("");
    }
    if (command.arguments != nullptr) {
      command.arguments(*sub, arguments);
    }
    const auto seconds = static_cast<int>(command.timeout);
    const std::string own = sub->get_footer();
    sub->footer(own + (own.empty() ? "" : "\n") +
                "With every command: --json, --timeout SECONDS (here " +
                (seconds == 0 ? "no end" : std::to_string(seconds)) + " by default). " + kExitHelp);
    sub->final_callback([&chosen, &command] { chosen = &command; });
  }
  app->footer(std::string("zeltcli COMMAND --help tells more. ") + kExitHelp);
  return app;
}

}  // namespace zelt::cli
