#include "LogText.h"

#include "zelt/LogClient.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>

namespace zelt {
namespace {

constexpr std::size_t kRoomForMark = 40;

// The length of the UTF-8 sequence at the start of `text` (not empty) if it may be shown as it is;
// else 0.
std::size_t ShownSequence(std::string_view text) {
  const auto byte = [text](std::size_t at) { return static_cast<unsigned char>(text[at]); };
  const unsigned char lead = byte(0);
  if (lead < 0x80) {
    return lead >= 0x20 && lead != 0x7F ? 1 : 0;
  }
  struct Form {  // of a sequence: what its first byte and its value can be
    unsigned char mask;
    unsigned char lead;
    std::uint32_t least;  // below, there is a shorter sequence, or it is a C1 control
  };
  static constexpr std::array<Form, 3> kForms = {
      {{0xE0, 0xC0, 0xA0}, {0xF0, 0xE0, 0x800}, {0xF8, 0xF0, 0x10000}}};
  for (std::size_t more = 1; more <= kForms.size(); ++more) {
    const Form& form = kForms.at(more - 1);
    if ((lead & form.mask) != form.lead || text.size() <= more) {
      continue;
    }
    std::uint32_t value = lead & static_cast<unsigned char>(~form.mask);
    for (std::size_t i = 1; i <= more; ++i) {
      if ((byte(i) & 0xC0U) != 0x80) {
        return 0;
      }
      value = value << 6U | (byte(i) & 0x3FU);
    }
    const bool surrogate = value >= 0xD800 && value <= 0xDFFF;
    return value >= form.least && value <= 0x10FFFF && !surrogate ? more + 1 : 0;
  }
  return 0;
}

void AppendCategory(std::string& out, const LogEntry& entry) {
  std::array<char, 16> text{};
  const int size = std::snprintf(text.data(), text.size(), "0x%04X", entry.category);
  out.append(text.data(), static_cast<std::size_t>(size));
}

std::string Priority(const LogEntry& entry) {
  return std::to_string(std::clamp(entry.level, 0, 7));
}

}  // namespace

std::size_t AppendEscaped(std::string& out, std::string_view text, std::size_t limit) {
  std::size_t at = 0;
  while (at < text.size()) {
    std::array<char, 4> escape = {'\\', 'x', '?', '?'};
    std::string_view shown(escape.data(), escape.size());
    std::size_t taken = ShownSequence(text.substr(at));
    if (taken > 0) {
      shown = text.substr(at, taken);
    } else {
      taken = 1;
      const auto byte = static_cast<unsigned char>(text[at]);
      constexpr std::string_view kNamed = "\n\r\t";
      if (const auto name = kNamed.find(text[at]); name != std::string_view::npos) {
        escape[1] = "nrt"[name];
        shown = shown.substr(0, 2);
      } else {
        escape[2] = "0123456789abcdef"[byte >> 4U];
        escape[3] = "0123456789abcdef"[byte & 0xFU];
      }
    }
    if (out.size() + shown.size() > limit) {
      break;
    }
    out += shown;
    at += taken;
  }
  return at;
}

void AppendText(std::string& out, const LogEntry& entry, std::string_view text, std::size_t limit) {
  const std::size_t shown = AppendEscaped(out, text, limit - kRoomForMark);
  if (shown < entry.whole_size) {
    out += " [cut, " + std::to_string(entry.whole_size - shown) + " bytes more]";
  }
}

void LogText::AppendLine(std::string& out, const LogEntry& entry, std::string_view text,
                         std::string_view identifier, bool with_priority) {
  const std::size_t limit = out.size() + kMaxLogLine - 1;
  if (with_priority) {
    out += "<" + Priority(entry) + ">";
  }
  if (second_ != entry.time.tv_sec) {
    second_ = entry.time.tv_sec;
    std::tm local{};
    localtime_r(&second_, &local);
    std::array<char, 32> digits{};
    second_text_.assign(digits.data(),
                        std::strftime(digits.data(), digits.size(), "%Y-%m-%d %H:%M:%S.", &local));
  }
  out += second_text_;
  out += std::to_string(1000 + entry.time.tv_nsec / 1'000'000).substr(1) + " ";
  out += "FACEWNIDV"[std::clamp(entry.level, 0, kLogVerbose)];
  out.append(" ").append(identifier).append(" ");
  AppendCategory(out, entry);
  out.append(" ").append(entry.function).append(": ");
  AppendText(out, entry, text, limit);
  out += '\n';
}

void AppendJournalFields(std::string& out, const LogEntry& entry, std::string_view text,
                         std::string_view identifier) {
  out += "MESSAGE=";
  AppendText(out, entry, text, out.size() + kMaxLogLine);
  out += "\nPRIORITY=" + Priority(entry);
  out.append("\nSYSLOG_IDENTIFIER=").append(identifier);
  out.append("\nCODE_FILE=").append(entry.file);
  out += "\nCODE_LINE=" + std::to_string(entry.line);
  out.append("\nCODE_FUNC=").append(entry.function).append("\nZELT_CATEGORY=");
  AppendCategory(out, entry);
  out += '\n';
}

}  // namespace zelt
