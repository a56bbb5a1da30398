// Record downloads: from the folder's snapshot when it holds the file, otherwise one
// files/download into a scratch file that is then decoded. The blocking form and the
// asynchronous form differ on purpose: scratch-name case, 404 handling, slot and cooldown.
#include <fmt/format.h>

#include <filesystem>
#include <memory>
#include <system_error>

#include "dbx/clients_manager.h"
#include "dropbox/blocking_call.h"
#include "dropbox/download_paths.h"
#include "dropbox/payload_decoding.h"
#include "platform/logger.h"
#include "platform/semaphore.h"
#include "util/unicode_case.h"
#include "webdavconnect/webdav_connect.h"
#include "webdavconnect/zip_snapshot.h"

namespace wdc {
namespace {

// A lookup failure of a path route error as the error value the download reports.
Error lookupFailure(int64_t code, const dbx::DBFILESDownloadError& routeError) {
  PlistDictionary userInfo;
  userInfo.set("errorContent",
               PlistValue(routeError.path ? routeError.path->description() : routeError.description()));
  return Error("Dropbox", code, std::move(userInfo));
}

bool isMissingFile(const dbx::DBFILESDownloadError& routeError) {
  return routeError.isPath() && routeError.path &&
         (routeError.path->isNotFile() || routeError.path->isNotFound());
}

std::optional<std::string> snapshotPayloadPath(const std::string& fileName,
                                               const std::optional<std::string>& folder) {
  return WebDAVDropboxZipSnapshot::sharedSnapshot().payloadPathForFile(fileName,
                                                                       folder.value_or(""));
}

}  // namespace

void WebDAVConnect::recordDropboxDownloadOutcome(std::optional<Error> failure) {
  asyncCallWasSuccessful = !failure.has_value();
  lastAsyncError = std::move(failure);
}

std::shared_ptr<WebDAVFileContents> WebDAVConnect::getContentsForDropboxFile(
    const std::shared_ptr<WebDAVFileMetaData>& file, const std::optional<std::string>& inFolder,
    ErrorOut error) {
  const std::string fileName = file ? file->FilePath.value_or("") : "";
  warmDropboxZipSnapshotIfNeededForFolder(inFolder);
  if (auto extracted = snapshotPayloadPath(fileName, inFolder)) {
    return decodedDropboxContentsForFile(file, *extracted, error);
  }

  const std::string remote = dropbox::remoteFilePath(inFolder, fileName);
  const std::string scratch = dropbox::freshScratchPath(fileName);
  log::debug(fmt::format("[DROPBOX] getContentsForDropboxFile: {} (remote: {})", scratch, remote));

  if (auto client = dropbox::authorizedClientFor(*this)) {
    auto answered = std::make_shared<CountingSemaphore>(0);
    client->filesRoutes()
        .downloadUrl(remote, true, scratch)
        .setResponseBlock(
            [this, answered](const dbx::DBFILESFileMetadata*,
                             const dbx::DBFILESDownloadError* routeError,
                             const dbx::DBRequestError* requestError,
                             const std::filesystem::path&) {
              if (requestError != nullptr && requestError->statusCode == 404) {
                // A missing file is not a failure here: decoding the absent scratch file is.
                setAsyncErrorIfRequired(nullptr);
              } else if (routeError != nullptr && isMissingFile(*routeError)) {
                recordDropboxDownloadOutcome(lookupFailure(404, *routeError));
              } else if (routeError != nullptr && routeError->isPath()) {
                recordDropboxDownloadOutcome(lookupFailure(400, *routeError));
              } else {
                setAsyncErrorIfRequired(requestError);
              }
              answered->signal();
            },
            queueToUse);
    answered->wait();
  }
  if (checkIfRequestFailed(error)) return nullptr;

  std::error_code ec;
  if (!std::filesystem::exists(scratch, ec)) {
    log::error(fmt::format("[DROPBOX] ERROR =====> File NOT downloadad to path: {}", scratch));
  }
  return decodedDropboxContentsForFile(file, scratch, error);
}

void WebDAVConnect::getContentsForDropboxFile(const std::shared_ptr<WebDAVFileMetaData>& file,
                                              const std::optional<std::string>& inFolder,
                                              ContentsCompletion andCompletion) {
  if (!andCompletion) andCompletion = [](auto, auto) {};  // the answer is still awaited
  const std::string fileName = file ? file->FilePath.value_or("") : "";
  warmDropboxZipSnapshotIfNeededForFolder(inFolder);
  if (auto extracted = snapshotPayloadPath(fileName, inFolder)) {
    std::optional<Error> decodeError;
    auto contents = decodedDropboxContentsForFile(file, *extracted, &decodeError);
    andCompletion(std::move(contents), std::move(decodeError));
    return;
  }

  const std::string remote = dropbox::remoteFilePath(inFolder, fileName);
  // Lower case on purpose: two names that differ only in case share one scratch file here.
  const std::string scratch = dropbox::freshScratchPath(lowercaseUnicode(fileName));

  const bool slotTaken = acquireDropboxDownloadSlot();
  waitForDropboxCooldown();

  auto client = dbx::DBClientsManager::authorizedClient();
  if (!client) {
    // Without a linked account there is nobody to ask: answer now rather than never.
    if (slotTaken) releaseDropboxDownloadSlot();
    dbx::DBRequestError notLinked;
    notLinked.kind = dbx::DBRequestError::Kind::kAuth;
    notLinked.statusCode = 401;
    notLinked.errorContent = "No Dropbox account is linked";
    notLinked.message = "no authorized client";
    andCompletion(nullptr, getErrorFromRequestError(&notLinked));
    return;
  }
  client->filesRoutes()
      .downloadUrl(remote, true, scratch)
      .setResponseBlock(
          [file, scratch, slotTaken, completion = std::move(andCompletion)](
              const dbx::DBFILESFileMetadata*, const dbx::DBFILESDownloadError* routeError,
              const dbx::DBRequestError* requestError, const std::filesystem::path&) {
            // First of all, so that nothing below (a failing decode included) can keep the slot.
            if (slotTaken) releaseDropboxDownloadSlot();
            if (routeError != nullptr && isMissingFile(*routeError)) {
              completion(nullptr, lookupFailure(404, *routeError));
              return;
            }
            if (routeError != nullptr && routeError->isOther()) {
              log::error(fmt::format("[DROPBOX] ERROR: {}", routeError->description()));
            }
            if (requestError != nullptr && requestError->statusCode == 404) {
              completion(nullptr, getErrorFromRequestError(requestError));
              return;
            }
            if (std::optional<Error> failure = getErrorFromRequestError(requestError)) {
              log::error(fmt::format("[DROPBOX] Download request ERROR: {}",
                                     failure->description()));
              completion(nullptr, std::move(failure));
              return;
            }
            std::optional<Error> decodeError;
            auto contents = dropbox::decodeRecordPayloadFile(file, scratch, &decodeError);
            completion(std::move(contents), std::move(decodeError));
          },
          queueToUse);
}

}  // namespace wdc
