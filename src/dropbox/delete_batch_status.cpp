// The answers of a batch delete read into its job id and its one error. Request errors keep the
// server's domain and status; route and entry failures say what went wrong in their description.
#include "dropbox/delete_batch_status.h"

#include <fmt/format.h>

#include "platform/logger.h"

namespace wdc::dropbox {
namespace {

constexpr int64_t kTooManyFilesCode = 406;
constexpr int64_t kBatchFailureCode = 400;

// The request-error form of the batch: domain and user info like the error mapping, but the code
// is always the HTTP status (0 without one), transport failures included.
Error batchRequestError(const dbx::DBRequestError& requestError) {
  std::string text;
  if (requestError.errorContent) {
    text = *requestError.errorContent;
  } else if (requestError.nsError) {
    text = requestError.nsError->localizedDescription();
  } else {
    text = requestError.description();
  }
  if (text.empty()) text = "Unknown error";
  const std::string domain =
      requestError.nsError ? requestError.nsError->domain() : std::string(kDropboxErrorDomain);
  return Error(domain, requestError.statusCode.value_or(0),
               PlistDictionary{{std::string(kErrorContentKey), PlistValue(text)}});
}

// Route and entry failures say what went wrong in their localized description.
template <typename Failure>
Error describedFailure(int64_t code, const Failure& failure) {
  std::string text = failure.description();
  if (text.empty()) text = "Unknown Error";
  return Error::withDescription(std::string(kDropboxErrorDomain), code, std::move(text));
}

Error unknownFailure() {
  return Error::withDescription(std::string(kDropboxErrorDomain), kBatchFailureCode,
                                "Unknown Error");
}

}  // namespace

void readDeleteBatchLaunch(const dbx::DBFILESDeleteBatchLaunch* launch,
                           const dbx::DBVoid* routeError, const dbx::DBRequestError* requestError,
                           std::string& jobId, std::optional<Error>& failure) {
  if (launch != nullptr && launch->isAsyncJobId()) {
    jobId = launch->asyncJobId;
    log::debug(fmt::format("[DROPBOX] Batch deleting, job id: {}", jobId));
  } else if (requestError != nullptr) {
    failure = batchRequestError(*requestError);
    log::error(fmt::format("[DROPBOX] Got batch delete request error: {}", failure->description()));
  } else if (routeError != nullptr) {
    failure = unknownFailure();
    log::error(fmt::format("[DROPBOX] Got batch delete route error: {}",
                           failure->localizedDescription()));
  }
}

bool readDeleteBatchCheck(const dbx::DBFILESDeleteBatchJobStatus* status,
                          const dbx::DBASYNCPollError* pollError,
                          const dbx::DBRequestError* requestError, std::optional<Error>& failure) {
  if (status != nullptr) {
    if (status->isComplete()) {
      if (status->complete) failure = walkDeleteBatchEntries(*status->complete);
      return true;
    }
    if (status->isFailed()) {
      if (status->failed) failure = describedFailure(kBatchFailureCode, *status->failed);
      return true;
    }
    return false;  // in progress: poll again
  }
  if (requestError != nullptr) {
    failure = batchRequestError(*requestError);
  } else if (pollError != nullptr) {
    failure = describedFailure(kBatchFailureCode, *pollError);
  }
  return true;
}

// Walks a completed job's entries. Gone paths (not found, not a file, not a folder) are what a
// delete wants anyway; throttling and unexpected lookups end the walk; any other failure is
// remembered and the walk goes on, so a later one may replace it.
std::optional<Error> walkDeleteBatchEntries(const dbx::DBFILESDeleteBatchResult& result) {
  std::optional<Error> failure;
  for (const dbx::DBFILESDeleteBatchResultEntry& entry : result.entries) {
    if (entry.isSuccess() || !entry.isFailure()) continue;
    if (!entry.failure) {
      failure = unknownFailure();
      continue;
    }
    const dbx::DBFILESDeleteError& error = *entry.failure;
    if (error.isTooManyWriteOperations() || error.isTooManyFiles()) {
      failure =
          describedFailure(error.isTooManyFiles() ? kTooManyFilesCode : kBatchFailureCode, error);
      break;
    }
    if (error.isPathLookup()) {
      const bool gone =
          error.pathLookup && (error.pathLookup->isNotFound() || error.pathLookup->isNotFile() ||
                               error.pathLookup->isNotFolder());
      if (gone) continue;
      failure = describedFailure(kBatchFailureCode, error);
      break;
    }
    failure = describedFailure(kBatchFailureCode, error);
  }
  return failure;
}


}  // namespace wdc::dropbox
