#include "platform/semaphore.h"

#include "platform/env.h"

namespace wdc {

void CountingSemaphore::signal() {
  // Notified under the lock: the waiter cannot return, and destroy a semaphore that lived on its
  // stack, until this call is done with the condition variable. Notifying after unlocking let
  // the waiter wake early (a spurious wake-up, or the count seen by a new wait) and destroy it
  // under a notify_one still running.
  std::lock_guard<std::mutex> lock(mutex_);
  ++count_;
  cv_.notify_one();
}

void CountingSemaphore::wait() {
  std::unique_lock<std::mutex> lock(mutex_);
  cv_.wait(lock, [this] { return count_ > 0; });
  --count_;
}

bool CountingSemaphore::waitFor(std::chrono::nanoseconds timeout) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (!Env::current().waitFor(cv_, lock, timeout, [this] { return count_ > 0; })) return false;
  --count_;
  return true;
}

long CountingSemaphore::count() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return count_;
}

}  // namespace wdc
