#pragma once

#include "orka/codec/Bytes.h"
#include "zelt/Mutex.h"
#include "zelt/ThreadAnnotations.h"

#include <cstddef>
#include <deque>

namespace orka {

// The frames that wait for the line, in order. Any thread adds to it; one thread, the line's, takes
// from it. A frame counts until the line has taken all of it.
class SendQueue {
 public:
  // Offers `room`, and takes `reserve` more than it offers.
  SendQueue(std::size_t room, std::size_t reserve) : room_(room), reserve_(reserve) {}

  // Any thread. Takes one whole frame for the wire, which counts `cost`. False, and nothing is
  // taken, when room and reserve do not hold it.
  bool Push(codec::ByteView frame, std::size_t cost);

  // Any thread. Returns what is left of the room, without the reserve.
  std::size_t Room() const;

  // Any thread. Takes a frame that does not count, or bytes between frames.
  void PushUncounted(codec::ByteView frame);

  // ----------------------------------------------------------------------------------------------
  // The line's thread.

  // Returns what the line is to be given next, valid until Took() or the next call; empty: nothing.
  codec::ByteView Waiting();

  // Removes what the line took of it. True when the last byte of a frame was among that.
  bool Took(std::size_t count);

  // Returns the size on the wire of the frame that Waiting() begins with or in; 0 when nothing
  // waits.
  std::size_t FirstSize() const { return taking_.frames.empty() ? 0 : taking_.frames[0].size; }

 private:
  struct Frame {
    std::size_t size;
    std::size_t cost;
  };
  struct Batch {
    codec::Bytes bytes;
    std::deque<Frame> frames;
  };

  void Append(codec::ByteView frame, std::size_t cost) ZELT_REQUIRES(mutex_);

  // Constant after construction.
  const std::size_t room_;
  const std::size_t reserve_;

  mutable zelt::Mutex mutex_;
  Batch queued_ ZELT_GUARDED_BY(mutex_);
  std::size_t cost_ ZELT_GUARDED_BY(mutex_) = 0;  // of all frames of which something waits

  // The line's thread only.
  Batch taking_;
  std::size_t taken_ = 0;           // of taking_.bytes
  std::size_t taken_of_first_ = 0;  // of taking_.frames[0]
};

}  // namespace orka
