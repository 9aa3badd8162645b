#pragma once

#include "zelt/UniqueFunction.h"

#include <utility>

namespace zelt {

// The life of one callback: an IPC registration, a subscription or a timer.
//
// Move-only. When Close() or the destructor has returned, the callback is not running and never
// will run; called from inside the callback itself, they return at once and the callback does not
// run again. Assigning a handle closes the one that it replaces. Any thread may close a handle,
// one at a time, but not while holding a lock that the callback takes.
class AsyncCallbackHandle {
 public:
  // Makes a closed handle.
  AsyncCallbackHandle() noexcept = default;

  // `close` keeps the promise above; it is called exactly once and must not throw.
  explicit AsyncCallbackHandle(UniqueFunction<void()> close) noexcept : close_(std::move(close)) {}

  AsyncCallbackHandle(AsyncCallbackHandle&& other) noexcept
      : close_(std::exchange(other.close_, nullptr)) {}

  AsyncCallbackHandle& operator=(AsyncCallbackHandle&& other) noexcept {
    if (this != &other) {
      Close();
      close_ = std::exchange(other.close_, nullptr);
    }
    return *this;
  }

  ~AsyncCallbackHandle() { Close(); }

  // Ends the callback. A second call does nothing.
  void Close() noexcept {
    if (auto close = std::exchange(close_, nullptr)) {
      close();
    }
  }

  // Tells whether it is neither closed nor moved from. A one-shot timer that has fired stays open.
  bool IsOpen() const noexcept { return static_cast<bool>(close_); }

 private:
  UniqueFunction<void()> close_;
};

}  // namespace zelt
