#include "platform/virtual_env.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <limits>
#include <memory>
#include <mutex>
#include <thread>

#include "platform/semaphore.h"

namespace wdc {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

TEST(VirtualEnv, SleepingRecordsAndAdvancesBothClocksAtOnce) {
  VirtualEnv env;
  auto startUptime = env.uptime();
  auto startWall = env.now();
  auto realStart = std::chrono::steady_clock::now();
  env.sleepFor(30s);
  env.sleepFor(500ms);
  EXPECT_LT(std::chrono::steady_clock::now() - realStart, 1s);
  EXPECT_EQ(env.uptime() - startUptime, 30500ms);
  EXPECT_EQ(env.now() - startWall, 30500ms);
  EXPECT_THAT(env.sleeps(), ElementsAre(30s, 500ms));
  EXPECT_EQ(env.totalSlept(), 30500ms);
}

TEST(VirtualEnv, UptimeDoesNotStartAtZero) {
  VirtualEnv env;
  EXPECT_GT(env.uptime(), 0s);
}

TEST(VirtualEnv, ScriptedRandomIsClampedAndThenZero) {
  VirtualEnv env;
  env.scriptRandom({7, 5000});
  EXPECT_EQ(env.uniformRandom(1000), 7u);
  EXPECT_EQ(env.uniformRandom(1000), 1000u);
  EXPECT_EQ(env.uniformRandom(1000), 0u);
  EXPECT_THAT(env.randomBounds(), ElementsAre(1000u, 1000u, 1000u));
}

TEST(VirtualEnv, ScheduledTasksRunInDeadlineOrderWhenTimeAdvances) {
  VirtualEnv env;
  std::vector<int> ran;
  env.scheduleAfter(2s, [&] { ran.push_back(2); });
  env.scheduleAfter(1s, [&] {
    ran.push_back(1);
    env.scheduleAfter(500ms, [&] { ran.push_back(15); });  // due at 1.5 s
  });
  env.advance(999ms);
  EXPECT_TRUE(ran.empty());
  env.advance(1500ms);
  EXPECT_THAT(ran, ElementsAre(1, 15, 2));
  EXPECT_EQ(env.scheduledCount(), 0u);
}

TEST(VirtualEnv, RunNextScheduledJumpsToTheTask) {
  VirtualEnv env;
  auto start = env.uptime();
  bool ran = false;
  env.scheduleAfter(30s, [&] { ran = true; });
  EXPECT_TRUE(env.runNextScheduled());
  EXPECT_TRUE(ran);
  EXPECT_EQ(env.uptime() - start, 30s);
  EXPECT_FALSE(env.runNextScheduled());
}

TEST(VirtualEnv, TemporaryDirectoryIsFreshAndRemoved) {
  std::filesystem::path dir;
  {
    VirtualEnv a;
    VirtualEnv b;
    dir = a.temporaryDirectory();
    EXPECT_TRUE(std::filesystem::is_directory(dir));
    EXPECT_NE(dir, b.temporaryDirectory());
  }
  EXPECT_FALSE(std::filesystem::exists(dir));
}

TEST(VirtualEnv, UUIDsAreDistinctAndWellFormed) {
  VirtualEnv env;
  auto a = env.newUUID();
  auto b = env.newUUID();
  EXPECT_NE(a, b);
  EXPECT_EQ(a.size(), 36u);
  auto real = Env::real().newUUID();
  EXPECT_EQ(real.size(), 36u);
  EXPECT_EQ(real[14], '4');
  EXPECT_NE(real, Env::real().newUUID());
}

TEST(ScopedEnv, InstallsAndRestores) {
  VirtualEnv outer;
  VirtualEnv inner;
  EXPECT_EQ(&Env::current(), &Env::real());
  {
    ScopedEnv useOuter(outer);
    EXPECT_EQ(&Env::current(), &outer);
    {
      ScopedEnv useInner(inner);
      EXPECT_EQ(&Env::current(), &inner);
    }
    EXPECT_EQ(&Env::current(), &outer);
  }
  EXPECT_EQ(&Env::current(), &Env::real());
}

TEST(RealEnv, UniformRandomStaysInBoundsAndCoversThem) {
  bool seen[4] = {};
  for (int i = 0; i < 400; ++i) {
    uint32_t v = Env::real().uniformRandom(3);
    ASSERT_LE(v, 3u);
    seen[v] = true;
  }
  EXPECT_TRUE(seen[0] && seen[1] && seen[2] && seen[3]);
}

// Seconds reach the clocks from servers and hosts; none of them may wrap a count around.
TEST(TimeConversion, SecondsSaturateAtTheEndsOfTheNanosecondRange) {
  using ns = std::chrono::nanoseconds;
  const double inf = std::numeric_limits<double>::infinity();
  EXPECT_EQ(fromSeconds(1.5), 1500ms);
  EXPECT_EQ(fromSeconds(-2), -2s);
  EXPECT_EQ(fromSeconds(9.2e9), ns(9'200'000'000'000'000'000));  // just inside the range
  for (double huge : {9.3e9, 1e10, 1e30, inf, std::numeric_limits<double>::max()}) {
    EXPECT_EQ(fromSeconds(huge), ns::max()) << huge;
    EXPECT_EQ(fromSeconds(-huge), ns::min()) << -huge;
  }
  EXPECT_EQ(fromSeconds(std::numeric_limits<double>::quiet_NaN()), ns::zero());
  EXPECT_EQ(fromSeconds(-std::numeric_limits<double>::quiet_NaN()), ns::zero());

  EXPECT_EQ(saturatingAdd(ns::max(), 1ns), ns::max());
  EXPECT_EQ(saturatingAdd(1000s, ns::max()), ns::max());
  EXPECT_EQ(saturatingAdd(ns::min(), -1ns), ns::min());
  EXPECT_EQ(saturatingAdd(ns::max(), ns::min()), -1ns);
  EXPECT_EQ(saturatingAdd(3s, -1s), 2s);
}

TEST(VirtualEnv, ClocksStopAtTheirLatestInstantInsteadOfWrapping) {
  VirtualEnv env;
  bool ran = false;
  env.sleepFor(1s);
  env.scheduleAfter(std::chrono::nanoseconds::max(), [&] { ran = true; });
  env.advance(std::chrono::hours(24 * 365));
  EXPECT_FALSE(ran);  // a wrapped deadline would lie in the past and run at once
  const auto before = env.uptime();
  env.sleepFor(std::chrono::nanoseconds::max());
  env.sleepFor(std::chrono::nanoseconds::max());
  EXPECT_EQ(env.uptime(), std::chrono::nanoseconds::max());
  EXPECT_GT(env.uptime(), before);
  EXPECT_GT(env.now(), std::chrono::system_clock::time_point{});
  std::mutex mutex;
  std::condition_variable cv;
  std::unique_lock lock(mutex);
  EXPECT_FALSE(env.waitFor(cv, lock, std::chrono::nanoseconds::max(), [] { return false; }));
  EXPECT_EQ(env.uptime(), std::chrono::nanoseconds::max());
}

TEST(RealEnv, AnUnboundedTimeoutNeitherWrapsNorFiresEarly) {
  std::mutex mutex;
  std::condition_variable cv;
  bool ready = false;
  std::thread setter([&] {
    std::this_thread::sleep_for(20ms);
    {
      std::lock_guard guard(mutex);
      ready = true;
    }
    cv.notify_all();
  });
  {
    std::unique_lock lock(mutex);
    // A wrapped deadline would lie in the past: the wait would return false at once.
    EXPECT_TRUE(Env::real().waitFor(cv, lock, std::chrono::nanoseconds::max(), [&] { return ready; }));
  }
  setter.join();

  // The far task stays queued for the life of the process: it must not refer to this frame.
  auto ran = std::make_shared<std::atomic<bool>>(false);
  Env::real().scheduleAfter(std::chrono::nanoseconds::max(), [ran] { *ran = true; });
  std::atomic<bool> soon{false};
  Env::real().scheduleAfter(10ms, [&soon] { soon = true; });
  for (int i = 0; i < 500 && !soon; ++i) std::this_thread::sleep_for(10ms);
  EXPECT_TRUE(soon);
  EXPECT_FALSE(*ran);  // the timer runs tasks in deadline order: a wrapped one would have gone first
}

class SemaphoreTest : public testing::Test {
 protected:
  VirtualEnv env_;
  ScopedEnv use_{env_};
};

TEST_F(SemaphoreTest, TimedWaitRunsOutInVirtualTime) {
  CountingSemaphore slots(1);
  EXPECT_TRUE(slots.waitFor(120s));
  auto before = env_.uptime();
  auto realStart = std::chrono::steady_clock::now();
  EXPECT_FALSE(slots.waitFor(120s));
  EXPECT_EQ(env_.uptime() - before, 120s);
  EXPECT_LT(std::chrono::steady_clock::now() - realStart, 5s);
}

TEST_F(SemaphoreTest, TimedWaitIsWokenBySignalFromAnotherThread) {
  env_.setRealGrace(5000ms);
  CountingSemaphore slots(0);
  std::thread releaser([&] {
    std::this_thread::sleep_for(20ms);
    slots.signal();
  });
  EXPECT_TRUE(slots.waitFor(120s));
  releaser.join();
  EXPECT_EQ(slots.count(), 0);
}

}  // namespace
}  // namespace wdc
