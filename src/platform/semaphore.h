#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace wdc {

// A counting semaphore whose timed wait runs on the current Env's clock, so a 120 s wait for a
// download slot costs nothing under VirtualEnv. Thread-safe. A waiter may destroy the semaphore
// as soon as its wait has returned, even while the signalling thread is still inside signal().
class CountingSemaphore {
 public:
  explicit CountingSemaphore(long initial) : count_(initial) {}
  CountingSemaphore(const CountingSemaphore&) = delete;
  CountingSemaphore& operator=(const CountingSemaphore&) = delete;

  // Adds one to the count and wakes one waiter.
  void signal();
  // Takes one from the count, waiting as long as it takes. No time-out.
  void wait();
  // Takes one from the count if that happens within `timeout`; false when the time ran out.
  [[nodiscard]] bool waitFor(std::chrono::nanoseconds timeout);
  // The count now (negative never: waiters are not counted).
  [[nodiscard]] long count() const;

 private:
  mutable std::mutex mutex_;
  std::condition_variable cv_;
  long count_;
};

}  // namespace wdc
