#pragma once

#include "zelt/LogClient.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace zelt::fake {

struct CapturedLine {
  int level = 0;
  std::uint32_t category = 0;
  std::string function;
  std::string text;

  bool operator==(const CapturedLine&) const = default;
};

// Takes every log line of the process while it lives, at every level. One at a time; any thread
// may log and ask.
class LogCapture {
 public:
  LogCapture() : previous_level_(LogClient::Level()) {
    SetLogSink(&LogCapture::Take, this);
    LogClient::SetLevel(kLogVerbose);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  ~LogCapture() {
    SetLogSink(nullptr, nullptr);
    LogClient::SetLevel(previous_level_);
  }

  std::vector<CapturedLine> Lines() const {
    const std::lock_guard lock(mutex_);
    return lines_;
  }

  // The texts of the lines of one level, in order.
  std::vector<std::string> Texts(int level) const {
    std::vector<std::string> texts;
    for (const CapturedLine& line : Lines()) {
      if (line.level == level) {
        texts.push_back(line.text);
      }
    }
    return texts;
  }

  // How many lines have exactly this text.
  std::size_t Count(std::string_view text) const {
    const std::lock_guard lock(mutex_);
    return static_cast<std::size_t>(std::ranges::count(lines_, text, &CapturedLine::text));
  }

  // True if `part` stands in the text of some line.
  bool Contains(std::string_view part) const { return WaitFor(part, std::chrono::milliseconds(0)); }

  // Waits until some line contains `part`; false if none does within `timeout`.
  bool WaitFor(std::string_view part,
               std::chrono::milliseconds timeout = std::chrono::seconds(10)) const {
    std::unique_lock lock(mutex_);
    return logged_.wait_for(lock, timeout, [&] {
      return std::ranges::any_of(
          lines_, [part](const CapturedLine& line) { return line.text.contains(part); });
    });
  }

 private:
  static void Take(void* context, const LogRecord& record) {
    auto& self = *static_cast<LogCapture*>(context);
    const std::lock_guard lock(self.mutex_);
    self.lines_.push_back({.level = record.level,
                           .category = record.category,
                           .function = std::string(record.function),
                           .text = std::string(record.text)});
    self.logged_.notify_all();
  }

  const int previous_level_;
  mutable std::mutex mutex_;
  mutable std::condition_variable logged_;
  std::vector<CapturedLine> lines_;  // guarded by mutex_
};

}  // namespace zelt::fake
