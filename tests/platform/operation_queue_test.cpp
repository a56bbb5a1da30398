#include "webdavconnect/operation_queue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <set>

#include "platform/virtual_env.h"

namespace wdc {
namespace {

using namespace std::chrono_literals;

TEST(SerialQueue, RunsOperationsInOrderOneAtATime) {
  SerialQueue queue("test.serial");
  std::vector<int> order;
  std::atomic<int> running{0};
  std::atomic<bool> overlapped{false};
  for (int i = 0; i < 50; ++i) {
    queue.addOperation([&, i] {
      if (running.fetch_add(1) != 0) overlapped = true;
      order.push_back(i);
      running.fetch_sub(1);
    });
  }
  queue.waitUntilAllOperationsAreFinished();
  ASSERT_EQ(order.size(), 50u);
  for (int i = 0; i < 50; ++i) EXPECT_EQ(order[i], i);
  EXPECT_FALSE(overlapped);
}

TEST(SerialQueue, KnowsItsOwnThread) {
  SerialQueue queue("test.current");
  std::atomic<bool> inside{false};
  queue.addOperation([&] { inside = queue.isCurrentQueue(); });
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_TRUE(inside);
  EXPECT_FALSE(queue.isCurrentQueue());
}

TEST(SerialQueue, DelayedOperationWaitsForVirtualTime) {
  VirtualEnv env;
  ScopedEnv use(env);
  SerialQueue queue("test.delayed");
  std::atomic<bool> ran{false};
  queue.addOperationAfter(30s, [&] { ran = true; });
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_FALSE(ran);
  env.advance(30s);
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_TRUE(ran);
}

TEST(SerialQueue, DestructionFinishesPendingWork) {
  std::atomic<int> count{0};
  {
    SerialQueue queue("test.drain");
    for (int i = 0; i < 10; ++i) queue.addOperation([&] { count++; });
  }
  EXPECT_EQ(count, 10);
}

TEST(ConcurrentQueue, RunsOperationsSideBySide) {
  ConcurrentQueue queue("test.concurrent", 4);
  std::mutex mutex;
  std::condition_variable cv;
  int arrived = 0;
  bool allMet = false;
  for (int i = 0; i < 4; ++i) {
    queue.addOperation([&] {
      std::unique_lock<std::mutex> lock(mutex);
      if (++arrived == 4) cv.notify_all();
      // Only possible when all four run at once.
      allMet = cv.wait_for(lock, 5s, [&] { return arrived == 4; }) || allMet;
    });
  }
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_TRUE(allMet);
}

TEST(MainQueue, IsOneProcessWideSerialQueue) {
  EXPECT_EQ(&mainQueue(), &mainQueue());
  std::atomic<bool> ran{false};
  mainQueue().addOperation([&] { ran = mainQueue().isCurrentQueue(); });
  mainQueue().waitUntilAllOperationsAreFinished();
  EXPECT_TRUE(ran);
}

}  // namespace
}  // namespace wdc
