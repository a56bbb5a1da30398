// The public delta listing: the Dropbox backend's listing inside the synchronous retry loop.
#include <fmt/format.h>

#include "core/retry_loop.h"
#include "webdavconnect/webdav_connect.h"

namespace wdc {

std::optional<FileList> WebDAVConnect::getDeltaFileList(
    ErrorOut error, const std::optional<std::string>& fromPath,
    const std::optional<std::string>& usingCursor, const std::optional<std::string>& withExtension,
    bool canUseCachedResult) {
  static const RetryMessages messages{
      .failure =
          [](const Error& e) { return fmt::format("[DROPBOX] GET ERROR: {}", describeError(e)); },
      .retry =
          [](const Error& e, int64_t) {
            return fmt::format("[DROPBOX] ERROR, WILL RETRY getDelta: {}", describeError(e));
          },
      .rateLimitName = "getDelta",
  };
  std::optional<FileList> records;
  runSynchronousRetryLoop(*this, messages, error, [&](ErrorOut attemptError) {
    // Each attempt starts over from the caller's cursor and rebuilds the cache, so a page that
    // failed half way through leaves nothing twice.
    records = getDeltaFileListFromDropbox(attemptError, fromPath, usingCursor, withExtension,
                                          canUseCachedResult);
    return records.has_value();
  });
  return records;
}

}  // namespace wdc
