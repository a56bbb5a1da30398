#include "tools/soak/dilated_env.h"

namespace wdc::soak {

DilatedEnv::DilatedEnv(double factor, uint64_t seed, std::filesystem::path scratch)
    : factor_(factor),
      realOrigin_(Env::real().uptime()),
      wallOrigin_(Env::real().now()),
      scratch_(std::move(scratch)),
      random_(seed) {
  std::filesystem::create_directories(scratch_);
}

std::chrono::system_clock::time_point DilatedEnv::now() {
  const auto elapsed = Env::real().uptime() - realOrigin_;
  return wallOrigin_ + std::chrono::duration_cast<std::chrono::system_clock::duration>(
                           std::chrono::duration<double, std::nano>(elapsed.count() * factor_));
}

std::chrono::nanoseconds DilatedEnv::uptime() {
  // Kept above the real origin so it reads like a machine's uptime.
  const auto elapsed = Env::real().uptime() - realOrigin_;
  return realOrigin_ + std::chrono::nanoseconds(static_cast<int64_t>(elapsed.count() * factor_));
}

std::chrono::nanoseconds DilatedEnv::toReal(std::chrono::nanoseconds duration) const {
  return std::chrono::nanoseconds(static_cast<int64_t>(duration.count() / factor_));
}

void DilatedEnv::sleepFor(std::chrono::nanoseconds duration) {
  Env::real().sleepFor(toReal(duration));
}

uint32_t DilatedEnv::uniformRandom(uint32_t upperInclusive) {
  std::lock_guard lock(randomMutex_);
  return std::uniform_int_distribution<uint32_t>(0, upperInclusive)(random_);
}

void DilatedEnv::scheduleAfter(std::chrono::nanoseconds delay, std::function<void()> task) {
  Env::real().scheduleAfter(toReal(delay), std::move(task));
}

bool DilatedEnv::waitFor(std::condition_variable& cv, std::unique_lock<std::mutex>& lock,
                         std::chrono::nanoseconds timeout, const std::function<bool()>& ready) {
  return Env::real().waitFor(cv, lock, toReal(timeout), ready);
}

std::filesystem::path DilatedEnv::temporaryDirectory() {
  std::filesystem::create_directories(scratch_);
  return scratch_;
}

std::string DilatedEnv::newUUID() { return Env::real().newUUID(); }

}  // namespace wdc::soak
