#include "zelt/LogClient.h"

#include <spdlog/details/log_msg.h>
#include <spdlog/fmt/fmt.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

// The location comes from the record, not from this file.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace zelt {
namespace {

constexpr int kMinLevel = 0;
constexpr int kMaxLevel = kLogVerbose;
constexpr int kLevelNotRead = -1;
constexpr std::uint32_t kLoggerCategory = 0;

// Constant-initialised, so that a line from another static's constructor finds it whole.
constinit std::atomic<int> g_level{kLevelNotRead};

spdlog::level::level_enum BackendLevel(int level) {
  constexpr std::array<spdlog::level::level_enum, kMaxLevel + 1> kLevels = {
      spdlog::level::critical, spdlog::level::critical, spdlog::level::critical,
      spdlog::level::err,      spdlog::level::warn,     spdlog::level::info,
      spdlog::level::info,     spdlog::level::debug,    spdlog::level::trace};
  return kLevels.at(static_cast<std::size_t>(std::clamp(level, kMinLevel, kMaxLevel)));
}

char LevelLetter(int level) {
  return "FACEWNIDV"[std::clamp(level, kMinLevel, kMaxLevel)];
}

// Text from a peer must neither start a line of its own nor steer the reader's terminal: control
// characters, C1 ones in UTF-8 included, are shown as escapes.
std::string Escape(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  const auto escape = [&out](unsigned char c) {
    constexpr std::string_view kHex = "0123456789abcdef";
    out += "\\x";
    out += kHex[c >> 4U];
    out += kHex[c & 0xFU];
  };
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    const bool c1 = c == 0xC2 && i + 1 < text.size() &&
                    static_cast<unsigned char>(text[i + 1]) >= 0x80 &&
                    static_cast<unsigned char>(text[i + 1]) < 0xA0;
    if (c == '\n') {
      out += "\\n";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c < 0x20 || c == 0x7F) {
      escape(c);
    } else if (c1) {
      escape(c);
      escape(static_cast<unsigned char>(text[++i]));
    } else {
      out += text[i];
    }
  }
  return out;
}

std::string CategoryText(std::uint32_t category) {
  return fmt::format("0x{:04X}", category);
}

// What the backend carries, with the fields that it has no place for.
struct Message : spdlog::details::log_msg {
  Message(const LogRecord& from, std::string_view identifier, std::string_view text)
      : log_msg(spdlog::string_view_t(identifier.data(), identifier.size()),
                BackendLevel(from.level), spdlog::string_view_t(text.data(), text.size())),
        record(from) {}
  const LogRecord& record;
};

// "I kova 0x800A HandleRtVersionResponse"
class OriginFlag : public spdlog::custom_flag_formatter {
 public:
  void format(const spdlog::details::log_msg& msg, const std::tm&,
              spdlog::memory_buf_t& dest) override {
    const auto& record = static_cast<const Message&>(msg).record;
    std::string text{LevelLetter(record.level), ' '};
    text.append(msg.logger_name.data(), msg.logger_name.size()).append(" ");
    text.append(CategoryText(record.category)).append(" ").append(record.function);
    dest.append(text.data(), text.data() + text.size());
  }
  std::unique_ptr<custom_flag_formatter> clone() const override {
    return std::make_unique<OriginFlag>();
  }
};

// To the journal with its fields. The journal orders and rotates; nothing is buffered here.
class JournalSink : public spdlog::sinks::base_sink<std::mutex> {
 protected:
  void sink_it_(const spdlog::details::log_msg& msg) override {
    const auto& record = static_cast<const Message&>(msg).record;
    const auto field = [](std::string_view name, auto value) {
      return std::string(name).append("=").append(value.data(), value.size());
    };
    const std::array<std::string, 7> fields = {
        field("MESSAGE", msg.payload),
        field("PRIORITY", std::to_string(std::clamp(record.level, 0, 7))),
        field("SYSLOG_IDENTIFIER", msg.logger_name),
        field("CODE_FILE", record.file),
        field("CODE_LINE", std::to_string(record.line)),
        field("CODE_FUNC", record.function),
        field("ZELT_CATEGORY", CategoryText(record.category))};
    std::array<iovec, fields.size()> parts{};
    std::ranges::transform(fields, parts.begin(), [](const std::string& text) {
      return iovec{.iov_base = const_cast<char*>(text.data()), .iov_len = text.size()};
    });
    sd_journal_sendv(parts.data(), static_cast<int>(parts.size()));
  }
  void flush_() override {}
};

