#include "zelt/LogClient.h"

#include "LogWriter.h"
#include "zelt/Mutex.h"
#include "zelt/ThreadAnnotations.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <optional>

namespace zelt {
namespace {

constexpr int kMinLevel = 0;
constexpr int kMaxLevel = kLogVerbose;
constexpr std::uint32_t kLoggerCategory = 0;

// Constant-initialised, so that a line from another static's constructor finds them whole.
constinit Mutex g_sink_mutex;
constinit std::atomic<LogSink> g_sink = nullptr;  // written with g_sink_mutex held
constinit void* g_sink_context ZELT_GUARDED_BY(g_sink_mutex) = nullptr;

bool GiveToSink(const LogRecord& record) {
  if (g_sink.load(std::memory_order_acquire) == nullptr) {
    return false;
  }
  const Lock lock(g_sink_mutex);
  const LogSink sink = g_sink;
  if (sink != nullptr) {
    sink(g_sink_context, record);
  }
  return sink != nullptr;
}

std::optional<int> ParseLevel(std::string_view text) {
  int level = 0;
  const auto [end, error] = std::from_chars(text.begin(), text.end(), level);
  if (error != std::errc() || end != text.end() || level < kMinLevel || level > kMaxLevel) {
    return std::nullopt;
  }
  return level;
}

}  // namespace

LogClient::~LogClient() {
  const std::string_view text(text_.data(), std::min(size_, kMaxText));
  try {
    if (!GiveToSink({.file = file_,
                     .function = function_,
                     .line = line_,
                     .level = level_,
                     .category = category_,
                     .text = text})) {
      LogWriter::Get().Log({.time = {},
                            .file = file_,
                            .function = function_,
                            .whole_size = size_,
                            .size = static_cast<std::uint32_t>(text.size()),
                            .line = line_,
                            .level = level_,
                            .category = category_},
                           text);
    }
  } catch (const std::exception&) {
    return;  // nowhere left to tell
  }
}

void LogClient::Append(std::string_view text) noexcept {
  if (size_ < kMaxText) {
    std::memcpy(&text_[size_], text.data(), std::min(text.size(), kMaxText - size_));
  }
  size_ += text.size();
}

void LogClient::AppendNumber(std::uint64_t value) noexcept {
  std::array<char, 24> digits;  // NOLINT(cppcoreguidelines-pro-type-member-init)
  Append({digits.begin(), std::to_chars(digits.begin(), digits.end(), value).ptr});
}

void LogClient::AppendNumber(std::int64_t value) noexcept {
  std::array<char, 24> digits;  // NOLINT(cppcoreguidelines-pro-type-member-init)
  Append({digits.begin(), std::to_chars(digits.begin(), digits.end(), value).ptr});
}

// As streams show it by default.
void LogClient::AppendNumber(double value) noexcept {
  std::array<char, 32> digits;  // NOLINT(cppcoreguidelines-pro-type-member-init)
  Append({digits.begin(),
          std::to_chars(digits.begin(), digits.end(), value, std::chars_format::general, 6).ptr});
}

void LogClient::SetLevel(int level) noexcept {
  highest_.store(std::clamp(level, kMinLevel, kMaxLevel), std::memory_order_relaxed);
}

// The first caller reads it from the environment.
int LogClient::Level() noexcept {
  const int level = highest_.load(std::memory_order_relaxed);
  if (level != kNotRead) {
    return level;
  }
  const char* text = std::getenv("ZELT_LOG_LEVEL");
  const std::optional<int> wanted = text == nullptr ? kLogInfo : ParseLevel(text);
  int expected = kNotRead;
  const bool first = highest_.compare_exchange_strong(expected, wanted.value_or(kLogInfo),
                                                      std::memory_order_relaxed);
  if (first && !wanted) {
    LogClient(__FILE__, __func__, __LINE__, kLogWarning, kLoggerCategory)
        << "ZELT_LOG_LEVEL is \"" << text << "\", expected a number from " << kMinLevel << " to "
        << kMaxLevel << "; using " << kLogInfo;
  }
  return highest_.load(std::memory_order_relaxed);
}

void SetLogSink(LogSink sink, void* context) {
  const Lock lock(g_sink_mutex);
  g_sink_context = context;
  g_sink.store(sink, std::memory_order_release);
}

void SetLogIdentifier(std::string_view identifier) {
  LogWriter::Get().SetIdentifier(identifier);
}

}  // namespace zelt
