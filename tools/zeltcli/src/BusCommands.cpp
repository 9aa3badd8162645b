#include "Accepted.h"
#include "CommandFunctions.h"
#include "Session.h"
#include "TypesText.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <sstream>

namespace zelt::cli {
namespace {

// The message of the command line: its JSON, "-" for standard input or "@FILE" for a file.
MessageValue GivenMessage(const Cli& cli) {
  const auto& type = cli.types.Find(cli.arguments.type);
  std::string json = cli.arguments.text;
  if (json == "-") {
    json.assign(std::istreambuf_iterator<char>(std::cin), {});
  } else if (json.starts_with('@')) {
    const std::string path = json.substr(1);
    std::ifstream file(path);
    if (!file || std::filesystem::is_directory(path)) {
      throw CliError(Exit::Usage,
                     "cannot read " + path + ": " + std::strerror(file ? EISDIR : errno));
    }
    json.assign(std::istreambuf_iterator<char>(file), {});
  }
  return cli.types.FromJson(type, json);
}

// Prints what arrives until the time or the count is reached or the user ends it.
void Print(const Cli& cli, Session& session) {
  CatchInterrupts();
  const auto deadline = Deadline(cli);
  std::uint64_t left = cli.arguments.count;
  while (const auto message = session.Next(deadline)) {
    cli.output.Message(cli.types, *message);
    if (left == 1) {
      return;
    }
    left -= left > 0 ? 1 : 0;
  }
  if (left > 0 && !Interrupted()) {
    throw CliError(Exit::TimedOut, std::to_string(left) + " of " +
                                       std::to_string(cli.arguments.count) +
                                       " messages did not come in time");
  }
}

// What Kova and Keeper publish is taken from them alone; whoever wants to see all sees who sent it.
void Follow(const Cli& cli, const std::string& topic) {
  const bool is_kovas = std::ranges::find(kTopicsOfKova, topic) != kTopicsOfKova.end();
  const char* const other = topic == kKeepStatus ? kKeeper : "";
  Session session;
  session.Subscribe(topic, is_kovas ? kKova : other);
  cli.output.Notice("subscribed to " + (topic.empty() ? "everything" : topic));
  Print(cli, session);
}

}  // namespace

void Services(const Cli& cli) {
  const auto services = Connect()->ListServices(AnswerTime(cli));
  std::ostringstream text;
  std::vector<std::string> items;
  for (const auto& service : services) {
    std::string state =
        service.answered ? service_state::GetServiceStateString(service.state) : "does not answer";
    auto style =
        service.state == service_state::State::Ready ? Output::Style::Good : Output::Style::Bad;
    if (IsTool(service.name)) {
      state = "(tool)";
      style = Output::Style::Dim;
    }
    text << (items.empty() ? "" : "\n") << std::left << std::setw(24) << service.name << ' '
         << cli.output.Paint(style, state);
    items.push_back(JsonObject().Add("name", service.name).Add("state", state).Str());
  }
  cli.output.Result(items.empty() ? "there is no service on the bus" : text.str(),
                    JsonObject().AddRaw("services", JsonObject::Array(items)));
}

void Status(const Cli& cli) {
  const std::string& service = cli.arguments.service;
  const auto state = StateOf(service, AnswerTime(cli));
  const std::string text = service_state::GetServiceStateString(state);
  cli.output.Result(text, JsonObject()
                              .Add("service", service)
                              .Add("state", text)
                              .Add("value", static_cast<std::int64_t>(state)));
}

void Send(const Cli& cli) {
  const auto message = GivenMessage(cli);
  Session session(cli.arguments.name);
  session.Send(cli.arguments.service, message.Type(), message.Bytes());
  cli.output.Result(cli.arguments.service + " took " + message.Type());
}

void Request(const Cli& cli) {
  const auto message = GivenMessage(cli);
  Session session(cli.arguments.name);
  const Incoming answer =
      session.Request(cli.arguments.service, message.Type(), message.Bytes(), AnswerTime(cli));
  cli.output.Result(cli.output.Paint(Output::Style::Bold, answer.type) + " " +
                        MessageJson(cli.types, answer, true),
                    JsonObject()
                        .Add("from", answer.sender)
                        .Add("type", answer.type)
                        .AddRaw("message", MessageJson(cli.types, answer)));
}

void Listen(const Cli& cli) {
  Session session(cli.arguments.name);
  cli.output.Notice("listening as " + session.Name());
  Print(cli, session);
}

void Subscribe(const Cli& cli) {
  Follow(cli, cli.types.Find(cli.arguments.type).full_name());
}
void Watch(const Cli& cli) {
  Follow(cli, "");
}
void LinkWatch(const Cli& cli) {
  Follow(cli, kLinkStatus);
}

void Types(const Cli& cli) {
  if (cli.arguments.type.empty()) {
    cli.output.Result(TypesText(cli.output), JsonObject().AddRaw("types", TypesJson(cli.types)));
    return;
  }
  const auto& type = cli.types.Find(cli.arguments.type);
  cli.output.Result(TypeText(cli.types, type, cli.output),
                    JsonObject().AddRaw("type", TypeJson(type)));
}

}  // namespace zelt::cli
