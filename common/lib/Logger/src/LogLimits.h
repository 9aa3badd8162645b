#pragma once

#include "LogEntry.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <tuple>

namespace zelt {

// Limits the lines about one cause. One cause is what one place in the code logs at warning level
// or above: what goes wrong there may go wrong as often as somebody outside likes. Lines below that
// level are traffic and are never held back.
//
// A second begins with the first line of a place. In it, kSame lines of the same text in a row are
// let through and kAll in all, because a place may name many things that are wrong. One thread at a
// time.
class LogLimits {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::uint32_t kSame = 10;
  static constexpr std::uint32_t kAll = 50;
  static constexpr Clock::duration kSecond = std::chrono::seconds(1);

  // Counts the line. False: it is not to be written. `now` has to be before NextReport().
  bool Admit(const LogEntry& entry, std::string_view text, Clock::time_point now);

  // When a number of lines that were held back is due to be told; Clock::time_point::max(): never.
  Clock::time_point NextReport() const { return next_report_; }

  // Calls `tell(entry, text, count)` for each place whose second is over at `now`: the last line
  // that was held back (its text cut) and how many there were.
  template <class Tell>
  void Report(Clock::time_point now, Tell tell);

 private:
  struct Place {
    Clock::time_point begin;
    std::size_t text_hash = 0;  // of the last line
    std::uint32_t same = 0;
    std::uint32_t all = 0;
    std::uint64_t held_back = 0;
    LogEntry last{};  // that was held back
    std::string text;
  };

  std::map<std::tuple<const char*, int, int>, Place> places_;  // as many as there are in the code
  Clock::time_point next_report_ = Clock::time_point::max();
};

template <class Tell>
void LogLimits::Report(Clock::time_point now, Tell tell) {
  next_report_ = Clock::time_point::max();
  for (auto& [key, place] : places_) {
    if (place.held_back == 0) {
      continue;
    }
    if (now < place.begin + kSecond) {
      next_report_ = std::min(next_report_, place.begin + kSecond);
      continue;
    }
    tell(place.last, place.text, place.held_back);
    place.held_back = 0;
  }
}

}  // namespace zelt