// Everything behind the level. Never destroyed: threads and statics may log until the very end.
class Outputs {
 public:
  static Outputs& Get() {
    static auto* const outputs = new Outputs;
    return *outputs;
  }

  void Write(const LogRecord& record) {
    const std::lock_guard lock(mutex_);
    if (sink_ != nullptr) {
      sink_(sink_context_, record);
      return;
    }
    const std::string text = Escape(record.text);
    const Message message(record, identifier_, text);
    for (const auto& output : outputs_) {
      output->log(message);
    }
  }

  void SetSink(LogSink sink, void* context) {
    const std::lock_guard lock(mutex_);
    sink_ = sink;
    sink_context_ = context;
  }

  void SetIdentifier(std::string_view identifier) {
    const std::lock_guard lock(mutex_);
    identifier_ = Escape(identifier);
  }

 private:
  Outputs() {
    auto formatter = std::make_unique<spdlog::pattern_formatter>();
    formatter->add_flag<OriginFlag>('*').set_pattern("%Y-%m-%d %H:%M:%S.%e %*: %v");
    outputs_.push_back(std::make_unique<spdlog::sinks::stderr_sink_mt>());
    outputs_.back()->set_formatter(std::move(formatter));
    if (const char* journal = std::getenv("ZELT_LOG_JOURNAL");
        journal != nullptr && std::string_view(journal) == "1") {
      outputs_.push_back(std::make_unique<JournalSink>());
    }
  }

  std::mutex mutex_;
  std::string identifier_ = program_invocation_short_name;
  LogSink sink_ = nullptr;
  void* sink_context_ = nullptr;
  std::vector<std::unique_ptr<spdlog::sinks::sink>> outputs_;
};

std::optional<int> ParseLevel(std::string_view text) {
  int level = 0;
  const auto [end, error] = std::from_chars(text.begin(), text.end(), level);
  if (error != std::errc() || end != text.end() || level < kMinLevel || level > kMaxLevel) {
    return std::nullopt;
  }
  return level;
}

// The level in force; the first caller reads it from the environment.
int CurrentLevel() noexcept {
  const int level = g_level.load(std::memory_order_relaxed);
  if (level != kLevelNotRead) [[likely]] {
    return level;
  }
  const char* text = std::getenv("ZELT_LOG_LEVEL");
  const std::optional<int> wanted = text == nullptr ? kLogInfo : ParseLevel(text);
  int expected = kLevelNotRead;
  const bool first = g_level.compare_exchange_strong(expected, wanted.value_or(kLogInfo),
                                                     std::memory_order_relaxed);
  if (first && !wanted) {
    LogClient(__FILE__, __func__, __LINE__, kLogWarning, kLoggerCategory)
        << "ZELT_LOG_LEVEL is \"" << text << "\", expected a number from " << kMinLevel << " to "
        << kMaxLevel << "; using " << kLogInfo;
  }
  return g_level.load(std::memory_order_relaxed);
}

}  // namespace

LogClient::LogClient(const char* file, const char* function, int line, int level,
                     std::uint32_t category)
    : file_(file), function_(function), line_(line), level_(level), category_(category) {}

LogClient::~LogClient() {
  try {
    const std::string_view text = text_.view();
    Outputs::Get().Write({.file = file_,
                          .function = function_,
                          .line = line_,
                          .level = level_,
                          .category = category_,
                          .text = text});
  } catch (const std::exception&) {
    return;  // nowhere left to tell
  }
}

bool LogClient::LevelIsEnabled(int level) noexcept {
  return level <= CurrentLevel();
}

void LogClient::SetLevel(int level) noexcept {
  g_level.store(std::clamp(level, kMinLevel, kMaxLevel), std::memory_order_relaxed);
}

int LogClient::Level() noexcept {
  return CurrentLevel();
}

void SetLogSink(LogSink sink, void* context) {
  Outputs::Get().SetSink(sink, context);
}

void SetLogIdentifier(std::string_view identifier) {
  Outputs::Get().SetIdentifier(identifier);
}

}  // namespace zelt
