#include "ConfigFile.h"

#include "zelt/RegularFile.h"

#include <toml++/toml.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace zelt {
namespace {

constexpr std::size_t kMaxTold = 20;
constexpr std::size_t kMaxQuoted = 80;  // bytes
constexpr std::array<std::string_view, 3> kTetheredModes = {"automatic", "never", "always"};

template <std::size_t size>
std::string_view TextOf(const std::array<char, size>& field) {
  return {field.data(), strnlen(field.data(), size)};
}

bool HasControl(std::string_view text) {
  return std::ranges::any_of(
      text, [](char c) { return static_cast<unsigned char>(c) < ' ' || c == 0x7F; });
}

// What a problem shows of a text from the file: without what would disturb a terminal, and no more
// than one can read.
std::string Quoted(std::string_view text) {
  std::string shown(text.substr(0, kMaxQuoted));
  std::ranges::replace_if(shown, [](char c) { return HasControl({&c, 1}); }, '?');
  return text.size() > kMaxQuoted ? shown + "..." : shown;
}

// Turns one parsed file into a record, and takes note of everything that is wrong on the way.
class Checker {
 public:
  explicit Checker(std::string path) : path_(std::move(path)) {}

  void Problem(std::uint32_t line, const std::string& text) { problems_.emplace(line, text); }

  ParsedConfig Check(const toml::table& root) {
    record_.officers.current = OfficerList::kCapacity;  // nobody
    bool has_mode = false;
    std::optional<std::pair<std::uint32_t, std::string>> current;
    for (const auto& [key, node] : root) {
      const std::string_view name = key.str();
      if (name == "working_mode") {
        has_mode = true;
        Text(name, node, 1, record_.workingMode);
      } else if (name == "tethered_streaming") {
        Mode(name, node, record_.tetheredStreaming);
      } else if (name == "tethered_uploading") {
        Mode(name, node, record_.tetheredUploading);
      } else if (name == "current_officer") {
        std::array<char, sizeof(OfficerRecord::id)> id{};
        if (Text(name, node, 1, id)) {
          current.emplace(node.source().begin.line, TextOf(id));
        }
      } else if (name == "officers") {
        Officers(name, node);
      } else {
        Unknown(key,
                "working_mode, tethered_streaming, tethered_uploading, current_officer, "
                "officers");
      }
    }
    if (!has_mode) {
      Problem(0, "working_mode: missing, expected a text of 1 to 32 bytes");
    }
    if (current) {
      Assign(current->first, current->second);
    }
    return Finish();
  }

  ParsedConfig Finish() {
    ParsedConfig result{.record = record_, .problems = {}, .problem_count = problems_.size()};
    for (const auto& [line, text] : problems_) {
      if (result.problems.size() == kMaxTold) {
        result.problems.push_back(path_ + ": " + std::to_string(problems_.size() - kMaxTold) +
                                  " more problems");
        break;
      }
      result.problems.push_back(path_ + ":" + (line == 0 ? "" : std::to_string(line) + ":") + " " +
                                text);
    }
    return result;
  }

 private:
  void Unknown(const toml::key& key, const char* known) {
    Problem(key.source().begin.line, Quoted(key.str()) + ": unknown key, expected one of " + known);
  }

  void Expected(std::string_view key, const toml::node& node, std::string_view what) {
    std::ostringstream text;
    text << key << ": expected " << what << ", found ";
    const auto value = node.value_exact<std::string>();
    if (value) {
      text << '"' << Quoted(*value) << '"';
    } else {
      text << node.type();
    }
    Problem(node.source().begin.line, text.str());
  }

  template <std::size_t size>
  bool Text(std::string_view key, const toml::node& node, std::size_t least,
            std::array<char, size>& field) {
    const auto value = node.value_exact<std::string>();
    if (!value || value->size() < least || value->size() >= size || HasControl(*value)) {
      Expected(key, node,
               "a text of " + std::to_string(least) + " to " + std::to_string(size - 1) +
                   " bytes without control characters");
      return false;
    }
    field.fill('\0');
    std::ranges::copy(*value, field.begin());
    return true;
  }

  void Mode(std::string_view key, const toml::node& node, TetheredMode& mode) {
    const auto value = node.value_exact<std::string>();
    const auto* const known = std::ranges::find(kTetheredModes, value.value_or(""));
    if (known == kTetheredModes.end()) {
      Expected(key, node, R"("automatic", "never" or "always")");
    } else {
      mode = static_cast<TetheredMode>(std::distance(kTetheredModes.begin(), known));
    }
  }

  void Officers(std::string_view key, const toml::node& node) {
    const toml::array* const list = node.as_array();
    if (list == nullptr || !std::ranges::all_of(*list, &toml::node::is_table)) {
      Expected(key, node, "[[officers]] sections");
      return;
    }
    for (const toml::node& entry : *list) {
      if (record_.officers.count == OfficerList::kCapacity) {
        Problem(entry.source().begin.line, "officers: expected at most " +
                                               std::to_string(OfficerList::kCapacity) + ", found " +
                                               std::to_string(list->size()));
        return;
      }
      Officer(*entry.as_table(), record_.officers.officers.at(record_.officers.count++));
    }
  }

  void Officer(const toml::table& table, OfficerRecord& officer) {
    for (const auto& [key, node] : table) {
      const std::string_view name = key.str();
      if (name == "id") {
        if (Text(name, node, 1, officer.id) && !ids_.emplace(TextOf(officer.id)).second) {
          Expected(name, node, "an id that no other officer has");
        }
      } else if (name == "name") {
        Text(name, node, 0, officer.name);
      } else if (name == "collaboration_enabled") {
        if (const auto flag = node.value_exact<bool>()) {
          officer.collaborationEnabled = *flag;
        } else {
          Expected(name, node, "true or false");
        }
      } else {
        Unknown(key, "id, name, collaboration_enabled");
      }
    }
    if (!table.contains("id")) {
      Problem(table.source().begin.line, "id: missing, expected a text of 1 to 32 bytes");
    }
  }

  void Assign(std::uint32_t line, const std::string& id) {
    OfficerList& list = record_.officers;
    for (list.current = 0; list.current < list.count; ++list.current) {
      if (TextOf(list.officers.at(list.current).id) == id) {
        return;
      }
    }
    Problem(line,
            "current_officer: expected the id of an officer of this file, found \"" + id + "\"");
  }

  const std::string path_;
  ConfigRecord record_{};
  std::set<std::string, std::less<>> ids_;
  std::multimap<std::uint32_t, std::string> problems_;  // text by line (0: none)
};

}  // namespace

ParsedConfig ReadConfigFile(const std::string& path) {
  Checker checker(path);
  try {
    return checker.Check(toml::parse(ReadTomlFile(path), path));
  } catch (const toml::parse_error& error) {
    checker.Problem(error.source().begin.line, std::string(error.description()));
    return checker.Finish();
  } catch (const std::runtime_error& error) {
    return {.record = {}, .problems = {error.what()}, .problem_count = 1};
  }
}

std::string Summary(const ConfigRecord& record) {
  const auto mode = [](TetheredMode value) {
    return kTetheredModes.at(static_cast<std::size_t>(value));
  };
  std::ostringstream text;
  const std::string_view current = TextOf(record.officers.GetCurrentOfficer().id);
  text << "working mode \"" << TextOf(record.workingMode) << "\", tethered streaming "
       << mode(record.tetheredStreaming) << ", tethered uploading "
       << mode(record.tetheredUploading) << ", " << record.officers.count
       << " officers, current officer " << (current.empty() ? "nobody" : current);
  return text.str();
}

}  // namespace zelt
