// Batch deletes of the Dropbox backend: files/delete_batch launches a job, files/delete_batch/check
// is polled back to back until the job completes or fails, and the per-entry results are walked
// into one error. The batch reports through its return value only; the connection's call state is
// not touched.
#include <fmt/format.h>

#include "dbx/clients_manager.h"
#include "dropbox/delete_answer.h"
#include "dropbox/folders.h"
#include "platform/logger.h"
#include "webdavconnect/webdav_connect.h"

namespace wdc {
namespace {

constexpr int64_t kTooManyFilesCode = 406;
constexpr size_t kMaxBatchEntries = 1000;
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

// Walks a completed job's entries. Gone paths (not found, not a file, not a folder) are what a
// delete wants anyway; throttling and unexpected lookups end the walk; any other failure is
// remembered and the walk goes on, so a later one may replace it.
std::optional<Error> walkEntries(const dbx::DBFILESDeleteBatchResult& result) {
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

}  // namespace

std::optional<Error> WebDAVConnect::deleteFilesAtPathFromDropbox(
    const FileList& files, const std::optional<std::string>& inFolder) {
  std::vector<std::string> paths;
  paths.reserve(files.size());
  for (const auto& file : files) {
    // A record that names no file would name the folder itself: never delete what was not named.
    if (!file || !file->FilePath || file->FilePath->empty()) continue;
    paths.push_back(dropbox::appendingPathComponent(inFolder.value_or(""), *file->FilePath));
  }
  return deleteFilesAtPathsFromDropbox(paths);
}

std::optional<Error> WebDAVConnect::deleteFilesAtPathsFromDropbox(
    const std::vector<std::string>& paths) {
  if (paths.size() > kMaxBatchEntries) {
    // The server would refuse the whole list; say why instead of sending it.
    return Error::withDescription(std::string(kDropboxErrorDomain), kBatchFailureCode,
                                  fmt::format("Cannot delete {} files in one batch (at most {})",
                                              paths.size(), kMaxBatchEntries));
  }
  std::vector<dbx::DBFILESDeleteArg> entries;
  entries.reserve(paths.size());
  for (const std::string& path : paths) {
    entries.push_back(dbx::DBFILESDeleteArg{getResolvedDropboxFolderPath(path), std::nullopt});
  }
  auto client = dbx::DBClientsManager::authorizedClient();
  if (!client) {
    // Without a linked account no answer can ever come: fail instead of waiting for one.
    return Error(std::string(kDropboxErrorDomain), 401,
                 PlistDictionary{
                     {std::string(kErrorContentKey), PlistValue("No Dropbox account is linked")}});
  }

  std::string jobId;
  std::optional<Error> failure;
  dropbox::awaitDeleteAnswer(
      queueToUse, client->filesRoutes().deleteBatch(entries),
      [&](const dbx::DBFILESDeleteBatchLaunch* launch, const dbx::DBVoid* routeError,
          const dbx::DBRequestError* requestError) {
        if (launch != nullptr && launch->isAsyncJobId()) {
          jobId = launch->asyncJobId;
          log::debug(fmt::format("[DROPBOX] Batch deleting, job id: {}", jobId));
        } else if (requestError != nullptr) {
          failure = batchRequestError(*requestError);
          log::error(
              fmt::format("[DROPBOX] Got batch delete request error: {}", failure->description()));
        } else if (routeError != nullptr) {
          failure = unknownFailure();
          log::error(fmt::format("[DROPBOX] Got batch delete route error: {}",
                                 failure->localizedDescription()));
        }
      });

  if (jobId.empty()) {
    // A launch the server completed at once carries no job id either; it is reported the same.
    log::warning("[DROPBOX] Did NOT get async job id");
    failure = Error::withDescription(std::string(kDropboxErrorDomain), kBatchFailureCode,
                                     "Could not delete files in Dropbox");
  } else {
    log::debug(fmt::format("[DROPBOX] Batch delete got async job id: {}", jobId));
    // Back to back, without a pause or a limit, until the job says it is done.
    bool done = false;
    while (!done) {
      dropbox::awaitDeleteAnswer(
          queueToUse, client->filesRoutes().deleteBatchCheck(jobId),
          [&](const dbx::DBFILESDeleteBatchJobStatus* status,
              const dbx::DBASYNCPollError* pollError, const dbx::DBRequestError* requestError) {
            if (status != nullptr) {
              if (status->isComplete()) {
                done = true;
                if (status->complete) failure = walkEntries(*status->complete);
              } else if (status->isFailed()) {
                done = true;
                if (status->failed) failure = describedFailure(kBatchFailureCode, *status->failed);
              }
              return;  // in progress: poll again
            }
            done = true;
            if (requestError != nullptr) {
              failure = batchRequestError(*requestError);
            } else if (pollError != nullptr) {
              failure = describedFailure(kBatchFailureCode, *pollError);
            }
          });
    }
  }
  if (failure) {
    log::error(
        fmt::format("[DROPBOX] ERROR ----> Batch deletion failed: {}", failure->description()));
  }
  return failure;
}

}  // namespace wdc
