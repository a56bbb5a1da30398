// The one seam between the library and the machine: clocks, sleeping, random draws, timers,
// timed waits, the temporary directory and UUIDs. Nothing outside src/platform reads a clock,
// sleeps or draws a random number on its own, so tests swap in a VirtualEnv and a 30 s back-off
// costs microseconds while the test can still read exactly how long the code "slept".
#pragma once

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>

namespace wdc {

// Everything the library asks of the machine. Implementations are thread-safe.
class Env {
 public:
  Env() = default;
  Env(const Env&) = delete;
  Env& operator=(const Env&) = delete;
  virtual ~Env() = default;

  // The Env in force for the process: the real one unless a ScopedEnv has swapped in another.
  static Env& current();
  // The real machine. Never destroyed.
  static Env& real();

  // Wall clock: dates written into records.
  virtual std::chrono::system_clock::time_point now() = 0;
  // Monotonic time since an arbitrary origin (boot on the real machine): cooldowns, deadlines.
  virtual std::chrono::nanoseconds uptime() = 0;
  // Blocks the calling thread for `duration` (a VirtualEnv only records it and moves time on).
  virtual void sleepFor(std::chrono::nanoseconds duration) = 0;
  // A uniformly distributed whole number in [0, upperInclusive], without modulo bias.
  virtual uint32_t uniformRandom(uint32_t upperInclusive) = 0;
  // Runs `task` once, on a timer thread, after `delay`. The task must not block for long.
  virtual void scheduleAfter(std::chrono::nanoseconds delay, std::function<void()> task) = 0;
  // Waits on `cv` (with `lock` held) until `ready()` is true or `timeout` has passed; returns
  // ready(). The real Env waits in real time; a VirtualEnv waits briefly in real time for another
  // thread, then lets the whole timeout pass in virtual time.
  virtual bool waitFor(std::condition_variable& cv, std::unique_lock<std::mutex>& lock,
                       std::chrono::nanoseconds timeout, const std::function<bool()>& ready) = 0;
  // The process's scratch directory; exists when returned.
  virtual std::filesystem::path temporaryDirectory() = 0;
  // A new random (version 4) UUID in upper-case 8-4-4-4-12 form.
  virtual std::string newUUID() = 0;
};

// Installs `env` as Env::current() for the lifetime of this object and restores the previous one.
// REQUIRES: `env` outlives the ScopedEnv; scopes nest in LIFO order. Not for concurrent use from
// several threads installing different Envs.
class ScopedEnv {
 public:
  explicit ScopedEnv(Env& env);
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  Env* previous_;
};

// Convenience for code that measures seconds as doubles, the unit most of the policy speaks.
inline double toSeconds(std::chrono::nanoseconds d) {
  return std::chrono::duration<double>(d).count();
}
// Saturates instead of overflowing: seconds come from servers and hosts (a retry-after of 1e30,
// a NaN), and a double outside the int64 range converted to a count is undefined behaviour.
// NaN gives 0; +/-infinity and anything past the range give nanoseconds::max()/min().
inline std::chrono::nanoseconds fromSeconds(double seconds) {
  using std::chrono::nanoseconds;
  if (std::isnan(seconds)) return nanoseconds::zero();
  const double count = seconds * 1e9;
  constexpr double kTwoTo63 = 9223372036854775808.0;  // int64 max + 1, exact as a double
  if (count >= kTwoTo63) return nanoseconds::max();
  if (count < -kTwoTo63) return nanoseconds::min();
  return nanoseconds(static_cast<nanoseconds::rep>(count));
}

// a + b, held at nanoseconds::max()/min() instead of wrapping: deadlines are "now + delay", and
// a saturated delay must give the latest deadline, not one in the past.
inline std::chrono::nanoseconds saturatingAdd(std::chrono::nanoseconds a,
                                              std::chrono::nanoseconds b) {
  std::chrono::nanoseconds::rep sum;
  if (!__builtin_add_overflow(a.count(), b.count(), &sum)) return std::chrono::nanoseconds(sum);
  return b.count() > 0 ? std::chrono::nanoseconds::max() : std::chrono::nanoseconds::min();
}

}  // namespace wdc
