#include "EventLoop.h"

#include "LogCategory.h"
#include "zelt/LogClient.h"
#include "zelt/RunGuarded.h"
#include "zelt/StartThread.h"

#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <future>
#include <utility>

namespace zelt {

EventLoop::EventLoop() {
  sd_event* event = nullptr;
  Check(sd_event_new(&event), "cannot create an event loop");
  event_.reset(event);

  wake_ = FileDescriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  Check(wake_.Get() < 0 ? -errno : 0, "cannot create an eventfd");
  sd_event_source* source = nullptr;
  Check(sd_event_add_io(event_.get(), &source, wake_.Get(), EPOLLIN, &EventLoop::OnWake, this),
        "cannot watch the eventfd");
  wake_source_.reset(source);
  Check(sd_event_add_time(event_.get(), &source, CLOCK_MONOTONIC, 0, 1, &EventLoop::OnTime, this),
        "cannot create a timer");
  time_source_.reset(source);
  Check(sd_event_source_set_enabled(source, SD_EVENT_OFF), "cannot disarm a timer");
}

EventLoop::~EventLoop() {
  Stop([] {});
  posted_.clear();
}

void EventLoop::Start() {
  thread_ = StartThread([this] { Loop(); });
}

void EventLoop::Stop(UniqueFunction<void()> last) {
  if (!thread_.joinable()) {
    return;
  }
  Enqueue(
      [this, last = std::move(last)]() mutable {
        last();
        sd_event_exit(event_.get(), 0);
      },
      true);
  thread_.join();
}

void EventLoop::Loop() {
  thread_id_ = std::this_thread::get_id();
  pthread_setname_np(pthread_self(), "zelt-ipc");
  const int result = sd_event_loop(event_.get());
  if (result < 0) {
    // Every future of this process would wait for ever.
    ZELT_LOG(kLogError, kIpcLogCategory) << "The event loop failed: " << ErrorText(result);
    std::abort();
  }
}

bool EventLoop::Post(UniqueFunction<void()> work) {
  return Enqueue(std::move(work), false);
}

bool EventLoop::Enqueue(UniqueFunction<void()> work, bool is_last) {
  bool wake = false;
  {
    const Lock lock(mutex_);
    if (closed_) {
      return false;
    }
    wake = posted_.empty();
    posted_.push_back(std::move(work));
    closed_ = is_last;
  }
  if (wake) {
    Wake();
  }
  return true;
}

void EventLoop::Wake() {
  const std::uint64_t one = 1;
  // An eventfd takes 2^64 - 2 of these before it refuses one.
  [[maybe_unused]] const auto written = write(wake_.Get(), &one, sizeof one);
}

bool EventLoop::PostAndWait(UniqueFunction<void()> work) {
  if (IsOnLoop()) {
    work();
    return true;
  }
  std::packaged_task<void()> task(std::move(work));
  auto done = task.get_future();
  if (!Post([task = std::move(task)]() mutable { task(); })) {
    return false;
  }
  done.get();
  return true;
}

AsyncCallbackHandle EventLoop::AddTimer(std::string_view name, UniqueFunction<void()> callback,
                                        TimerQueue::Seconds interval, bool periodic) {
  auto [handle, wake] =
      timers_->Add(name, std::move(callback), TimerQueue::Now(), interval, periodic);
  if (wake) {
    Post([this] { Arm(); });
  }
  return std::move(handle);
}

int EventLoop::OnWake(sd_event_source*, int, std::uint32_t, void* self) noexcept {
  static_cast<EventLoop*>(self)->RunPosted();
  return 0;
}

int EventLoop::OnTime(sd_event_source*, std::uint64_t, void* self) noexcept {
  auto& loop = *static_cast<EventLoop*>(self);
  loop.timers_->RunDue(TimerQueue::Now());
  loop.Arm();
  return 0;
}

void EventLoop::RunPosted() {
  std::uint64_t count = 0;
  [[maybe_unused]] const auto got = read(wake_.Get(), &count, sizeof count);
  std::vector<UniqueFunction<void()>> work;
  {
    const Lock lock(mutex_);
    work.swap(posted_);
  }
  for (auto& item : work) {
    RunGuarded(kIpcLogCategory, item, "Work on the IPC thread threw an exception");
    item = nullptr;  // its captures go before the next one runs
  }
  RunGuarded(kIpcLogCategory, wake_hook_, "Work on the IPC thread threw an exception");
}

void EventLoop::Arm() {
  const auto next = timers_->NextWake();
  if (!next) {
    return;  // a one-shot source is off once it has fired
  }
  const auto deadline = static_cast<std::uint64_t>(next->time_since_epoch().count());
  sd_event_source_set_time(time_source_.get(), deadline);
  sd_event_source_set_enabled(time_source_.get(), SD_EVENT_ONESHOT);
}

}  // namespace zelt
