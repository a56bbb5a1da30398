#include "core/retry_loop.h"

#include <fmt/format.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "platform/env.h"
#include "platform/logger.h"

namespace wdc {
namespace {
constexpr int64_t kMaxRetries = 9;  // ten attempts in all
constexpr double kPlainRetryDelaySeconds = 0.5;
constexpr int64_t kRateLimitCode = 429;
// How often a caller blocked on another connection type looks at the type again.
constexpr std::chrono::milliseconds kConnectionTypePollInterval{20};

uint64_t currentConnectionType(WebDAVConnect& connection) {
  // Read through atomic_ref since the host may set the property from another thread while we
  // poll.
  return std::atomic_ref<uint64_t>(connection.connectionType).load(std::memory_order_relaxed);
}

// A short pause through the Env: nobody signals a change of the type, so this is a timed wait
// that costs no CPU (and no real time beyond a brief grace under a virtual Env).
void pauseBeforeLookingAgain(WebDAVConnect& connection) {
  std::mutex mutex;
  std::condition_variable changed;
  std::unique_lock lock(mutex);
  Env::current().waitFor(changed, lock, kConnectionTypePollInterval, [&connection] {
    return currentConnectionType(connection) == kConnectionTypeDropbox;
  });
}
}  // namespace

std::string describeError(const Error& error) { return error.description(); }

void WebDAVConnect::clearAsyncCallState() {
  lastAsyncError.reset();
  asyncCallWasSuccessful = false;
}

void WebDAVConnect::waitUntilDropboxIsSelected() {
  waitForDropboxCooldown();
  // Only the Dropbox backend serves the public operations: any other type keeps the caller
  // polling until the host switches it.
  while (currentConnectionType(*this) != kConnectionTypeDropbox) {
    pauseBeforeLookingAgain(*this);
    waitForDropboxCooldown();
  }
}

bool runSynchronousRetryLoop(WebDAVConnect& connection, const RetryMessages& messages,
                             ErrorOut error, const std::function<bool(ErrorOut)>& attempt) {
  int64_t retries = 0;
  int64_t rateLimitAttempts = 0;
  detail::ConnectionInternals::clearAsyncCallState(connection);
  for (;;) {
    detail::ConnectionInternals::waitUntilDropboxIsSelected(connection);
    if (attempt(error)) return true;
    if (error == nullptr || !error->has_value()) return false;
    const Error& failed = **error;
    if (messages.endsAtOnceOnCodeZero && failed.code() == 0) return false;
    std::string description = describeError(failed);
    log::error(messages.failure(failed));
    if (!WebDAVConnect::isRetryableWebDAVErrorCode(failed.code(), description, rateLimitAttempts) ||
        retries >= kMaxRetries) {
      return false;
    }
    double delay = kPlainRetryDelaySeconds;
    if (failed.code() == kRateLimitCode) {
      ++rateLimitAttempts;
      delay = WebDAVConnect::rateLimitRetryDelayForAttempt(
          rateLimitAttempts, WebDAVConnect::serverBackoffSecondsFromError(failed));
      // Pause every other Dropbox request in the process too, not just this retry.
      WebDAVConnect::noteDropboxRateLimitWithSuggestedDelay(delay);
      log::warning(fmt::format("[DROPBOX] Rate limited, will retry {} in {:.1f}s [attempt {}]",
                               messages.rateLimitName, delay, rateLimitAttempts),
                   log::Delivery::kAsync);
    } else {
      log::debug(messages.retry(failed, retries + 1), log::Delivery::kAsync);
    }
    ++retries;
    detail::ConnectionInternals::clearAsyncCallState(connection);
    error->reset();
    Env::current().sleepFor(fromSeconds(delay));
  }
}

}  // namespace wdc
