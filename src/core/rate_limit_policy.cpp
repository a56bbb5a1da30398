// The process-wide rate-limit state every connection shares: the cooldown deadline (seconds of
// uptime, 0 for none) under its own lock, the 4-slot download semaphore, and the serial queue on
// which delayed retries run. All of it is created once, on first use, and never destroyed.
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <mutex>

#include "core/cooldown_observer.h"
#include "platform/env.h"
#include "platform/logger.h"
#include "platform/semaphore.h"
#include "webdavconnect/webdav_connect.h"

namespace wdc {
namespace {

constexpr std::array<double, 6> kRateLimitDelaySeconds = {2, 4, 8, 16, 30, 30};
constexpr int64_t kMaxRateLimitAttempts = 6;
constexpr long kDownloadSlots = 4;
constexpr double kDownloadSlotWaitSeconds = 120;
constexpr uint32_t kJitterSteps = 1000;  // jitter is 0.000 ... 1.000 s in 1 ms steps
constexpr double kLongestCooldownSlice = 1.0;

// URL-loading codes worth retrying, as a bit mask over (code + 1012): -1012 user cancelled
// authentication, -1009 not connected, -1005 connection lost, -1004 cannot connect, -1003 cannot
// find host, -1001 timed out.
constexpr uint32_t kRetryableURLErrorMask = 2953;

struct RateLimitState {
  std::mutex cooldownMutex;
  double cooldownDeadline = 0;                // guarded by cooldownMutex
  detail::CooldownObserver cooldownObserver;  // guarded by cooldownMutex
  CountingSemaphore downloadSlots{kDownloadSlots};
  SerialQueue retryQueue{std::string(WDC_RETRY_QUEUE_LABEL_PREFIX) + ".DropboxRetryQueue"};
};

RateLimitState& state() {
  static RateLimitState* s = new RateLimitState();  // thread-safe first use; never destroyed
  return *s;
}

double uptimeSeconds() { return toSeconds(Env::current().uptime()); }

}  // namespace

bool WebDAVConnect::isRetryableWebDAVErrorCode(int64_t code, std::string_view errorDescription,
                                               int64_t rateLimitAttemptsUsed) {
  if (code > 428) {
    if (code == 500 || code == 502 || code == 503) return true;
    if (code == 1001) return true;
    // A 429 is decided by the attempt budget alone: past it, even a timeout text does not count.
    if (code == 429) return rateLimitAttemptsUsed < kMaxRateLimitAttempts;
  } else if (code >= -1012 && code <= -1001) {
    if ((kRetryableURLErrorMask >> (code + 1012)) & 1u) return true;
  }
  return errorDescription.find("The request timed out") != std::string_view::npos;
}

double WebDAVConnect::rateLimitRetryDelayForAttempt(int64_t attempt, double serverBackoffSeconds) {
  size_t index = attempt <= 0 ? 0 : static_cast<size_t>(std::min<int64_t>(attempt, 6) - 1);
  double jitter = Env::current().uniformRandom(kJitterSteps) / static_cast<double>(kJitterSteps);
  double scheduled = kRateLimitDelaySeconds[index] + jitter;
  // Take the longer of our schedule and the server's advice: the server knows its own load.
  return std::max(scheduled, std::max(serverBackoffSeconds, 0.0));
}

double WebDAVConnect::serverBackoffSecondsFromError(const std::optional<Error>& error) {
  if (!error) return 0;
  const PlistValue* hint = error->userInfo().find(kRetryAfterSecondsKey);
  if (hint == nullptr || !hint->isNumber()) return 0;
  double seconds = hint->asDouble();
  return seconds > 0 ? seconds : 0;
}

void WebDAVConnect::noteDropboxRateLimitWithSuggestedDelay(double seconds) {
  double now = uptimeSeconds();  // read before the lock, as the deadline only moves later anyway
  auto& s = state();
  std::lock_guard<std::mutex> lock(s.cooldownMutex);
  const double deadline = now + std::max(seconds, 0.0);
  if (deadline <= s.cooldownDeadline) return;
  s.cooldownDeadline = deadline;
  if (s.cooldownObserver) s.cooldownObserver(fromSeconds(now), fromSeconds(deadline));
}

double WebDAVConnect::dropboxCooldownRemainingSeconds() {
  auto& s = state();
  std::lock_guard<std::mutex> lock(s.cooldownMutex);
  double remaining = s.cooldownDeadline - uptimeSeconds();
  if (remaining <= 0) {
    s.cooldownDeadline = 0;
    return 0;
  }
  return remaining;
}

void WebDAVConnect::waitForDropboxCooldown() {
  for (double remaining = dropboxCooldownRemainingSeconds(); remaining > 0;
       remaining = dropboxCooldownRemainingSeconds()) {
    Env::current().sleepFor(fromSeconds(std::min(kLongestCooldownSlice, remaining)));
  }
}

bool WebDAVConnect::acquireDropboxDownloadSlot() {
  if (state().downloadSlots.waitFor(fromSeconds(kDownloadSlotWaitSeconds))) return true;
  log::warning(fmt::format("[DROPBOX] Download slot wait timed out after {:.0f}s; proceeding "
                           "without the cap",
                           kDownloadSlotWaitSeconds),
               log::Delivery::kAsync);
  return false;
}

void WebDAVConnect::releaseDropboxDownloadSlot() { state().downloadSlots.signal(); }

OperationQueue& WebDAVConnect::dropboxRetryQueue() { return state().retryQueue; }

void WebDAVConnect::resetDropboxRateLimitStateForTesting() {
  auto& s = state();
  std::lock_guard<std::mutex> lock(s.cooldownMutex);
  s.cooldownDeadline = 0;
}

namespace detail {

void setCooldownObserver(CooldownObserver observer) {
  auto& s = state();
  std::lock_guard<std::mutex> lock(s.cooldownMutex);
  s.cooldownObserver = std::move(observer);
}

}  // namespace detail
}  // namespace wdc
