// The public operations of WebDAVConnect: each runs its Dropbox backend operation inside the
// synchronous retry loop with the operation's own log texts and success test.
#include <fmt/format.h>

#include "core/retry_loop.h"
#include "webdavconnect/webdav_connect.h"

namespace wdc {

std::optional<std::string> WebDAVConnect::getAccountUsername(ErrorOut error) {
  static const RetryMessages messages{
      .failure =
          [](const Error& e) {
            return fmt::format("[DROPBOX] ERROR getting username: {}", describeError(e));
          },
      .retry =
          [](const Error& e, int64_t) {
            return fmt::format("[DROPBOX] ERROR, WILL RETRY getAccount: {}", describeError(e));
          },
      .rateLimitName = "getAccount",
  };
  std::optional<std::string> username;
  runSynchronousRetryLoop(*this, messages, error, [&](ErrorOut attemptError) {
    username = getDropboxAccountUsername(attemptError);
    return username.has_value();
  });
  return username;
}

}  // namespace wdc
