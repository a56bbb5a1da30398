// The synchronous retry loop every blocking public operation of WebDAVConnect runs: wait out the
// shared cooldown, require the Dropbox connection type, call the backend, and on a retryable
// failure sleep (0.5 s, or the rate-limit delay that also opens the shared cooldown) and try
// again: at most 10 attempts, at most 6 retries after rate limiting.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "webdavconnect/webdav_connect.h"

namespace wdc {

namespace detail {
// The call-state steps of a public operation, kept out of the public header.
struct ConnectionInternals {
  static void clearAsyncCallState(WebDAVConnect& connection) { connection.clearAsyncCallState(); }
  static void waitUntilDropboxIsSelected(WebDAVConnect& connection) {
    connection.waitUntilDropboxIsSelected();
  }
};
}  // namespace detail

// What one public operation logs while it retries.
struct RetryMessages {
  // Error level, synchronously, after every failed attempt that stored an error.
  std::function<std::string(const Error& error)> failure;
  // Debug level, asynchronously, before a retry that was not caused by rate limiting.
  // `retryNumber` is the number of the retry about to run (1 for the first).
  std::function<std::string(const Error& error, int64_t retryNumber)> retry;
  // The operation's name in "[DROPBOX] Rate limited, will retry <name> in %.1fs [attempt %ld]".
  std::string rateLimitName;
  // An error with code 0 ends the operation at once: no log, no retry.
  bool endsAtOnceOnCodeZero = false;
};

// The text of an error as log lines and the retry classification read it.
[[nodiscard]] std::string describeError(const Error& error);

// Runs `attempt` (the backend call; it stores its result itself and returns whether the
// operation's success test passed) until it succeeds or the policy gives up. Returns the last
// attempt's verdict. On failure the last error stays in `*error`.
bool runSynchronousRetryLoop(WebDAVConnect& connection, const RetryMessages& messages,
                             ErrorOut error, const std::function<bool(ErrorOut)>& attempt);

}  // namespace wdc
