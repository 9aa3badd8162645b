#include "LogQueue.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace zelt {

void LogQueue::Push(const LogEntry& entry, std::string_view text) {
  while (capacity_ - used_ < sizeof(entry) + text.size()) {
    RemoveOldest(Oldest());
    ++dropped_;
  }
  CopyIn(&entry, sizeof(entry));
  CopyIn(text.data(), text.size());
  ++pushed_;
}

void LogQueue::Take(std::size_t most, Batch& batch) {
  batch.bytes.clear();
  batch.dropped = std::exchange(dropped_, 0);
  while (used_ > 0 && batch.bytes.size() < most) {
    const LogEntry entry = Oldest();
    const std::size_t at = batch.bytes.size();
    batch.bytes.resize(at + sizeof(entry) + entry.size);
    CopyOut(&batch.bytes[at], sizeof(entry) + entry.size);
    RemoveOldest(entry);
  }
}

// To the end of what is there, in two parts where the ring closes.
void LogQueue::CopyIn(const void* from, std::size_t size) {
  const std::size_t at = (first_ + used_) % capacity_;
  const std::size_t part = std::min(size, capacity_ - at);
  std::memcpy(&ring_[at], from, part);
  std::memcpy(ring_.get(), static_cast<const char*>(from) + part, size - part);
  used_ += size;
}

void LogQueue::CopyOut(void* to, std::size_t size) const {
  const std::size_t part = std::min(size, capacity_ - first_);
  std::memcpy(to, &ring_[first_], part);
  std::memcpy(static_cast<char*>(to) + part, ring_.get(), size - part);
}

LogEntry LogQueue::Oldest() const {
  LogEntry entry;
  CopyOut(&entry, sizeof(entry));
  return entry;
}

void LogQueue::RemoveOldest(const LogEntry& entry) {
  used_ -= sizeof(entry) + entry.size;
  // From the start again where possible: a log that is read in time touches little memory.
  first_ = used_ == 0 ? 0 : (first_ + sizeof(entry) + entry.size) % capacity_;
  ++gone_;
}

}  // namespace zelt
