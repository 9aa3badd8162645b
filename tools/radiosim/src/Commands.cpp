#include "ProtoJson.h"
#include "Simulator.h"

#include <algorithm>
#include <charconv>
#include <iomanip>
#include <sstream>
#include <utility>

// What can be said to a running simulator.
namespace radiosim {
namespace {

using orka::codec::Direction;
using orka::pel::FrameKind;

std::pair<std::string_view, std::string_view> SplitWord(std::string_view line) {
  line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
  const std::string_view word = line.substr(0, line.find(' '));
  std::string_view rest = line.substr(word.size());
  rest.remove_prefix(std::min(rest.find_first_not_of(' '), rest.size()));
  return {word, rest};
}

}  // namespace

struct Simulator::CommandRow {
  std::string_view name;
  std::string_view help;
  Reply (*run)(Simulator& simulator, std::string_view rest);
};

std::span<const Simulator::CommandRow> Simulator::Commands() {
  using Rest = std::string_view;
  static constexpr auto kCommands = std::to_array<CommandRow>({
      {"help", "what can be said here; \"help notify\": the messages with their types",
       [](Simulator&, Rest rest) { return Help(rest); }},
      {"notify", "NAME [JSON]: send a message to the camera",
       [](Simulator& simulator, Rest rest) { return simulator.Notify(rest); }},
      {"received", "[N|clear]: what the camera has sent, one JSON object a line",
       [](Simulator& simulator, Rest rest) { return simulator.TellReceived(rest); }},
      {"state", "the radio's state as JSON",
       [](Simulator& simulator, Rest) { return simulator.TellState(); }},
      {"fault", "KIND [KEY=VALUE]...|clear: add to the fault plan, or empty it",
       [](Simulator& simulator, Rest rest) { return simulator.AddFault(rest); }},
      {"faults", "how often each fault matched and fired",
       [](Simulator& simulator, Rest) -> Reply { return simulator.FaultReport(); }},
      {"silent", "on|off: send nothing",
       [](Simulator& simulator, Rest rest) { return simulator.SetSilent(rest); }},
      {"close", "close the link",
       [](Simulator& simulator, Rest) -> Reply {
         if (!simulator.link_.Close()) {
           return std::unexpected("no camera is connected");
         }
         return {};
       }},
      {"reboot", "restart: close the link and be away for a moment",
       [](Simulator& simulator, Rest) -> Reply {
         simulator.link_.Restart(std::chrono::milliseconds(0));
         return {};
       }},
      {"quit", "end the simulator",
       [](Simulator& simulator, Rest) -> Reply {
         if (simulator.on_quit) {
           simulator.on_quit();
         }
         return {};
       }},
  });
  return kCommands;
}

Simulator::Reply Simulator::Command(std::string_view line) {
  const auto [name, rest] = SplitWord(line);
  const auto row = std::ranges::find(Commands(), name, &CommandRow::name);
  if (row == Commands().end()) {
    return std::unexpected("unknown command \"" + std::string(name) + R"("; "help" lists them)");
  }
  return row->run(*this, rest);
}

Simulator::Reply Simulator::Help(std::string_view rest) {
  std::ostringstream text;
  if (rest == "notify") {
    for (const auto& row : orka::codec::kMessageTable) {
      if (row.direction == Direction::FromRadio) {
        text << row.name << ' ' << ProtoName(row.type) << '\n';
      }
    }
  } else {
    for (const CommandRow& row : Commands()) {
      text << std::left << std::setw(10) << row.name << row.help << '\n';
    }
  }
  return text.str();
}

Simulator::Reply Simulator::Notify(std::string_view rest) {
  const auto [name, json] = SplitWord(rest);
  const auto* row = FindRow(Direction::FromRadio, name);
  if (row == nullptr) {
    return std::unexpected("the radio sends no \"" + std::string(name) + R"("; see "help notify")");
  }
  const auto data = NotificationFromJson(row->alternative, json);
  if (!data) {
    return std::unexpected(std::string(name) + ": " + data.error());
  }
  if (!link_.HasCamera()) {
    return std::unexpected("no camera is connected");
  }
  std::uint16_t transaction = 0;
  if (row->kind == FrameKind::Response) {
    transaction =
        last_transactions_[static_cast<std::uint16_t>(row->opcode & ~orka::codec::kResponseBit)];
  } else if (row->kind == FrameKind::Request) {
    last_request_ = last_request_ == UINT16_MAX ? std::uint16_t{1}
                                                : static_cast<std::uint16_t>(last_request_ + 1);
    transaction = last_request_;
  }
  if (const auto sent = link_.Send(*row, *data, transaction, 0); !sent) {
    return std::unexpected(sent.error());
  }
  return {};
}

Simulator::Reply Simulator::TellReceived(std::string_view rest) {
  if (rest == "clear") {
    received_.clear();
    return {};
  }
  std::size_t count = received_.size();
  if (!rest.empty()) {
    const auto [end, failure] = std::from_chars(rest.data(), rest.data() + rest.size(), count);
    if (failure != std::errc() || end != rest.data() + rest.size()) {
      return std::unexpected("\"" + std::string(rest) + "\" is no number");
    }
  }
  std::string text;
  const std::size_t skip = received_.size() - std::min(count, received_.size());
  for (std::size_t i = skip; i < received_.size(); ++i) {
    text += received_[i] + '\n';
  }
  return text;
}

Simulator::Reply Simulator::TellState() const {
  json::State state = radio_.State();
  state.set_link_up(link_.HasCamera());
  state.set_silent(link_.IsSilent());
  state.set_away(link_.IsAway());
  state.set_received(static_cast<std::uint32_t>(received_count_));
  return ToJson(state) + '\n';
}

Simulator::Reply Simulator::AddFault(std::string_view rest) {
  if (rest == "clear") {
    plan_.Clear();
    return {};
  }
  if (const auto added = plan_.Add(rest); !added) {
    return std::unexpected(added.error());
  }
  return {};
}

Simulator::Reply Simulator::SetSilent(std::string_view rest) {
  if (rest != "on" && rest != "off") {
    return std::unexpected(R"("on" or "off" is expected)");
  }
  link_.SetSilent(rest == "on");
  return {};
}

}  // namespace radiosim
