#include "platform/virtual_env.h"

#include <cstdio>
#include <cstdlib>

namespace wdc {
namespace {
constexpr std::chrono::nanoseconds kUptimeOrigin = std::chrono::seconds(1000);
// 2026-01-01T00:00:00Z
constexpr std::chrono::seconds kWallOrigin{1767225600};
}  // namespace

VirtualEnv::VirtualEnv() {
  std::string pattern = (Env::real().temporaryDirectory() / "wdc-virtual-XXXXXX").string();
  if (::mkdtemp(pattern.data()) != nullptr) {
    tempDir_ = pattern;
  } else {
    tempDir_ = Env::real().temporaryDirectory();
  }
}

VirtualEnv::~VirtualEnv() {
  std::error_code ec;
  if (tempDir_ != Env::real().temporaryDirectory()) std::filesystem::remove_all(tempDir_, ec);
}

std::chrono::system_clock::time_point VirtualEnv::now() {
  std::lock_guard<std::mutex> lock(mutex_);
  return std::chrono::system_clock::time_point(
      std::chrono::duration_cast<std::chrono::system_clock::duration>(
          saturatingAdd(kWallOrigin, elapsed_)));
}

std::chrono::nanoseconds VirtualEnv::uptime() {
  std::lock_guard<std::mutex> lock(mutex_);
  return saturatingAdd(kUptimeOrigin, elapsed_);
}

void VirtualEnv::sleepFor(std::chrono::nanoseconds duration) {
  std::lock_guard<std::mutex> lock(mutex_);
  sleeps_.push_back(duration);
  if (duration > std::chrono::nanoseconds::zero()) elapsed_ = saturatingAdd(elapsed_, duration);
}

uint32_t VirtualEnv::uniformRandom(uint32_t upperInclusive) {
  std::lock_guard<std::mutex> lock(mutex_);
  randomBounds_.push_back(upperInclusive);
  if (randomScript_.empty()) return 0;
  uint32_t value = randomScript_.front();
  randomScript_.pop_front();
  return value > upperInclusive ? upperInclusive : value;
}

void VirtualEnv::scheduleAfter(std::chrono::nanoseconds delay, std::function<void()> task) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (delay < std::chrono::nanoseconds::zero()) delay = std::chrono::nanoseconds::zero();
  scheduled_.emplace(saturatingAdd(elapsed_, delay), std::move(task));
}

bool VirtualEnv::waitFor(std::condition_variable& cv, std::unique_lock<std::mutex>& lock,
                         std::chrono::nanoseconds timeout, const std::function<bool()>& ready) {
  if (ready()) return true;
  std::chrono::milliseconds grace;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    grace = realGrace_;
  }
  auto realWait = std::min<std::chrono::nanoseconds>(timeout, grace);
  if (cv.wait_for(lock, realWait, ready)) return true;
  // Nobody came in real time: let the rest of the timeout pass in virtual time.
  {
    std::lock_guard<std::mutex> guard(mutex_);
    if (timeout > std::chrono::nanoseconds::zero()) elapsed_ = saturatingAdd(elapsed_, timeout);
  }
  return ready();
}

std::filesystem::path VirtualEnv::temporaryDirectory() { return tempDir_; }

std::string VirtualEnv::newUUID() {
  std::lock_guard<std::mutex> lock(mutex_);
  char text[37];
  std::snprintf(text, sizeof text, "00000000-0000-4000-8000-%012llX",
                static_cast<unsigned long long>(++uuidCounter_));
  return text;
}

std::vector<std::function<void()>> VirtualEnv::takeDueLocked() {
  std::vector<std::function<void()>> due;
  while (!scheduled_.empty() && scheduled_.begin()->first <= elapsed_) {
    due.push_back(std::move(scheduled_.begin()->second));
    scheduled_.erase(scheduled_.begin());
  }
  return due;
}

void VirtualEnv::advance(std::chrono::nanoseconds duration) {
  std::chrono::nanoseconds target;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    target = saturatingAdd(elapsed_, duration);
  }
  for (;;) {
    std::vector<std::function<void()>> due;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (scheduled_.empty() || scheduled_.begin()->first > target) {
        if (elapsed_ < target) elapsed_ = target;
        return;
      }
      if (elapsed_ < scheduled_.begin()->first) elapsed_ = scheduled_.begin()->first;
      due = takeDueLocked();
    }
    for (auto& task : due) task();  // outside the lock: tasks sleep and schedule
  }
}

bool VirtualEnv::runNextScheduled() {
  std::vector<std::function<void()>> due;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (scheduled_.empty()) return false;
    if (elapsed_ < scheduled_.begin()->first) elapsed_ = scheduled_.begin()->first;
    due = takeDueLocked();
  }
  for (auto& task : due) task();
  return true;
}

size_t VirtualEnv::scheduledCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return scheduled_.size();
}

std::vector<std::chrono::nanoseconds> VirtualEnv::sleeps() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return sleeps_;
}

std::chrono::nanoseconds VirtualEnv::totalSlept() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::chrono::nanoseconds total{0};
  for (auto s : sleeps_) total += s;
  return total;
}

void VirtualEnv::clearSleeps() {
  std::lock_guard<std::mutex> lock(mutex_);
  sleeps_.clear();
}

void VirtualEnv::scriptRandom(std::vector<uint32_t> values) {
  std::lock_guard<std::mutex> lock(mutex_);
  randomScript_.assign(values.begin(), values.end());
}

std::vector<uint32_t> VirtualEnv::randomBounds() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return randomBounds_;
}

void VirtualEnv::setRealGrace(std::chrono::milliseconds grace) {
  std::lock_guard<std::mutex> lock(mutex_);
  realGrace_ = grace;
}

}  // namespace wdc
