#include "SendQueue.h"

#include "orka/codec/Frame.h"

#include <algorithm>
#include <utility>

namespace orka {

bool SendQueue::Push(codec::ByteView frame, std::size_t cost) {
  const zelt::Lock lock(mutex_);
  if (cost > room_ + reserve_ - cost_) {
    return false;
  }
  Append(frame, cost);
  return true;
}

std::size_t SendQueue::Room() const {
  const zelt::Lock lock(mutex_);
  return room_ - std::min(room_, cost_);
}

void SendQueue::PushUncounted(codec::ByteView frame) {
  const zelt::Lock lock(mutex_);
  Append(frame, 0);
}

void SendQueue::Append(codec::ByteView frame, std::size_t cost) {
  queued_.bytes.insert(queued_.bytes.end(), frame.begin(), frame.end());
  queued_.frames.push_back({frame.size(), cost});
  cost_ += cost;
}

codec::ByteView SendQueue::Waiting() {
  if (taken_ == taking_.bytes.size()) {
    taken_ = 0;
    if (taking_.bytes.capacity() > codec::kMaxEncodedFrame + 1) {
      taking_ = Batch();  // a backlog's memory is not kept
    }
    taking_.bytes.clear();
    const zelt::Lock lock(mutex_);
    std::swap(taking_, queued_);
  }
  return codec::ByteView(taking_.bytes).subspan(taken_);
}

bool SendQueue::Took(std::size_t count) {
  taken_ += count;
  taken_of_first_ += count;
  std::size_t freed = 0;
  bool whole = false;
  while (!taking_.frames.empty() && taken_of_first_ >= taking_.frames[0].size) {
    taken_of_first_ -= taking_.frames[0].size;
    freed += taking_.frames[0].cost;
    taking_.frames.pop_front();
    whole = true;
  }
  const zelt::Lock lock(mutex_);
  cost_ -= freed;
  return whole;
}

}  // namespace orka
