// The public write operations: the two blocking uploads inside the synchronous retry loop, and the
// retrying batch upload. A batch pass hands everything it needs for the next pass to the next
// pass (the items left, the results so far, the retry budget and the rate-limit attempts), so no
// connection state records a pending retry, and the pending retry holds the connection weakly.
#include <fmt/format.h>

#include <algorithm>

#include "core/retry_loop.h"
#include "platform/env.h"
#include "platform/logger.h"
#include "webdavconnect/webdav_connect.h"

namespace wdc {
namespace {

using Objects = std::vector<std::shared_ptr<WebDAVFileContents>>;
using Results = std::vector<std::shared_ptr<WebDAVBatchUploadResult>>;

constexpr int64_t kRateLimitCode = 429;
constexpr int64_t kSynthesisedErrorCode = 500;

// The arguments of one pass of the retrying batch.
struct BatchPass {
  Objects objects;
  Results previouslyUploaded;
  int64_t retryLimit = 0;
  std::optional<std::string> folder;
  std::shared_ptr<OperationQueue> queue;
  int64_t rateLimitAttemptsUsed = 0;
  WebDAVConnect::BatchUploadCompletion completion;
};

void complete(const BatchPass& pass, const Results& results, const std::optional<Error>& error) {
  if (pass.completion) pass.completion(results, error);
}

std::string describe(const std::optional<Error>& error) {
  return error ? describeError(*error) : "(null)";
}

std::string filePathOf(const WebDAVBatchUploadResult& result) {
  if (result.fileContents && result.fileContents->FileMetaData &&
      result.fileContents->FileMetaData->FilePath) {
    return *result.fileContents->FileMetaData->FilePath;
  }
  return "(null)";
}

Error connectionGoneError() {
  return Error::withDescription(std::string(kKavoWebDAVErrorDomain), kSynthesisedErrorCode,
                                "Dropbox connection reset before upload could finish.");
}

void abortBecauseConnectionIsGone(const BatchPass& pass, const Results& succeeded) {
  log::warning(
      "uploadFileWithObjects retry aborted because WebDAVConnect was deallocated mid-flight");
  complete(pass, succeeded, connectionGoneError());
}

void startPass(const std::weak_ptr<WebDAVConnect>& connection, BatchPass pass);

// Decides, after one pass answered, what went up, what is left and whether to go again.
void passAnswered(const std::weak_ptr<WebDAVConnect>& connection, const BatchPass& pass,
                  const Results& results, const std::optional<Error>& error) {
  Results succeeded = pass.previouslyUploaded;
  Objects remaining = pass.objects;
  bool needRetry = error.has_value();
  bool canRetry = pass.retryLimit > 1;
  std::optional<Error> finalError = error;
  bool rateLimited = error && error->code() == kRateLimitCode;
  double backoff = rateLimited ? WebDAVConnect::serverBackoffSecondsFromError(error) : 0;
  bool keepGoing = false;

  if (error) {
    log::warning(fmt::format(
        "[DROPBOX] uploadFileWithObjects BATCH UPLOAD Failed, WILL RETRY? (left: {}, successded "
        "uploads: {}) => {}",
        pass.retryLimit - 1, succeeded.size(), describe(error)));
    canRetry = pass.retryLimit > 1 &&
               WebDAVConnect::isRetryableWebDAVErrorCode(error->code(), describe(error),
                                                         pass.rateLimitAttemptsUsed);
    keepGoing = canRetry;
  }

  for (const auto& result : results) {
    if (!result) continue;
    if (!result->uploadError) {
      const WebDAVFileContents* item = result->fileContents.get();
      std::erase_if(remaining, [item](const std::shared_ptr<WebDAVFileContents>& candidate) {
        return candidate.get() == item || (candidate && candidate->isEqual(item));
      });
      succeeded.push_back(result);
      continue;
    }
    const Error& itemError = *result->uploadError;
    const std::string description = describeError(itemError);
    if (pass.retryLimit >= 2 &&
        WebDAVConnect::isRetryableWebDAVErrorCode(itemError.code(), description,
                                                  pass.rateLimitAttemptsUsed)) {
      if (itemError.code() == kRateLimitCode) {
        rateLimited = true;
        backoff = std::max(backoff, WebDAVConnect::serverBackoffSecondsFromError(itemError));
      }
      log::error(fmt::format("[DROPBOX] uploadFileWithObjects BATCH UPLOAD ERROR, WILL RETRY: {} "
                             "=> {}",
                             filePathOf(*result), description));
      keepGoing = true;
      needRetry = true;
    } else if (keepGoing && itemError.code() != kRateLimitCode) {
      log::error(fmt::format("[DROPBOX] uploadFileWithObjects BATCH UPLOAD ERROR, will still "
                             "retry: {} => {}",
                             filePathOf(*result), description));
      keepGoing = true;
      needRetry = true;
    } else {
      log::error(fmt::format("[DROPBOX] uploadFileWithObjects BATCH UPLOAD ERROR, Cannot retry: "
                             "{} => {}",
                             filePathOf(*result), description));
      finalError = itemError;
      canRetry = false;
      needRetry = true;
      break;
    }
  }

  if (!remaining.empty()) {
    log::warning(fmt::format("uploadFileWithObjects... need to retry: {}", remaining.size()));
  }

  if (!needRetry || !canRetry) {
    if (!remaining.empty()) {
      log::warning("uploadFileWithObjects, we still have data to upload that we could not after "
                   "several retries, marking as general failure to retry the full batch");
      finalError = Error::withDescription(std::string(kKavoErrorDomain), kSynthesisedErrorCode,
                                          "Failed to upload");
    }
    if (finalError) {
      log::error(fmt::format(
          "uploadFileWithObjects done with ERROR ({}) ({}/{}) [needToRetry: {}, can: {}]",
          describe(finalError), succeeded.size(), pass.objects.size(), needRetry ? 1 : 0,
          canRetry ? 1 : 0));
    }
    complete(pass, succeeded, finalError);
    return;
  }

  if (connection.expired()) {
    abortBecauseConnectionIsGone(pass, succeeded);
    return;
  }

  log::debug(fmt::format("uploadFileWithObjects retrying [{} out of {}], Previously succeeded [{}]",
                         remaining.size(), pass.objects.size(), succeeded.size()));
  int64_t attempts = pass.rateLimitAttemptsUsed;
  double delay = 0;
  if (rateLimited) {
    ++attempts;
    delay = WebDAVConnect::rateLimitRetryDelayForAttempt(attempts, backoff);
    // Every other Dropbox operation of the process pauses for the same time.
    WebDAVConnect::noteDropboxRateLimitWithSuggestedDelay(delay);
    log::warning(fmt::format("[DROPBOX] Rate limited, will retry batch upload in {:.1f}s "
                             "[attempt {}]",
                             delay, attempts));
  }
  BatchPass next{.objects = std::move(remaining),
                 .previouslyUploaded = std::move(succeeded),
                 .retryLimit = pass.retryLimit - 1,
                 .folder = pass.folder,
                 .queue = pass.queue,
                 .rateLimitAttemptsUsed = attempts,
                 .completion = pass.completion};
  WebDAVConnect::dropboxRetryQueue().addOperationAfter(
      fromSeconds(delay), [connection, next = std::move(next)]() mutable {
        startPass(connection, std::move(next));
      });
}

// Runs one pass on the connection if it is still there; otherwise ends the batch, so that a
// completion is never lost to a connection released while its retry waited.
void startPass(const std::weak_ptr<WebDAVConnect>& connection, BatchPass pass) {
  auto strong = connection.lock();
  if (!strong) {
    abortBecauseConnectionIsGone(pass, pass.previouslyUploaded);
    return;
  }
  strong->uploadFileWithObjects(pass.objects, pass.previouslyUploaded, pass.retryLimit,
                                pass.folder, pass.queue, pass.rateLimitAttemptsUsed,
                                pass.completion);
}

}  // namespace

std::shared_ptr<WebDAVFileMetaData> WebDAVConnect::uploadFileWithObject(
    const std::shared_ptr<WebDAVFileContents>& object, const std::optional<std::string>& toFolder,
    ErrorOut error) {
  static const RetryMessages messages{
      .failure =
          [](const Error& e) {
            return fmt::format("[WEBDAV Upload SYNC] ERROR: {}", describeError(e));
          },
      .retry =
          [](const Error& e, int64_t) {
            return fmt::format("[DROPBOX] ERROR, WILL RETRY uploadFile: {}", describeError(e));
          },
      .rateLimitName = "uploadFile",
  };
  std::shared_ptr<WebDAVFileMetaData> stored;
  runSynchronousRetryLoop(*this, messages, error, [&](ErrorOut attemptError) {
    stored = uploadFileWithObjectToDropbox(object, toFolder, attemptError);
    return stored != nullptr;
  });
  return stored;
}

bool WebDAVConnect::uploadArbitraryFile(const std::string& name,
                                        const std::optional<PlistValue>& withData,
                                        const std::optional<std::string>& toFolder,
                                        ErrorOut error) {
  static const RetryMessages messages{
      .failure =
          [](const Error& e) {
            return fmt::format("[DROPBOX] Upload ERROR: {}", describeError(e));
          },
      .retry =
          [](const Error& e, int64_t) {
            return fmt::format("[DROPBOX] ERROR, WILL RETRY uploadFile: {}", describeError(e));
          },
      .rateLimitName = "uploadArbitraryFile",
  };
  return runSynchronousRetryLoop(*this, messages, error, [&](ErrorOut attemptError) {
    return uploadArbitraryFileToDropbox(name, withData, toFolder, attemptError);
  });
}

void WebDAVConnect::uploadFileWithObjects(const Objects& objects, int64_t withRetryLimit,
                                          const std::optional<std::string>& toFolder,
                                          std::shared_ptr<OperationQueue> usingQueue,
                                          BatchUploadCompletion andCompletion) {
  waitForDropboxCooldown();
  uploadFileWithObjects(objects, std::nullopt, withRetryLimit, toFolder, std::move(usingQueue), 0,
                        std::move(andCompletion));
}

void WebDAVConnect::uploadFileWithObjects(
    const Objects& objects, const std::optional<Results>& previouslyUploadedContents,
    int64_t withRetryLimit, const std::optional<std::string>& toFolder,
    std::shared_ptr<OperationQueue> usingQueue, int64_t rateLimitAttemptsUsed,
    BatchUploadCompletion andCompletion) {
  auto pass = std::make_shared<const BatchPass>(
      BatchPass{.objects = objects,
                .previouslyUploaded = previouslyUploadedContents.value_or(Results{}),
                .retryLimit = withRetryLimit,
                .folder = toFolder,
                .queue = usingQueue,
                .rateLimitAttemptsUsed = rateLimitAttemptsUsed,
                .completion = std::move(andCompletion)});
  std::weak_ptr<WebDAVConnect> connection = weak_from_this();
  uploadFileWithObjects(objects, toFolder, std::move(usingQueue),
                        [connection, pass](const Results& results, const std::optional<Error>& error) {
                          passAnswered(connection, *pass, results, error);
                        });
}

}  // namespace wdc
