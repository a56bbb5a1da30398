// An Env for tests and benchmarks in which time is virtual: sleeping moves the clocks on at once
// and is recorded, scheduled tasks run when the test advances time, random draws are scripted and
// the temporary directory is a fresh folder per instance.
#pragma once

#include <deque>
#include <map>
#include <vector>

#include "platform/env.h"

namespace wdc {

// Thread-safe: worker threads may sleep and schedule while the test thread advances time.
class VirtualEnv final : public Env {
 public:
  // Virtual uptime starts at 1000 s and the wall clock at 2026-01-01T00:00:00Z, so code that
  // treats 0 as "no deadline" is not fooled by the origin.
  VirtualEnv();
  ~VirtualEnv() override;  // removes the temporary directory and everything in it

  std::chrono::system_clock::time_point now() override;
  std::chrono::nanoseconds uptime() override;
  void sleepFor(std::chrono::nanoseconds duration) override;
  uint32_t uniformRandom(uint32_t upperInclusive) override;
  void scheduleAfter(std::chrono::nanoseconds delay, std::function<void()> task) override;
  bool waitFor(std::condition_variable& cv, std::unique_lock<std::mutex>& lock,
               std::chrono::nanoseconds timeout, const std::function<bool()>& ready) override;
  std::filesystem::path temporaryDirectory() override;
  std::string newUUID() override;

  // Moves both clocks on by `duration` and runs, on the calling thread and in deadline order,
  // every scheduled task that has come due. Tasks scheduled by those tasks run too when due.
  void advance(std::chrono::nanoseconds duration);
  // Advances exactly to the earliest scheduled task and runs it (and any due with it).
  // Returns false when nothing is scheduled.
  bool runNextScheduled();
  // Number of tasks waiting for their time.
  size_t scheduledCount() const;

  // Every sleepFor() duration so far, in call order.
  std::vector<std::chrono::nanoseconds> sleeps() const;
  std::chrono::nanoseconds totalSlept() const;
  void clearSleeps();

  // The next uniformRandom() calls return these values (clamped to their upper bound); once the
  // script is used up, draws return 0. Every draw's bound is recorded.
  void scriptRandom(std::vector<uint32_t> values);
  std::vector<uint32_t> randomBounds() const;

  // How long waitFor() waits in real time for another thread before letting the timeout pass
  // virtually. Default 200 ms.
  void setRealGrace(std::chrono::milliseconds grace);

 private:
  std::vector<std::function<void()>> takeDueLocked();

  mutable std::mutex mutex_;
  std::chrono::nanoseconds elapsed_{0};
  std::vector<std::chrono::nanoseconds> sleeps_;
  std::deque<uint32_t> randomScript_;
  std::vector<uint32_t> randomBounds_;
  std::multimap<std::chrono::nanoseconds, std::function<void()>> scheduled_;
  uint64_t uuidCounter_ = 0;
  std::chrono::milliseconds realGrace_{200};
  std::filesystem::path tempDir_;
};

}  // namespace wdc
