#pragma once

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>

#include <chrono>
#include <functional>
#include <memory>
#include <utility>

namespace radiosim {

// Does things later, on the thread that runs `io`. What still waits when this is stopped or gone is
// not done. One thread.
class Later {
 public:
  explicit Later(asio::io_context& io) : io_(io) {}

  // Does `action` after `delay`; at once if that is 0.
  void operator()(std::chrono::milliseconds delay, std::function<void()> action) const {
    if (delay.count() == 0) {
      action();
      return;
    }
    auto timer = std::make_shared<asio::steady_timer>(io_, delay);
    timer->async_wait(
        [timer, alive = Alive(), action = std::move(action)](const asio::error_code& error) {
          if (!error && !alive.expired()) {
            action();
          }
        });
  }

  // Expires once this is stopped or gone: for other work that waits in `io`.
  std::weak_ptr<void> Alive() const { return alive_; }

  bool IsStopped() const { return alive_ == nullptr; }
  void Stop() { alive_.reset(); }

 private:
  asio::io_context& io_;
  std::shared_ptr<void> alive_ = std::make_shared<int>(0);
};

}  // namespace radiosim
