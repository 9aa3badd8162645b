#pragma once

#include <cstdint>
#include <sstream>
#include <string>
#include <string_view>

namespace zelt {

// The platform's numeric log levels, the most severe first.
inline constexpr int kLogError = 3;
inline constexpr int kLogWarning = 4;
inline constexpr int kLogInfo = 6;
inline constexpr int kLogDebug = 7;
inline constexpr int kLogVerbose = 8;

// One finished log line, as a sink sees it. The views live until the sink returns.
struct LogRecord {
  std::string_view file;      // as given by __FILE__
  std::string_view function;  // the operation's own name
  int line = 0;
  int level = kLogInfo;
  std::uint32_t category = 0;
  std::string_view text;
};

// One log line in the making: built, streamed into, and written by its destructor.
//
// Any thread may log at any time; lines of different threads never mix. Build one only when its
// level is enabled (ZELT_LOG below does both). Booleans are streamed as 1 or 0. A line that cannot
// be written is lost; logging never throws to its caller.
//
// Lines go to standard error and, when ZELT_LOG_JOURNAL is "1", to the systemd journal with the
// fields CODE_FILE, CODE_FUNC, CODE_LINE, PRIORITY and ZELT_CATEGORY. The level is read once from
// ZELT_LOG_LEVEL (0 to 8, default 6) and can be changed at run time.
class LogClient {
 public:
  LogClient(const char* file, const char* function, int line, int level, std::uint32_t category);
  LogClient(const LogClient&) = delete;
  LogClient& operator=(const LogClient&) = delete;
  ~LogClient();

  template <class T>
  LogClient& operator<<(const T& value) {
    text_ << value;
    return *this;
  }

  // One relaxed atomic load.
  static bool LevelIsEnabled(int level) noexcept;

  // 0 to 8; other values are cut to that range.
  static void SetLevel(int level) noexcept;
  static int Level() noexcept;

 private:
  const char* file_;
  const char* function_;
  int line_;
  int level_;
  std::uint32_t category_;
  std::ostringstream text_;
};

// Replaces where log lines go: for tests (see LogCapture) and tools. The sink is called on the
// logging thread, one call at a time, and must not log. nullptr restores the standard outputs.
using LogSink = void (*)(void* context, const LogRecord& record);
void SetLogSink(LogSink sink, void* context);

// The identifier that stands in every line of this process, e.g. "kova"; set once at start.
void SetLogIdentifier(std::string_view identifier);

}  // namespace zelt

// Streams into one log line if its level is enabled; else evaluates nothing.
#define ZELT_LOG_AS(function, level, category)     \
  if (!::zelt::LogClient::LevelIsEnabled(level)) { \
  } else                                           \
    ::zelt::LogClient(__FILE__, function, __LINE__, level, category)

#define ZELT_LOG(level, category) ZELT_LOG_AS(__func__, level, category)
