#pragma once

#include "LogQueue.h"
#include "LogText.h"
#include "zelt/FileDescriptor.h"

#include <sys/stat.h>

#include <atomic>
#include <string>
#include <string_view>
#include <utility>

namespace zelt {

// Where lines go.
struct LogChoice {
  bool standard_error = true;
  bool journal = false;
  bool priorities = false;  // standard error is the journal's stream, which reads them

  bool operator==(const LogChoice&) const = default;
};

// `asked` is the value of ZELT_LOG_JOURNAL and `stream` that of JOURNAL_STREAM (device and inode of
// the journal's stream, "8:1234"); nullptr when there is none.
LogChoice ChooseLogOutputs(const char* asked, const char* stream,
                           const struct stat& standard_error);

// Standard error and the journal. A reader who does not read is waited for in poll(2) alone, as
// long as it takes; of two outputs the slower one sets the pace. Nothing is set on standard error,
// because others have it, too. One thread.
class LogOutputs {
 public:
  LogOutputs(LogChoice choice, std::string journal_path)
      : choice_(choice), journal_path_(std::move(journal_path)) {}

  // Writes lines, and in front of them how many were dropped. A line that the journal does not take
  // goes to standard error; one that cannot be written there is lost.
  void Write(const LogQueue::Batch& batch, std::string_view identifier);

  // Tells whether it waits for a reader. Any thread, signal handlers included.
  bool IsWaiting() const { return is_waiting_; }

 private:
  void WriteLine(const LogEntry& entry, std::string_view text, std::string_view identifier);
  void WriteToStandardError(std::string_view lines);
  bool SendToJournal(std::string_view fields);
  bool HasJournal();
  void WaitForRoom(int descriptor);

  const LogChoice choice_;
  const std::string journal_path_;
  FileDescriptor journal_;
  LogText format_;
  std::string lines_;   // for standard error, at most kMaxLogLine
  std::string fields_;  // of one line, for the journal
  std::atomic<bool> is_waiting_ = false;
};

}  // namespace zelt
