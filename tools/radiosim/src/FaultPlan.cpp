#include "FaultPlan.h"

#include "orka/codec/MessageTable.h"
#include "zelt/RegularFile.h"

#include <toml++/toml.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace radiosim {
namespace {

enum class Frames : std::uint8_t { Radio, Camera, Either };  // whose frames a fault can hit

struct KindRow {
  FaultKind kind;
  std::string_view name;
  std::string_view message;  // the only one that it can do something to
  Frames frames;
  bool camera_link_control = false;  // whether it can hit the camera's link control
};
constexpr std::array kKinds = std::to_array<KindRow>({
    {FaultKind::Drop, "drop", "", Frames::Either, true},
    {FaultKind::Duplicate, "duplicate", "", Frames::Either},
    {FaultKind::Delay, "delay", "", Frames::Either},
    {FaultKind::Reorder, "reorder", "", Frames::Radio},
    {FaultKind::Corrupt, "corrupt", "", Frames::Radio},
    {FaultKind::Truncate, "truncate", "", Frames::Radio},
    {FaultKind::HalfFrame, "half-frame", "", Frames::Radio},
    {FaultKind::WrongTransaction, "wrong-transaction", "", Frames::Radio},
    {FaultKind::WrongChunk, "wrong-chunk", "TransferDataResponse", Frames::Radio},
    {FaultKind::WrongName, "wrong-name", "FileAccessResponse", Frames::Radio},
    {FaultKind::WrongSize, "wrong-size", "FileAccessResponse", Frames::Radio},
    {FaultKind::RefuseAccess, "refuse-access", "FileAccessResponse", Frames::Radio},
    {FaultKind::RefuseChunk, "refuse-chunk", "TransferDataResponse", Frames::Radio},
    {FaultKind::Reboot, "reboot", "", Frames::Either, true},
    {FaultKind::Silent, "silent", "", Frames::Either},
    {FaultKind::NoHandshake, "no-handshake", "Hello", Frames::Camera, true},
});
constexpr std::array<std::string_view, 4> kLinkControl = {"Hello", "HelloAnswer", "KeepAlive",
                                                          "Goodbye"};

const KindRow& RowOf(FaultKind kind) {
  return *std::ranges::find(kKinds, kind, &KindRow::kind);
}

bool IsRefusal(const FaultRule& rule) {
  return rule.kind == FaultKind::RefuseAccess || rule.kind == FaultKind::RefuseChunk;
}

template <class T>
bool ParseNumber(std::string_view text, T& value) {
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), value);
  return failure == std::errc() && end == text.data() + text.size();
}

// Sets what one word of a rule says.
std::expected<void, std::string> SetWord(FaultRule& rule, std::string_view key,
                                         std::string_view value) {
  bool ok = true;
  if (key == "message") {
    rule.message = value;
  } else if (key == "direction") {
    rule.incoming = value == "in";
    ok = value == "in" || value == "out";
  } else if (key == "chunk") {
    ok = ParseNumber(value, rule.chunk.emplace());
  } else if (key == "after") {
    ok = ParseNumber(value, rule.after);
  } else if (key == "count") {
    ok = ParseNumber(value, rule.count);
  } else if (key == "probability") {
    ok = ParseNumber(value, rule.probability) && rule.probability >= 0 && rule.probability <= 1;
  } else if (key == "delay_ms") {
    std::uint32_t milliseconds = 0;
    ok = ParseNumber(value, milliseconds);
    rule.delay = std::chrono::milliseconds(milliseconds);
  } else if (key == "result") {
    ok = ParseNumber(value, rule.result) && rule.result != 0;
  } else {
    return std::unexpected(
        "unknown key \"" + std::string(key) +
        "\"; known are message, direction, chunk, after, count, probability, delay_ms, result");
  }
  if (!ok) {
    return std::unexpected("\"" + std::string(value) + "\" makes no sense for " + std::string(key));
  }
  return {};
}

