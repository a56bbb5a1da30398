// The public sync-lock, delete and folder operations of WebDAVConnect: each runs its Dropbox
// backend operation inside the synchronous retry loop with the operation's own log texts and
// success test.
#include <fmt/format.h>

#include "core/retry_loop.h"
#include "webdavconnect/webdav_connect.h"

namespace wdc {
namespace {

RetryMessages messagesFor(std::string_view failurePrefix, std::string_view retryName,
                          std::string rateLimitName, bool endsAtOnceOnCodeZero = false) {
  return RetryMessages{
      .failure =
          [failurePrefix = std::string(failurePrefix)](const Error& e) {
            return fmt::format("{}{}", failurePrefix, describeError(e));
          },
      .retry =
          [retryName = std::string(retryName)](const Error& e, int64_t) {
            return fmt::format("[DROPBOX] ERROR, WILL RETRY {}: {}", retryName, describeError(e));
          },
      .rateLimitName = std::move(rateLimitName),
      .endsAtOnceOnCodeZero = endsAtOnceOnCodeZero,
  };
}

}  // namespace

std::shared_ptr<WebDAVFileMetaData> WebDAVConnect::getCurrentLockFile(ErrorOut error) {
  static const RetryMessages messages =
      messagesFor("[DROPBOX] ERROR with sync lock: ", "getLock", "getLock",
                  /*endsAtOnceOnCodeZero=*/true);
  std::shared_ptr<WebDAVFileMetaData> lock;
  runSynchronousRetryLoop(*this, messages, error, [&](ErrorOut attemptError) {
    lock = getCurrentDropboxLockFile(attemptError);
    return lock != nullptr;
  });
  return lock;
}

std::shared_ptr<WebDAVFileMetaData> WebDAVConnect::lockDirectory(const std::string& ownerIdentifier,
                                                                 ErrorOut error) {
  static const RetryMessages messages =
      messagesFor("[DROPBOX] ERROR with sync lock: ", "lockDir", "lockDir");
  std::shared_ptr<WebDAVFileMetaData> lock;
  runSynchronousRetryLoop(*this, messages, error, [&](ErrorOut attemptError) {
    lock = lockDirectoryDropbox(ownerIdentifier, attemptError);
    return lock != nullptr;
  });
  return lock;
}

bool WebDAVConnect::unlockDirectory(const std::string& lockName, ErrorOut error) {
  static const RetryMessages messages =
      messagesFor("[DROPBOX] ERROR with sync unlock: ", "unlock", "unlock");
  return runSynchronousRetryLoop(*this, messages, error, [&](ErrorOut attemptError) {
    return unlockDirectoryDropbox(lockName, attemptError);
  });
}

bool WebDAVConnect::deleteArbitraryFiles(const std::vector<std::string>& paths, ErrorOut error) {
  static const RetryMessages messages =
      messagesFor("[DROPBOX] Batch Delete ERROR: ", "deleteFile", "deleteFiles");
  return runSynchronousRetryLoop(*this, messages, error, [&](ErrorOut attemptError) {
    // The batch answers with its error instead of recording it on the connection.
    const std::optional<Error> failure = deleteFilesAtPathsFromDropbox(paths);
    if (failure) setError(attemptError, *failure);
    return !failure.has_value();
  });
}

bool WebDAVConnect::deleteArbitraryFile(const std::optional<std::string>& name,
                                        const std::optional<std::string>& inFolder,
                                        ErrorOut error) {
  static const RetryMessages messages =
      messagesFor("[DROPBOX] Delete ERROR: ", "deleteFile", "deleteFile");
  return runSynchronousRetryLoop(*this, messages, error, [&](ErrorOut attemptError) {
    return deleteArbitraryFileFromDropbox(name, inFolder, attemptError);
  });
}

bool WebDAVConnect::deleteFilesThatMatch(const std::string& pattern,
                                         const std::optional<std::string>& inFolder,
                                         ErrorOut error) {
  static const RetryMessages messages =
      messagesFor("[DROPBOX] delete files ERROR: ", "deleteFilesMatching", "deleteFilesMatching");
  return runSynchronousRetryLoop(*this, messages, error, [&](ErrorOut attemptError) {
    // The backend takes the folder first and the pattern second.
    return deleteFilesThatMatchInDropbox(inFolder, pattern, attemptError);
  });
}

bool WebDAVConnect::deleteFolder(const std::optional<std::string>& path, ErrorOut error) {
  static const RetryMessages messages =
      messagesFor("[DROPBOX] ERROR: ", "deleteFolder", "deleteFolder");
  return runSynchronousRetryLoop(*this, messages, error, [&](ErrorOut attemptError) {
    return deleteDropboxFolder(path, attemptError);
  });
}

}  // namespace wdc
