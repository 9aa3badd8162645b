#pragma once

#include "JsonObject.h"
#include "MessageTypes.h"
#include "Session.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace zelt::cli {

// What the user sees: text, with colour on a terminal that wants it, or one JSON object a line.
class Output {
 public:
  explicit Output(bool json);

  bool IsJson() const { return json_; }

  // Prints the result of a command: `text` for a human, `json` (with "ok" put first) for a script.
  void Result(const std::string& text, const JsonObject& json = {}) const;
  void Error(const CliError& error) const;
  // Says what the tool is about to do, for a human or a script that waits for it: on standard
  // error.
  void Notice(const std::string& text) const;

  // Prints one line for one message, with its time.
  void Message(const MessageTypes& types, const Incoming& message) const;

  enum class Style : std::uint8_t { Dim, Bold, Good, Bad };
  std::string Paint(Style style, std::string_view text) const;

 private:
  std::string Coloured(std::string_view code, std::string_view text) const;

  bool json_;
  bool colour_;
};

// Returns the message as JSON, or, when its type is not known or it does not parse, as {"hex":
// ...}.
std::string MessageJson(const MessageTypes& types, const Incoming& message, bool pretty = false);

// A line on the terminal that tells how long it takes: with a bar where the end is known, else
// with something that turns. Shows nothing when standard error is no terminal.
class Progress {
 public:
  Progress(std::string what, bool shown);
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  ~Progress() { Clear(); }

  void Show(std::optional<std::uint64_t> done, std::uint64_t total);
  void Clear();
  double Elapsed() const;

  // The line itself, at `elapsed` seconds.
  static std::string Line(const std::string& what, std::optional<std::uint64_t> done,
                          std::uint64_t total, double elapsed);

 private:
  const std::string what_;
  const bool shown_;
  bool drawn_ = false;
  const Clock::time_point start_ = Clock::now();
};

}  // namespace zelt::cli