std::expected<FaultRule, std::string> MakeRule(std::string_view kind) {
  const auto* row = std::ranges::find(kKinds, kind, &KindRow::name);
  if (row == kKinds.end()) {
    std::string error = "unknown fault \"" + std::string(kind) + "\"; known are";
    for (const KindRow& known : kKinds) {
      error.append(" ").append(known.name);
    }
    return std::unexpected(error);
  }
  FaultRule rule;
  rule.kind = row->kind;
  rule.message = row->message;
  rule.incoming = row->frames == Frames::Camera;
  return rule;
}

// Refuses a rule that could never do anything, which would else be counted as if it had.
std::expected<void, std::string> Check(const FaultRule& rule) {
  const KindRow& row = RowOf(rule.kind);
  const std::string name(row.name);
  const std::string sender = rule.incoming ? "camera" : "radio";
  const bool link_control = std::ranges::count(kLinkControl, rule.message) > 0;
  const auto* message = orka::codec::FindRow(
      rule.incoming ? orka::codec::Direction::ToRadio : orka::codec::Direction::FromRadio,
      rule.message);
  if (row.frames == (rule.incoming ? Frames::Radio : Frames::Camera)) {
    return std::unexpected(name + " is for frames of the " + (rule.incoming ? "radio" : "camera") +
                           " only");
  }
  if (!row.message.empty() && rule.message != row.message) {
    return std::unexpected(name + " is for " + std::string(row.message) + " only");
  }
  if (!rule.message.empty() && message == nullptr &&
      (!link_control || rule.message == (rule.incoming ? "HelloAnswer" : "Hello"))) {
    return std::unexpected("the " + sender + " sends no \"" + rule.message + "\"");
  }
  if (rule.incoming && link_control && !row.camera_link_control) {
    return std::unexpected(name + " does nothing to the camera's link control");
  }
  if (rule.kind == FaultKind::WrongTransaction && !rule.message.empty() &&
      (message == nullptr || message->kind != orka::pel::FrameKind::Response)) {
    return std::unexpected(name + " is for responses only");
  }
  if (rule.chunk && !rule.message.empty() &&
      rule.message != (rule.incoming ? "TransferDataRequest" : "TransferDataResponse")) {
    return std::unexpected(rule.message + " has no chunk number");
  }
  return {};
}

// A TOML value as the word that it would be in a rule.
std::optional<std::string> WordOf(const toml::node& value) {
  std::ostringstream text;
  if (const auto word = value.value_exact<std::string>()) {
    text << *word;
  } else if (const auto number = value.value_exact<std::int64_t>()) {
    text << *number;
  } else if (const auto fraction = value.value_exact<double>()) {
    text << *fraction;
  } else {
    return std::nullopt;
  }
  return text.str();
}

}  // namespace

std::expected<void, std::string> FaultPlan::Add(std::string_view words) {
  std::istringstream stream{std::string(words)};
  std::string word;
  stream >> word;
  auto rule = MakeRule(word);
  if (!rule) {
    return std::unexpected(rule.error());
  }
  while (stream >> word) {
    const std::size_t equals = word.find('=');
    if (equals == std::string::npos) {
      return std::unexpected("\"" + word + "\" is not KEY=VALUE");
    }
    const std::string_view text = word;
    if (const auto set = SetWord(*rule, text.substr(0, equals), text.substr(equals + 1)); !set) {
      return set;
    }
  }
  if (const auto sound = Check(*rule); !sound) {
    return sound;
  }
  rules_.push_back(std::move(*rule));
  return {};
}

