#pragma once

#include "zelt/Mutex.h"
#include "zelt/StartThread.h"
#include "zelt/ThreadAnnotations.h"

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>

#include <atomic>
#include <functional>
#include <future>
#include <thread>

namespace orka {

// The thread of the links, from the first link on. Any thread may call it.
class RadioThread {
 public:
  RadioThread() = default;
  RadioThread(const RadioThread&) = delete;
  RadioThread& operator=(const RadioThread&) = delete;

  // Waits until nothing is left to be done there. Links must be closed before.
  ~RadioThread() {
    if (thread_.joinable()) {
      work_.reset();
      thread_.join();
    }
  }

  asio::io_context& Io() { return io_; }

  // Throws std::system_error when there can be no further thread. A second call does nothing.
  void Start() {
    const zelt::Lock lock(mutex_);
    if (!thread_.joinable()) {
      thread_ = zelt::StartThread([this] {
        id_ = std::this_thread::get_id();
        io_.run();
      });
      started_ = true;
    }
  }

  bool IsThis() const { return id_.load() == std::this_thread::get_id(); }

  // Runs `work` there, after what is under way, and waits for it; runs it at once when this is that
  // thread, or when there is none yet.
  void Run(const std::function<void()>& work) {
    if (!started_ || IsThis()) {
      work();
      return;
    }
    std::promise<void> done;
    asio::post(io_, [&] {
      work();
      done.set_value();
    });
    done.get_future().wait();
  }

 private:
  asio::io_context io_{1};
  asio::executor_work_guard<asio::io_context::executor_type> work_{io_.get_executor()};
  std::atomic<std::thread::id> id_{std::thread::id()};
  std::atomic<bool> started_{false};
  zelt::Mutex mutex_;
  std::thread thread_ ZELT_GUARDED_BY(mutex_);
};

}  // namespace orka
