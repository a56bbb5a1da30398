#include "platform/virtual_env.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
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