std::expected<void, std::string> FaultPlan::Load(const std::string& path) {
  toml::table file;
  try {
    file = toml::parse(zelt::ReadTomlFile(path), path);
  } catch (const toml::parse_error& failure) {
    std::ostringstream text;
    text << path << ':' << failure.source().begin.line << ": " << failure.description();
    return std::unexpected(text.str());
  } catch (const std::runtime_error& failure) {
    return std::unexpected(failure.what());
  }
  const auto refuse = [&](const toml::node& node, const std::string& why) {
    return std::unexpected(path + ":" + std::to_string(node.source().begin.line) + ": " + why);
  };
  for (const auto& [key, node] : file) {
    if (key == "seed" || key == "bits_per_second") {
      const auto number = node.value<std::int64_t>();
      if (!number || *number < 0 || *number > UINT32_MAX) {
        return refuse(node, std::string(key.str()) + ": a whole number is expected");
      }
      if (key == "seed") {
        Seed(static_cast<std::uint64_t>(*number));
      } else {
        bits_per_second_ = static_cast<std::uint32_t>(*number);
      }
      continue;
    }
    const toml::array* faults = node.as_array();
    if (key != "fault" || faults == nullptr || !faults->is_array_of_tables()) {
      return refuse(node,
                    "\"" + std::string(key.str()) +
                        "\" is not expected here; known are seed, bits_per_second and [[fault]]");
    }
    for (const toml::node& element : *faults) {
      const toml::table& fault = *element.as_table();
      auto rule = MakeRule(fault["kind"].value_or(std::string()));
      if (!rule) {
        return refuse(element, rule.error());
      }
      for (const auto& [name, value] : fault) {
        if (name == "kind") {
          continue;
        }
        const auto word = WordOf(value);
        if (!word) {
          return refuse(value, "\"" + std::string(name.str()) + "\" is neither text nor a number");
        }
        if (const auto set = SetWord(*rule, name.str(), *word); !set) {
          return refuse(value, set.error());
        }
      }
      if (const auto sound = Check(*rule); !sound) {
        return refuse(element, sound.error());
      }
      rules_.push_back(std::move(*rule));
    }
  }
  return {};
}

std::vector<const FaultRule*> FaultPlan::Fire(bool incoming, std::string_view message,
                                              bool is_response, bool is_link_control,
                                              std::optional<std::uint16_t> chunk) {
  std::vector<const FaultRule*> firing;
  for (FaultRule& rule : rules_) {
    const bool names_it = rule.message.empty() ? !is_link_control : rule.message == message;
    if (rule.incoming == incoming && names_it && (!rule.chunk || rule.chunk == chunk) &&
        (rule.kind != FaultKind::WrongTransaction || is_response) && !IsRefusal(rule) &&
        Fires(rule)) {
      firing.push_back(&rule);
    }
  }
  return firing;
}

std::optional<orka::qrx::Result> FaultPlan::Refuse(std::string_view message,
                                                   std::optional<std::uint16_t> chunk) {
  for (FaultRule& rule : rules_) {
    if (IsRefusal(rule) && rule.message == message && (!rule.chunk || rule.chunk == chunk) &&
        Fires(rule)) {
      return static_cast<orka::qrx::Result>(rule.result);
    }
  }
  return std::nullopt;
}

bool FaultPlan::Fires(FaultRule& rule) {
  ++rule.matched;
  if (rule.matched <= rule.after || (rule.count != 0 && rule.fired >= rule.count) ||
      (rule.probability < 1 && std::uniform_real_distribution<>()(random_) >= rule.probability)) {
    return false;
  }
  ++rule.fired;
  return true;
}

std::size_t FaultPlan::Random(std::size_t limit) {
  return std::uniform_int_distribution<std::size_t>(0, limit - 1)(random_);
}

std::string FaultPlan::Report() const {
  std::ostringstream text;
  for (const FaultRule& rule : rules_) {
    text << "fault " << RowOf(rule.kind).name << " direction=" << (rule.incoming ? "in" : "out")
         << " message=" << (rule.message.empty() ? "*" : rule.message);
    if (rule.chunk) {
      text << " chunk=" << *rule.chunk;
    }
    text << ": matched " << rule.matched << ", fired " << rule.fired << '\n';
  }
  return text.str();
}

}  // namespace radiosim
