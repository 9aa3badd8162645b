#include "LogOutputs.h"

#include "zelt/LogClient.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

namespace zelt {

LogChoice ChooseLogOutputs(const char* asked, const char* stream,
                           const struct stat& standard_error) {
  const std::string own =
      std::to_string(standard_error.st_dev) + ":" + std::to_string(standard_error.st_ino);
  const bool is_journals = stream != nullptr && own == stream;
  const std::string_view wanted = asked == nullptr ? "" : asked;
  const bool journal = wanted == "1" || (is_journals && wanted != "0");
  return {
      .standard_error = !journal || !is_journals, .journal = journal, .priorities = is_journals};
}

void LogOutputs::Write(const LogQueue::Batch& batch, std::string_view identifier) {
  if (batch.dropped > 0) {
    const std::string text =
        std::to_string(batch.dropped) + " lines are missing here, nobody read them in time";
    LogEntry entry{.time = {},
                   .file = __FILE__,
                   .function = "Log",
                   .whole_size = text.size(),
                   .size = 0,
                   .line = __LINE__,
                   .level = kLogWarning,
                   .category = 0};
    clock_gettime(CLOCK_REALTIME, &entry.time);
    WriteLine(entry, text, identifier);
  }
  batch.ForEach(
      [&](const LogEntry& entry, std::string_view text) { WriteLine(entry, text, identifier); });
  WriteToStandardError(lines_);
  lines_.clear();
}

void LogOutputs::WriteLine(const LogEntry& entry, std::string_view text,
                           std::string_view identifier) {
  bool is_in_journal = false;
  if (choice_.journal) {
    fields_.clear();
    AppendJournalFields(fields_, entry, text, identifier);
    is_in_journal = SendToJournal(fields_);
  }
  if (is_in_journal && !choice_.standard_error) {
    return;
  }
  const std::size_t before = lines_.size();
  format_.AppendLine(lines_, entry, text, identifier, choice_.priorities);
  if (lines_.size() > kMaxLogLine) {
    WriteToStandardError(std::string_view(lines_).substr(0, before));
    lines_.erase(0, before);
  }
}

// A pipe that has room has room for kMaxLogLine, so that the write does not wait. SIGPIPE is
// blocked in this thread.
void LogOutputs::WriteToStandardError(std::string_view lines) {
  while (!lines.empty()) {
    WaitForRoom(STDERR_FILENO);
    const ssize_t size = write(STDERR_FILENO, lines.data(), lines.size());
    if (size >= 0) {
      lines.remove_prefix(static_cast<std::size_t>(size));
    } else if (errno == EAGAIN) {
      poll(nullptr, 0, 10);  // somebody else was faster; rare, so it may take a little
    } else if (errno != EINTR) {
      return;
    }
  }
}

// By its own protocol, because sd_journal_sendv(3) waits for a journal that does not read.
bool LogOutputs::SendToJournal(std::string_view fields) {
  for (int attempt = 0; attempt < 2 && HasJournal(); ++attempt) {
    do {
      WaitForRoom(journal_.Get());
      if (send(journal_.Get(), fields.data(), fields.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) {
        return true;
      }
    } while (errno == EAGAIN || errno == EINTR);
    journal_.Close();  // it may have been started again
  }
  return false;
}

bool LogOutputs::HasJournal() {
  if (journal_) {
    return true;
  }
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  journal_path_.copy(address.sun_path, sizeof(address.sun_path) - 1);
  FileDescriptor journal(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (journal &&
      connect(journal.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
    journal_ = std::move(journal);
  }
  return static_cast<bool>(journal_);
}

void LogOutputs::WaitForRoom(int descriptor) {
  pollfd room{.fd = descriptor, .events = POLLOUT, .revents = 0};
  if (poll(&room, 1, 0) == 0) {
    is_waiting_ = true;
    poll(&room, 1, -1);
    is_waiting_ = false;
  }
}

}  // namespace zelt
