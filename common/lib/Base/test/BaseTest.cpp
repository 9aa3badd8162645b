#include "zelt/AsyncCallbackHandle.h"
#include "zelt/ConcurrentQueue.h"
#include "zelt/RevocableCallback.h"

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <future>
#include <memory>
#include <string>
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
        queue.PushAlways({producer, i});
      }
    });
  }
  std::vector<int> next(kProducers, 0);
  for (int i = 0; i < kProducers * kEach; ++i) {
    const auto [producer, number] = queue.Pop();
    ASSERT_EQ(number, next[static_cast<std::size_t>(producer)]++);
  }
  EXPECT_EQ(queue.Size(), 0U);
}

TEST(ConcurrentQueue, RefusesAboveItsLimitAndAboveTheShareOfOneSource) {
  ConcurrentQueue<int> queue({.number = 8, .bytes = 400});
  const auto push = [&](const char* source, std::size_t bytes) {
    const std::size_t before = queue.Size();
    try {
      queue.Push(0, source, bytes);
      return true;
    } catch (const Busy&) {
      EXPECT_EQ(queue.Size(), before);
      return false;
    }
  };
  EXPECT_FALSE(push("a", 401));  // never fits
  EXPECT_TRUE(push("a", 150));   // more than its share, but the first
  EXPECT_FALSE(push("a", 0));
  EXPECT_TRUE(push("b", 60));
  EXPECT_TRUE(push("b", 40));  // the whole share
  EXPECT_FALSE(push("b", 0));  // in number
  EXPECT_FALSE(push("c", 151));
  EXPECT_TRUE(push("c", 90));
  EXPECT_FALSE(push("c", 11));
  EXPECT_TRUE(push("d", 60));
  queue.PushAlways(1, "b", 300);
  EXPECT_EQ(queue.Waiting("b").number, 3U);
  EXPECT_EQ(queue.Waiting("b").bytes, 400U);
  EXPECT_FALSE(push("e", 0));  // above the limit by what could not be refused
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(queue.Pop(), 0);
  }
  EXPECT_FALSE(push("a", 101));
  EXPECT_EQ(queue.Pop(), 1);
  for (const char* source : {"a", "b", "c", "d"}) {
    EXPECT_EQ(queue.Waiting(source).number, 0U);
    EXPECT_TRUE(push(source, 50));
    EXPECT_TRUE(push(source, 50));
  }
  EXPECT_FALSE(push("e", 0));  // in number
}

TEST(ConcurrentQueue, RefusesWhatComesBehindTheLast) {
  ConcurrentQueue<int> queue;
  queue.Push(1, "a", ~std::size_t{0});
  queue.Close(2);
  EXPECT_THROW(queue.Push(3, "b", 0), Busy);
  queue.PushAlways(4);
  EXPECT_EQ(queue.Pop(), 1);
  EXPECT_EQ(queue.Pop(), 2);
  EXPECT_EQ(queue.Pop(), 4);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // they have their own heap

long ResidentPages() {
  long all = 0;
  long resident = 0;
  std::ifstream("/proc/self/statm") >> all >> resident;
  return resident;
}

TEST(ConcurrentQueue, GivesTheMemoryOfABacklogBack) {
  constexpr std::size_t kCount = 200000;
  constexpr std::size_t kBytes = 200;
  ConcurrentQueue<std::unique_ptr<std::string>> queue;
  std::vector<std::unique_ptr<std::string>> living;
  std::jthread consumer;
  const long before = ResidentPages();
  std::jthread([&] {
    for (std::size_t i = 0; i < kCount; ++i) {
      queue.PushAlways(std::make_unique<std::string>(kBytes, 'x'), "a", kBytes);
      if (i % 1000 == 0) {
        living.push_back(std::make_unique<std::string>(kBytes, 'y'));  // lies between
      }
    }
  }).join();
  const long backlog = ResidentPages() - before;
  consumer = std::jthread([&] {
    for (std::size_t i = 0; i < kCount + 1; ++i) {
      queue.Pop();  // the last one has to wait
    }
  });
  const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  const auto left = [&] { return ResidentPages() - before; };
  while (left() > backlog / 5 && std::chrono::steady_clock::now() < give_up) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  EXPECT_LE(left(), backlog / 5);
  queue.PushAlways(nullptr);
}

#endif

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
