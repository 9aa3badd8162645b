#include "DateTime.h"

#include "CliError.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <iomanip>
#include <regex>
#include <sstream>

namespace zelt::cli {
namespace {

constexpr int kMostNegativeOffset = -720;  // minutes
constexpr int kMostPositiveOffset = 840;

struct Field {
  const char* name;
  int std::tm::* value;
  int base;  // what std::tm leaves out
};
constexpr std::array kFields = {
    Field{"year", &std::tm::tm_year, 1900}, Field{"month", &std::tm::tm_mon, 1},
    Field{"day", &std::tm::tm_mday, 0},     Field{"hour", &std::tm::tm_hour, 0},
    Field{"minute", &std::tm::tm_min, 0},   Field{"second", &std::tm::tm_sec, 0},
};

void Store(MessageValue& message, const std::string& path, const std::tm& time, long offset) {
  for (const Field& field : kFields) {
    message.Set(path + "." + field.name, std::int64_t{time.*field.value} + field.base);
  }
  message.Set(path + ".utc_offset_minutes", offset);
}

[[noreturn]] void Refuse(std::string_view text, const std::string& why) {
  throw CliError(Exit::Usage, "\"" + std::string(text) + "\" is no date and time: " + why,
                 "give now, or such as \"2026-11-21 10:00:00\" or 2026-11-21T10:00:00+01:00");
}

}  // namespace

void SetDateTime(MessageValue& message, const std::string& path, std::string_view text) {
  if (text == "now") {
    const std::time_t now = std::time(nullptr);
    std::tm time{};
    localtime_r(&now, &time);
    Store(message, path, time, time.tm_gmtoff / 60);
    return;
  }
  static const std::regex kForm(
      R"((\d{4})-(\d\d?)-(\d\d?)[T ](\d\d?):(\d\d)(?::(\d\d))?\s*(?:(Z)|([+-])(\d\d):?(\d\d))?)");
  std::cmatch match;
  if (!std::regex_match(text.begin(), text.end(), match, kForm)) {
    Refuse(text, "its form is wrong");
  }
  std::tm time{};
  for (std::size_t i = 0; i < kFields.size(); ++i) {
    const auto& part = match[i + 1];
    time.*kFields.at(i).value = (part.matched ? std::stoi(part) : 0) - kFields.at(i).base;
  }
  const std::chrono::year_month_day day{std::chrono::year(time.tm_year + 1900),
                                        std::chrono::month(static_cast<unsigned>(time.tm_mon + 1)),
                                        std::chrono::day(static_cast<unsigned>(time.tm_mday))};
  if (!day.ok() || day.year() < std::chrono::year(1970)) {
    Refuse(text, "there is no such day from 1970 on");
  }
  if (time.tm_hour > 23 || time.tm_min > 59 || time.tm_sec > 59) {
    Refuse(text, "there is no such time of day");
  }
  long offset = 0;
  if (match[8].matched) {
    offset = std::stol(match[9]) * 60 + std::stol(match[10]);
    offset = match[8] == "-" ? -offset : offset;
  } else if (!match[7].matched) {
    std::tm local = time;
    local.tm_isdst = -1;
    std::mktime(&local);
    offset = local.tm_gmtoff / 60;
  }
  if (offset < kMostNegativeOffset || offset > kMostPositiveOffset) {
    Refuse(text, "the offset is beyond -12:00 to +14:00");
  }
  Store(message, path, time, offset);
}

std::string DateTimeText(const MessageValue& message, const std::string& path) {
  const auto number = [&](const char* field) { return message.Number(path + "." + field); };
  const std::int64_t offset = number("utc_offset_minutes");
  std::ostringstream text;
  text << std::setfill('0') << std::setw(4) << number("year");
  const auto two = [&text](char before, std::int64_t value) {
    text << before << std::setw(2) << value;
  };
  two('-', number("month"));
  two('-', number("day"));
  two(' ', number("hour"));
  two(':', number("minute"));
  two(':', number("second"));
  text << ' ';
  two(offset < 0 ? '-' : '+', std::abs(offset) / 60);
  two(':', std::abs(offset) % 60);
  return text.str();
}

}  // namespace zelt::cli
