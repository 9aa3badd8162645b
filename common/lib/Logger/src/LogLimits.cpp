#include "LogLimits.h"

#include "zelt/LogClient.h"

#include <algorithm>
#include <functional>

namespace zelt {
namespace {
constexpr std::size_t kTextOfReport = 200;
}

bool LogLimits::Admit(const LogEntry& entry, std::string_view text, Clock::time_point now) {
  if (entry.level > kLogWarning) {
    return true;
  }
  Place& place = places_[{entry.file, entry.line, entry.level}];
  if (place.all == 0 || now >= place.begin + kSecond) {
    place.begin = now;
    place.same = 0;
    place.all = 0;
  }
  const std::size_t hash = std::hash<std::string_view>()(text);
  if (hash != place.text_hash) {
    place.text_hash = hash;
    place.same = 0;
  }
  if (place.same < kSame && place.all < kAll) {
    ++place.same;
    ++place.all;
    return true;
  }
  ++place.held_back;
  place.last = entry;
  place.text = text.substr(0, kTextOfReport);
  next_report_ = std::min(next_report_, place.begin + kSecond);
  return false;
}

}  // namespace zelt
