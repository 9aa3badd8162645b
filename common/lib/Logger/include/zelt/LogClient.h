#pragma once

#include <array>
#include <atomic>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <sstream>
#include <string_view>
#include <type_traits>

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

// One log line in the making: built, streamed into, and handed over by its destructor.
//
// Any thread may log at any time; lines of different threads never mix. Build one only when its
// level is enabled (ZELT_LOG below does both); a line that is built is logged whatever the level
// is. `file` and `function` are kept as pointers: literals, or __FILE__ and __func__. Booleans are
// streamed as 1 or 0. Logging never throws and never waits for whoever reads the log: a thread of
// its own writes, from at most 1 MiB of lines. When that is full, the oldest are dropped, and their
// number is told as soon as something can be written again. In a child process after fork(2) the
// lines of its parent are gone.
//
// At warning level and above, lines about one cause are limited: of what one place in the code
// logs in a second, 10 lines of the same text are written and 50 in all, and then how many more
// there were. No line is longer than 4 KiB; what does not fit is cut, which is marked. Control
// characters and what is not UTF-8 are written as escapes.
//
// Lines go to standard error. If that is the journal's (JOURNAL_STREAM), they go to the journal
// itself, with the fields CODE_FILE, CODE_FUNC, CODE_LINE, PRIORITY and ZELT_CATEGORY. With
// ZELT_LOG_JOURNAL=1 they go to the journal in any case, and to standard error as well unless that
// is the journal's, too; with 0 never: then each line on a standard error of the journal begins
// with its priority, "<3>". The level is read once from ZELT_LOG_LEVEL (0 to 8, default 6) and can
// be changed at run time.
class LogClient {
 public:
  LogClient(const char* file, const char* function, int line, int level,
            std::uint32_t category) noexcept
      : file_(file), function_(function), line_(line), level_(level), category_(category) {}
  LogClient(const LogClient&) = delete;
  LogClient& operator=(const LogClient&) = delete;
  ~LogClient();

  template <class T>
  LogClient& operator<<(const T& value) noexcept {
    if constexpr (std::is_same_v<T, bool>) {
      Append(value ? "1" : "0");
    } else if constexpr (std::is_same_v<T, char>) {
      Append({&value, 1});
    } else if constexpr (std::is_floating_point_v<T>) {
      AppendNumber(static_cast<double>(value));
    } else if constexpr (std::is_integral_v<T> && std::is_unsigned_v<T>) {
      AppendNumber(static_cast<std::uint64_t>(value));
    } else if constexpr (std::is_integral_v<T> ||
                         (std::is_enum_v<T> && std::is_convertible_v<T, std::int64_t>)) {
      AppendNumber(static_cast<std::int64_t>(value));
    } else if constexpr (std::is_convertible_v<const T&, const char*>) {
      const char* const text = value;
      Append(text == nullptr ? "(null)" : std::string_view(text));
    } else if constexpr (std::is_convertible_v<const T&, std::string_view>) {
      Append(std::string_view(value));
    } else {
      AppendStreamed(value);
    }
    return *this;
  }

  static bool LevelIsEnabled(int level) noexcept {
    const int highest = highest_.load(std::memory_order_relaxed);
    return level <= highest && (highest != kNotRead || level <= Level());
  }

  // Sets 0 to 8; other values are cut to that range.
  static void SetLevel(int level) noexcept;
  static int Level() noexcept;

 private:
  static constexpr std::size_t kMaxText = 4096;
  static constexpr int kNotRead = INT_MAX;

  void Append(std::string_view text) noexcept;
  void AppendNumber(std::uint64_t value) noexcept;
  void AppendNumber(std::int64_t value) noexcept;
  void AppendNumber(double value) noexcept;
  template <class T>
  void AppendStreamed(const T& value) noexcept {
    try {
      std::ostringstream stream;
      stream << value;
      Append(stream.view());
    } catch (const std::exception&) {
      Append("?");
    }
  }

  static inline constinit std::atomic<int> highest_{kNotRead};  // before the first look at it

  const char* const file_;
  const char* const function_;
  const int line_;
  const int level_;
  const std::uint32_t category_;
  std::size_t size_ = 0;  // of the whole text; what is beyond kMaxText is not kept
  std::array<char, kMaxText> text_;
};

// Waits until what was logged before has been written, at most 0.5 s. To be called before the
// process ends by _exit(2) or the like; before any other end, a fatal signal included, it happens
// by itself.
void FlushLog() noexcept;

// Replaces where log lines go: for tests (see LogCapture) and tools. The sink is called on the
// logging thread, one call at a time, for every line and with its text as it is (but for what
// exceeds 4 KiB), and must not log. nullptr restores the standard outputs.
using LogSink = void (*)(void* context, const LogRecord& record);
void SetLogSink(LogSink sink, void* context);

// Sets the identifier that stands in every line of this process, e.g. "kova"; once, at start.
void SetLogIdentifier(std::string_view identifier);

}  // namespace zelt

// Streams into one log line if its level is enabled; else evaluates nothing.
#define ZELT_LOG_AS(function, level, category)     \
  if (!::zelt::LogClient::LevelIsEnabled(level)) { \
  } else                                           \
    ::zelt::LogClient(__FILE__, function, __LINE__, level, category)

#define ZELT_LOG(level, category) ZELT_LOG_AS(__func__, level, category)
