// The public download operations: the two blocking ones in the synchronous retry loop, and the
// asynchronous record download that re-issues itself on the shared retry queue.
#include <fmt/format.h>

#include <memory>

#include "core/retry_loop.h"
#include "platform/env.h"
#include "platform/logger.h"
#include "webdavconnect/webdav_connect.h"

namespace wdc {
namespace {
constexpr int64_t kRateLimitCode = 429;
// How an absent name or folder reads in a log line.
constexpr const char* kAbsentText = "(null)";
}  // namespace

std::shared_ptr<WebDAVFileContents> WebDAVConnect::getContentsForFile(
    const std::shared_ptr<WebDAVFileMetaData>& file, const std::optional<std::string>& inFolder,
    ErrorOut error) {
  static const RetryMessages messages{
      .failure =
          [](const Error& e) { return fmt::format("[DROPBOX] GET ERROR: {}", describeError(e)); },
      .retry =
          [](const Error& e, int64_t retryNumber) {
            return fmt::format("[DROPBOX] ERROR, WILL RETRY [{}] getContents: {}", retryNumber,
                               describeError(e));
          },
      .rateLimitName = "getContents",
  };
  std::shared_ptr<WebDAVFileContents> contents;
  runSynchronousRetryLoop(*this, messages, error, [&](ErrorOut attemptError) {
    contents.reset();  // let a failed attempt's payload go before the next one
    contents = getContentsForDropboxFile(file, inFolder, attemptError);
    return contents != nullptr;
  });
  return contents;
}

std::optional<PlistValue> WebDAVConnect::downloadArbitraryFile(
    const std::optional<std::string>& name, const std::optional<std::string>& fromFolder,
    ErrorOut error) {
  const RetryMessages messages{
      .failure =
          [&](const Error& e) {
            return fmt::format("[DROPBOX] ERROR, could not download: {}, from Folder: {}, Error: {}",
                               name.value_or(kAbsentText), fromFolder.value_or(kAbsentText),
                               describeError(e));
          },
      .retry =
          [](const Error& e, int64_t) {
            return fmt::format("[DROPBOX] ERROR, WILL RETRY downloadFile: {}", describeError(e));
          },
      .rateLimitName = "downloadArbitraryFile",
  };
  std::optional<PlistValue> data;
  runSynchronousRetryLoop(*this, messages, error, [&](ErrorOut attemptError) {
    data.reset();
    data = downloadArbitraryFileFromDropbox(name, fromFolder, attemptError);
    return data.has_value();
  });
  return data;
}

void WebDAVConnect::getContentsForFile(const std::shared_ptr<WebDAVFileMetaData>& file,
                                       const std::optional<std::string>& inFolder,
                                       int64_t withRetryLimit, ContentsCompletion andCompletion) {
  getContentsForFile(file, inFolder, withRetryLimit, 0, std::move(andCompletion));
}

void WebDAVConnect::getContentsForFile(const std::shared_ptr<WebDAVFileMetaData>& file,
                                       const std::optional<std::string>& inFolder,
                                       int64_t withRetryLimit, int64_t rateLimitAttemptsUsed,
                                       ContentsCompletion andCompletion) {
  // A pending retry must not keep the connection alive.
  std::weak_ptr<WebDAVConnect> weakSelf = weak_from_this();
  getContentsForDropboxFile(
      file, inFolder,
      [weakSelf, file, inFolder, withRetryLimit, rateLimitAttemptsUsed,
       completion = std::move(andCompletion)](std::shared_ptr<WebDAVFileContents> contents,
                                              std::optional<Error> error) {
        if (!error || contents) {
          completion(std::move(contents), std::move(error));
          return;
        }
        const std::string description = describeError(*error);
        if (withRetryLimit < 2 ||
            !isRetryableWebDAVErrorCode(error->code(), description, rateLimitAttemptsUsed)) {
          log::error(fmt::format("[DROPBOX] Cannot retry error, failing getContentsForFile: {}",
                                 description));
          completion(nullptr, std::move(error));
          return;
        }
        int64_t attempts = rateLimitAttemptsUsed;
        double delay = 0;
        if (error->code() == kRateLimitCode) {
          ++attempts;
          delay = rateLimitRetryDelayForAttempt(attempts, serverBackoffSecondsFromError(error));
          noteDropboxRateLimitWithSuggestedDelay(delay);
          log::warning(fmt::format(
              "[DROPBOX] Rate limited, will retry getContentsForFile in {:.1f}s [attempt {}]",
              delay, attempts));
        } else {
          log::error(fmt::format("[DROPBOX] ERROR, WILL RETRY [{}] getContentsForFile: {}",
                                 withRetryLimit - 1, description));
        }
        dropboxRetryQueue().addOperationAfter(
            fromSeconds(delay), [weakSelf, file, inFolder, withRetryLimit, attempts, completion,
                                 error = std::move(error)]() mutable {
              auto self = weakSelf.lock();
              if (!self) {
                log::warning(
                    "getContentsForFile retry aborted because WebDAVConnect was deallocated "
                    "mid-flight");
                completion(nullptr, std::move(error));
                return;
              }
              self->getContentsForFile(file, inFolder, withRetryLimit - 1, attempts,
                                       std::move(completion));
            });
      });
}

}  // namespace wdc
