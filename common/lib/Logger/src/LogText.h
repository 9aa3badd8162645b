#pragma once

#include "LogEntry.h"

#include <cstddef>
#include <ctime>
#include <string>
#include <string_view>

namespace zelt {

// No line is longer, its end of line included: so much goes into a pipe as one.
inline constexpr std::size_t kMaxLogLine = 4096;

// Appends `text` so that it can neither start a line of its own nor steer the reader's terminal:
// control characters (C1 ones included) and what is not UTF-8 become escapes. Stops before `out`
// gets longer than `limit`; returns how much of `text` is in it.
std::size_t AppendEscaped(std::string& out, std::string_view text, std::size_t limit);

// The same for the text of a line, which may have been cut before; says so where something is
// missing. `out` has room for that at least.
void AppendText(std::string& out, const LogEntry& entry, std::string_view text, std::size_t limit);

// Writes lines as they stand on standard error. One thread.
class LogText {
 public:
  // Appends "2026-01-03 10:11:12.345 I kova 0x800A Handle: text" and an end of line to `out`, with
  // "<6>" in front when the reader is the journal.
  void AppendLine(std::string& out, const LogEntry& entry, std::string_view text,
                  std::string_view identifier, bool with_priority);

 private:
  std::time_t second_ = -1;
  std::string second_text_;
};

// The datagram of a line for the journal: its fields, one a line. No value has a line end in it.
void AppendJournalFields(std::string& out, const LogEntry& entry, std::string_view text,
                         std::string_view identifier);

}  // namespace zelt
