#include "LineLimit.h"

#include "BusLimits.h"
#include "LogCategory.h"
#include "zelt/LogClient.h"

#include <utility>

namespace zelt {

bool LineLimit::Take(std::string_view subject) {
  bool is_first = false;
  bool write = false;
  {
    const Lock lock(mutex_);
    is_first = lines_.empty();
    const bool is_known = lines_.find(subject) != lines_.end();
    const auto kept = is_known || lines_.size() < kMaxSubjects ? subject : "others";
    write = ++lines_[std::string(kept)] <= kMaxLines;
  }
  if (is_first) {
    loop_.Post(
        [this] { timer_ = loop_.AddTimer("lines", [this] { TellOthers(); }, kLineTime, false); });
  }
  return write;
}

void LineLimit::Complain(const std::string& line) {
  if (Take("refused or dropped messages")) {
    ZELT_LOG(kLogWarning, kIpcLogCategory) << line;
  }
}

void LineLimit::TellOthers() {
  std::map<std::string, std::size_t, std::less<>> lines;
  {
    const Lock lock(mutex_);
    lines.swap(lines_);
  }
  for (const auto& [subject, count] : lines) {
    if (count > kMaxLines) {
      ZELT_LOG(kLogWarning, kIpcLogCategory)
          << "[" << subject << "]: " << count - kMaxLines << " more such lines were not written";
    }
  }
}

}  // namespace zelt
