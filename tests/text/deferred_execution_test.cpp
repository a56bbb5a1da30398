// Deferred calls: later on the caller's run loop (in virtual time), on another loop's thread with
// and without waiting, in the background, and null callbacks on every route.
#include "webdavconnect/deferred_execution.h"

#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <stdexcept>
#include <vector>

#include "platform/virtual_env.h"

namespace wdc {
namespace {

using namespace std::chrono_literals;

class DeferredExecutionTest : public testing::Test {
 protected:
  void SetUp() override { env_.setRealGrace(1ms); }
  VirtualEnv env_;
  ScopedEnv use_{env_};
  std::shared_ptr<RunLoop> loop_ = RunLoop::current();
};

TEST_F(DeferredExecutionTest, ZeroDelayStillRunsLaterOnTheCallingThread) {
  bool ran = false;
  performBlock([&] { ran = true; }, 0.0);
  EXPECT_FALSE(ran);
  EXPECT_EQ(loop_->runUntilIdle(), 1u);
  EXPECT_TRUE(ran);
}

TEST_F(DeferredExecutionTest, DelayedBlocksRunInDueOrderOnceTheirTimeHasCome) {
  std::vector<int> order;
  performBlock([&] { order.push_back(2); }, 2.0);
  performBlock([&] { order.push_back(1); }, 1.0);
  performBlock([&] { order.push_back(0); }, -5.0);  // negative counts as now
  EXPECT_EQ(loop_->runUntilIdle(), 1u);
  EXPECT_EQ(order, (std::vector<int>{0}));
  env_.advance(1500ms);
  EXPECT_EQ(loop_->runUntilIdle(), 1u);
  EXPECT_EQ(order, (std::vector<int>{0, 1}));
  // runFor waits (virtually) for the last one.
  EXPECT_EQ(loop_->runFor(10s), 1u);
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
}

TEST_F(DeferredExecutionTest, CallbackAndWhatItCapturesAreReleasedAfterRunning) {
  auto owner = std::make_shared<int>(7);
  std::weak_ptr<int> watch = owner;
  int seen = 0;
  performBlock([owner, &seen] { seen = *owner; }, 0.0);
  owner.reset();
  EXPECT_FALSE(watch.expired());  // the scheduled call keeps it alive
  loop_->runUntilIdle();
  EXPECT_EQ(seen, 7);
  EXPECT_TRUE(watch.expired());
}

TEST_F(DeferredExecutionTest, NullCallbacksAreIgnoredOnEveryRoute) {
  performBlock(nullptr, 0.0);
  EXPECT_EQ(loop_->runUntilIdle(), 1u);  // the trampoline ran and did nothing
  LoopThread thread;
  performBlock(nullptr, thread.runLoop(), true);
  performBlockInBackground(nullptr);
  fireBlockAfterDelay(nullptr);
  int calls = 0;
  fireBlockAfterDelay([&] { ++calls; });
  EXPECT_EQ(calls, 1);
}

TEST_F(DeferredExecutionTest, OnThreadRunsThereAndWaitsWhenAsked) {
  LoopThread thread;
  std::thread::id ranOn;
  performBlock([&] { ranOn = std::this_thread::get_id(); }, thread.runLoop(), true);
  EXPECT_EQ(ranOn, thread.id());

  std::promise<std::thread::id> later;
  performBlock([&] { later.set_value(std::this_thread::get_id()); }, thread.runLoop(), false);
  EXPECT_EQ(later.get_future().get(), thread.id());
}

TEST_F(DeferredExecutionTest, WaitingOnTheOwnLoopRunsAtOnce) {
  bool ran = false;
  performBlock([&] { ran = true; }, *loop_, true);
  EXPECT_TRUE(ran);
  performBlock([&] { ran = false; }, *loop_, false);
  EXPECT_TRUE(ran);  // not waiting: queued for the loop
  loop_->runUntilIdle();
  EXPECT_FALSE(ran);
}

TEST_F(DeferredExecutionTest, WaitingCallerReceivesTheCallbacksException) {
  LoopThread thread;
  EXPECT_THROW(performBlock([] { throw std::runtime_error("boom"); }, thread.runLoop(), true),
               std::runtime_error);
  int after = 0;
  performBlock([&] { after = 1; }, thread.runLoop(), true);  // the loop survived
  EXPECT_EQ(after, 1);
}

TEST_F(DeferredExecutionTest, BackgroundRunsOnAnotherThread) {
  std::promise<std::thread::id> ran;
  performBlockInBackground([&] { ran.set_value(std::this_thread::get_id()); });
  EXPECT_NE(ran.get_future().get(), std::this_thread::get_id());
}

TEST_F(DeferredExecutionTest, StopEndsARunFromAnotherThread) {
  LoopThread helper;
  bool ran = false;
  loop_->post([&] {
    ran = true;
    performBlock([loop = loop_] { loop->stop(); }, helper.runLoop(), false);
  });
  loop_->run();  // returns once the helper has stopped it
  EXPECT_TRUE(ran);
}

}  // namespace
}  // namespace wdc
