#pragma once

#include "LogEntry.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace zelt {

// Lines in the order in which they were logged, in a ring of a fixed number of bytes. One thread at
// a time.
class LogQueue {
 public:
  // Some entries with their texts, one after the other.
  struct Batch {
    std::string bytes;
    std::uint64_t dropped = 0;  // how many were dropped before the first of them

    // Calls `visit(entry, text)` for each.
    template <class Visit>
    void ForEach(Visit visit) const;
  };

  explicit LogQueue(std::size_t capacity)
      : capacity_(capacity), ring_(std::make_unique_for_overwrite<char[]>(capacity)) {}

  // Adds a line, and drops the oldest ones if there is no room for it. `text` has entry.size bytes,
  // and fits into the ring.
  void Push(const LogEntry& entry, std::string_view text);

  // Moves the oldest lines, of `most` bytes or a little more, into `batch`, whose room is used
  // again.
  void Take(std::size_t most, Batch& batch);

  std::size_t Used() const { return used_; }  // bytes

  // Tell how many lines came in, and how many of them were taken or dropped.
  std::uint64_t Pushed() const { return pushed_; }
  std::uint64_t Gone() const { return gone_; }

 private:
  void CopyIn(const void* from, std::size_t size);
  void CopyOut(void* to, std::size_t size) const;
  LogEntry Oldest() const;
  void RemoveOldest(const LogEntry& entry);

  const std::size_t capacity_;
  const std::unique_ptr<char[]> ring_;
  std::size_t first_ = 0;  // where the oldest entry begins
  std::size_t used_ = 0;
  std::uint64_t pushed_ = 0;
  std::uint64_t gone_ = 0;
  std::uint64_t dropped_ = 0;  // since the last Take
};

template <class Visit>
void LogQueue::Batch::ForEach(Visit visit) const {
  for (std::size_t at = 0; at < bytes.size();) {
    LogEntry entry;
    bytes.copy(reinterpret_cast<char*>(&entry), sizeof(entry), at);
    visit(entry, std::string_view(bytes).substr(at + sizeof(entry), entry.size));
    at += sizeof(entry) + entry.size;
  }
}

}  // namespace zelt
