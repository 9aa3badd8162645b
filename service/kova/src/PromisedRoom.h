#pragma once

#include <atomic>
#include <cstddef>
#include <utility>

namespace zelt {

// Bytes of the link's room that a message for the radio holds while it waits in the task queue:
// counted in `total` for as long as this lives, which must not outlive `total`. Move-only.
class PromisedRoom {
 public:
  PromisedRoom(std::atomic<std::size_t>& total, std::size_t bytes) : total_(total), bytes_(bytes) {
    total_ += bytes_;
  }
  PromisedRoom(PromisedRoom&& other) noexcept
      : total_(other.total_), bytes_(std::exchange(other.bytes_, 0)) {}
  PromisedRoom& operator=(PromisedRoom&&) = delete;
  ~PromisedRoom() { total_ -= bytes_; }

 private:
  std::atomic<std::size_t>& total_;
  std::size_t bytes_;
};

}  // namespace zelt
