#include "zelt/AsyncCallbackHandle.h"
#include "zelt/ConcurrentQueue.h"
#include "zelt/RevocableCallback.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

namespace zelt {
namespace {

TEST(ConcurrentQueue, KeepsOrderOfEachProducerAndLosesNothing) {
  constexpr int kProducers = 3;
  constexpr int kEach = 2000;
  ConcurrentQueue<std::pair<int, int>> queue;
  std::vector<std::jthread> producers;
  producers.reserve(kProducers);
  for (int producer = 0; producer < kProducers; ++producer) {
    producers.emplace_back([&queue, producer] {
      for (int i = 0; i < kEach; ++i) {
        queue.Push({producer, i});
      }
    });
  }
  std::vector<int> next(kProducers, 0);
  for (int i = 0; i < kProducers * kEach; ++i) {
    const auto [producer, number] = queue.Pop();
    ASSERT_EQ(number, next[static_cast<std::size_t>(producer)]++);
  }
  EXPECT_FALSE(queue.TryPop().has_value());
}

TEST(AsyncCallbackHandle, ClosesOnceAndClosesWhatItReplaces) {
  int first = 0;
  int second = 0;
  {
    AsyncCallbackHandle handle([&first] { ++first; });
    handle = AsyncCallbackHandle([&second] { ++second; });
    EXPECT_EQ(first, 1);
    AsyncCallbackHandle moved = std::move(handle);
    EXPECT_TRUE(moved.IsOpen());
    moved.Close();
    moved.Close();
    EXPECT_FALSE(moved.IsOpen());
  }
  EXPECT_EQ(first, 1);
  EXPECT_EQ(second, 1);
}

TEST(RevocableCallback, RevokedFromInsideReturnsAtOnceAndReleasesItsCaptures) {
  auto token = std::make_shared<int>(0);
  RevocableCallback<>* self = nullptr;
  RevocableCallback<> callback([token, &self] {
    ++*token;
    self->Revoke();
  });
  self = &callback;
  EXPECT_TRUE(callback());
  EXPECT_FALSE(callback());
  EXPECT_EQ(*token, 1);
  EXPECT_EQ(token.use_count(), 1);
}

TEST(RevocableCallback, CapturesThatGoMayRevokeItAgain) {
  for (const bool from_inside : {false, true}) {
    auto* const self = new RevocableCallback<>*;  // which a thread that hangs still needs
    std::shared_ptr<void> last(nullptr, [self](void*) { (*self)->Revoke(); });
    *self = new RevocableCallback<>([self, from_inside, last = std::move(last)] {
      if (from_inside) {
        (*self)->Revoke();
      }
    });
    auto* const done = new std::promise<void>;
    std::thread([self, done] {
      (**self)();
      (*self)->Revoke();
      done->set_value();
    }).detach();
    ASSERT_EQ(done->get_future().wait_for(std::chrono::seconds(60)), std::future_status::ready)
        << from_inside;
    delete *self;
    delete self;
    delete done;
  }
}

}  // namespace
}  // namespace zelt
