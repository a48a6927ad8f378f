#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "common/WorkQueue.h"

namespace {

using namespace std::chrono_literals;

TEST(WorkQueue, RunsTasksOffTheCallerAndAroundABlockedOne) {
  kd::WorkQueue& queue = kd::WorkQueue::shared();
  ASSERT_GE(queue.threadLimit(), 2u);
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  std::promise<std::thread::id> ranOn;
  auto later = std::make_shared<std::atomic<int>>(0);

  queue.async([released] { released.wait(); });
  queue.async([] { throw std::runtime_error("escapes"); });  // dropped, the worker lives on
  queue.async([&ranOn] { ranOn.set_value(std::this_thread::get_id()); });
  auto id = ranOn.get_future();
  // Runs while the first task still blocks.
  ASSERT_EQ(id.wait_for(10s), std::future_status::ready);
  EXPECT_NE(id.get(), std::this_thread::get_id());

  for (int i = 0; i < 100; ++i) queue.async([later] { ++*later; });
  std::thread releaser([&release] {
    std::this_thread::sleep_for(20ms);
    release.set_value();
  });
  // Waits for the blocked task as well as the queued ones.
  queue.waitUntilIdle();
  EXPECT_EQ(*later, 100);
  EXPECT_EQ(released.wait_for(0s), std::future_status::ready);
  releaser.join();
}

}  // namespace
