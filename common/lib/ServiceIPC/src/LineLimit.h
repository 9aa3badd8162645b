#pragma once

#include "EventLoop.h"
#include "zelt/Mutex.h"
#include "zelt/ThreadAnnotations.h"

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <string_view>

namespace zelt {

// Keeps short what others can make this process log: of the lines about one subject, the first few
// of each second are written; the others are counted, and their number follows in one line.
//
// A subject is a receiver, or a kind of bad message; of more subjects than are kept apart, the
// others share one. Any thread may ask. The loop must outlive this object, and has stopped when it
// is destroyed.
class LineLimit {
 public:
  explicit LineLimit(EventLoop& loop) : loop_(loop) {}
  LineLimit(const LineLimit&) = delete;
  LineLimit& operator=(const LineLimit&) = delete;

  // Counts a line about `subject`. True if it is to be written.
  bool Take(std::string_view subject);

  // Writes a line about a bad message of somebody's. All such lines are one subject.
  void Complain(const std::string& line);

 private:
  void TellOthers();

  EventLoop& loop_;
  AsyncCallbackHandle timer_;  // touched by the loop's thread only

  Mutex mutex_;
  std::map<std::string, std::size_t, std::less<>> lines_
      ZELT_GUARDED_BY(mutex_);  // of this second, by subject
};

}  // namespace zelt
