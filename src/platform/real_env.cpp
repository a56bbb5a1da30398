// The real machine behind Env::real(): steady and system clocks, a random device, one timer
// thread shared by every scheduleAfter() call, and the process temporary directory.
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <map>
#include <random>
#include <thread>

#include "platform/env.h"

namespace wdc {
namespace {

// One thread that fires delayed tasks in deadline order. Created on first use, never destroyed,
// so shutdown order cannot bite a task scheduled from a static destructor.
class TimerThread {
 public:
  TimerThread() : thread_([this] { run(); }) { thread_.detach(); }

  void schedule(std::chrono::steady_clock::time_point when, std::function<void()> task) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      tasks_.emplace(when, std::move(task));
    }
    cv_.notify_one();
  }

 private:
  void run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      if (tasks_.empty()) {
        cv_.wait(lock);
        continue;
      }
      auto first = tasks_.begin();
      if (std::chrono::steady_clock::now() < first->first) {
        cv_.wait_until(lock, first->first);
        continue;
      }
      auto task = std::move(first->second);
      tasks_.erase(first);
      lock.unlock();
      task();  // never under the lock: a task may schedule another
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable cv_;
  std::multimap<std::chrono::steady_clock::time_point, std::function<void()>> tasks_;
  std::thread thread_;
};

// now + delay on the steady clock, held at its latest instant instead of wrapping.
std::chrono::steady_clock::time_point steadyDeadline(std::chrono::nanoseconds delay) {
  using std::chrono::steady_clock;
  const auto since = std::chrono::duration_cast<std::chrono::nanoseconds>(
      steady_clock::now().time_since_epoch());
  return steady_clock::time_point(
      std::chrono::duration_cast<steady_clock::duration>(saturatingAdd(since, delay)));
}

class RealEnv final : public Env {
 public:
  std::chrono::system_clock::time_point now() override { return std::chrono::system_clock::now(); }

  std::chrono::nanoseconds uptime() override {
    return std::chrono::steady_clock::now().time_since_epoch();
  }

  void sleepFor(std::chrono::nanoseconds duration) override {
    if (duration > std::chrono::nanoseconds::zero()) std::this_thread::sleep_for(duration);
  }

  uint32_t uniformRandom(uint32_t upperInclusive) override {
    std::lock_guard<std::mutex> lock(randomMutex_);
    // uniform_int_distribution rejects out-of-range draws instead of folding them: no bias.
    std::uniform_int_distribution<uint32_t> dist(0, upperInclusive);
    return dist(engine_);
  }

  void scheduleAfter(std::chrono::nanoseconds delay, std::function<void()> task) override {
    static TimerThread* timer = new TimerThread();
    timer->schedule(steadyDeadline(delay), std::move(task));
  }

  bool waitFor(std::condition_variable& cv, std::unique_lock<std::mutex>& lock,
               std::chrono::nanoseconds timeout, const std::function<bool()>& ready) override {
    // wait_for would add the timeout to the clock without a bound; a saturated one must not wrap.
    return cv.wait_until(lock, steadyDeadline(timeout), ready);
  }

  std::filesystem::path temporaryDirectory() override {
    std::error_code ec;
    auto dir = std::filesystem::temp_directory_path(ec);
    return ec ? std::filesystem::path("/tmp") : dir;
  }

  std::string newUUID() override {
    uint8_t bytes[16];
    {
      std::lock_guard<std::mutex> lock(randomMutex_);
      for (auto& b : bytes) b = static_cast<uint8_t>(engine_());
    }
    bytes[6] = static_cast<uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
    bytes[8] = static_cast<uint8_t>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
    char text[37];
    std::snprintf(text, sizeof text,
                  "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X", bytes[0],
                  bytes[1], bytes[2], bytes[3], bytes[4], bytes[5], bytes[6], bytes[7], bytes[8],
                  bytes[9], bytes[10], bytes[11], bytes[12], bytes[13], bytes[14], bytes[15]);
    return text;
  }

 private:
  std::mutex randomMutex_;
  std::mt19937_64 engine_{std::random_device{}()};
};

std::atomic<Env*>& currentSlot() {
  static std::atomic<Env*> slot{nullptr};
  return slot;
}

}  // namespace

Env& Env::real() {
  static Env* env = new RealEnv();
  return *env;
}

Env& Env::current() {
  Env* env = currentSlot().load(std::memory_order_acquire);
  return env ? *env : real();
}

ScopedEnv::ScopedEnv(Env& env) : previous_(currentSlot().exchange(&env)) {}

ScopedEnv::~ScopedEnv() { currentSlot().store(previous_); }

}  // namespace wdc
