#pragma once

#include "SdBus.h"
#include "TimerQueue.h"
#include "zelt/AsyncCallbackHandle.h"
#include "zelt/FileDescriptor.h"
#include "zelt/Mutex.h"
#include "zelt/ThreadAnnotations.h"
#include "zelt/UniqueFunction.h"

#include <atomic>
#include <memory>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace zelt {

// The IPC thread of a process: one event loop with posted work and timers.
//
//   constructed -> Start() -> running -> Stop() -> stopped, for good
//
// Any thread may post work and add timers at any time; what is posted after Stop() is destroyed
// unrun. Stop() and the destructor must not be called on the loop's own thread.
class EventLoop {
 public:
  // Throws std::runtime_error when the kernel refuses an event loop.
  EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;
  ~EventLoop();

  // Returns sd-event's loop, for whoever adds sources of its own: before Start(), or on the loop's
  // thread.
  sd_event* Event() const { return event_.get(); }

  // Calls `hook` on the loop's thread whenever the loop was woken, behind all posted work. Before
  // Start(); a second call replaces the first.
  void SetWakeHook(UniqueFunction<void()> hook) { wake_hook_ = std::move(hook); }

  // Starts the thread. Throws std::system_error when there can be no further one.
  void Start();

  // Runs everything that was posted before, then `last`, all on the loop's thread, and joins it. A
  // second call does nothing.
  void Stop(UniqueFunction<void()> last);

  bool IsOnLoop() const { return std::this_thread::get_id() == thread_id_.load(); }

  // Runs `work` on the loop's thread, in the order of posting. False when the loop has stopped;
  // `work` is then destroyed on the calling thread. One system call, or none when the loop already
  // has work.
  bool Post(UniqueFunction<void()> work);

  // Posts `work`, and waits until it has run; on the loop's thread it runs at once. What `work`
  // throws is thrown to the caller.
  bool PostAndWait(UniqueFunction<void()> work);

  // Wakes the loop for its hook. One system call.
  void Wake();

  // As ServiceModel has it. `name` is for the log.
  AsyncCallbackHandle AddTimer(std::string_view name, UniqueFunction<void()> callback,
                               TimerQueue::Seconds interval, bool periodic);

 private:
  static int OnWake(sd_event_source* source, int descriptor, std::uint32_t events,
                    void* self) noexcept;
  static int OnTime(sd_event_source* source, std::uint64_t now, void* self) noexcept;
  bool Enqueue(UniqueFunction<void()> work, bool is_last);
  void RunPosted();
  void Arm();
  void Loop();

  // constant once the thread runs
  UniqueFunction<void()> wake_hook_ = [] {};
  EventPtr event_;
  std::shared_ptr<TimerQueue> timers_ = std::make_shared<TimerQueue>();
  FileDescriptor wake_;  // an eventfd
  EventSourcePtr wake_source_;
  EventSourcePtr time_source_;

  std::thread thread_;  // touched by whoever starts and stops
  std::atomic<std::thread::id> thread_id_;

  Mutex mutex_;
  std::vector<UniqueFunction<void()>> posted_ ZELT_GUARDED_BY(mutex_);
  bool closed_ ZELT_GUARDED_BY(mutex_) = false;
};

}  // namespace zelt
