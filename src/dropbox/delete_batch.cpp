// Batch deletes of the Dropbox backend: files/delete_batch launches a job, files/delete_batch/check
// is polled back to back until the job completes or fails, and the per-entry results are walked
// into one error (delete_batch_status.cpp). The batch reports through its return value only; the
// connection's call state is not touched.
#include <fmt/format.h>

#include "dbx/clients_manager.h"
#include "dropbox/delete_answer.h"
#include "dropbox/delete_batch_status.h"
#include "dropbox/folders.h"
#include "platform/logger.h"
#include "webdavconnect/webdav_connect.h"

namespace wdc {
namespace {

constexpr size_t kMaxBatchEntries = 1000;
constexpr int64_t kBatchFailureCode = 400;

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
        dropbox::readDeleteBatchLaunch(launch, routeError, requestError, jobId, failure);
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
            done = dropbox::readDeleteBatchCheck(status, pollError, requestError, failure);
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
