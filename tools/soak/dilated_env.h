// The real machine with time running `factor` times faster: clocks advance `factor` seconds per
// real second and a sleep of N seconds takes N / factor real seconds. Unlike a VirtualEnv there
// is one timeline for every thread (emulator workers, client threads, timers), so the order of
// requests and cooldowns stays what it really was, and a soak with 30 s back-offs still runs
// quickly.
#pragma once

#include <chrono>
#include <filesystem>
#include <mutex>
#include <random>

#include "platform/env.h"

namespace wdc::soak {

class DilatedEnv final : public Env {
 public:
  // `seed` drives uniformRandom (back-off jitter); the temporary directory is `scratch`.
  DilatedEnv(double factor, uint64_t seed, std::filesystem::path scratch);

  std::chrono::system_clock::time_point now() override;
  std::chrono::nanoseconds uptime() override;
  void sleepFor(std::chrono::nanoseconds duration) override;
  uint32_t uniformRandom(uint32_t upperInclusive) override;
  void scheduleAfter(std::chrono::nanoseconds delay, std::function<void()> task) override;
  bool waitFor(std::condition_variable& cv, std::unique_lock<std::mutex>& lock,
               std::chrono::nanoseconds timeout, const std::function<bool()>& ready) override;
  std::filesystem::path temporaryDirectory() override;
  std::string newUUID() override;

  // Real time that `duration` of this Env's time takes.
  [[nodiscard]] std::chrono::nanoseconds toReal(std::chrono::nanoseconds duration) const;

 private:
  const double factor_;
  const std::chrono::nanoseconds realOrigin_;
  const std::chrono::system_clock::time_point wallOrigin_;
  const std::filesystem::path scratch_;
  std::mutex randomMutex_;
  std::mt19937_64 random_;  // guarded by randomMutex_
};

}  // namespace wdc::soak
