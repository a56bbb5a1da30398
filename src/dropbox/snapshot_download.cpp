// Fetching a marked record folder as one ZIP (files/download_zip) for the shared snapshot cache,
// so that its records are read from disk instead of one request each. Every failure ends in a
// warning and per-file downloads; nothing here reports an error.
#include <fmt/format.h>

#include <filesystem>
#include <memory>
#include <system_error>
#include <unistd.h>

#include "dbx/clients_manager.h"
#include "platform/env.h"
#include "platform/logger.h"
#include "platform/semaphore.h"
#include "webdavconnect/webdav_connect.h"
#include "webdavconnect/zip_snapshot.h"

namespace wdc {
namespace {

// Why a folder archive request failed, in the words of the fall-back warning.
std::optional<std::string> failureReason(const std::optional<dbx::DBFILESDownloadZipError>& routeError,
                                         const std::optional<Error>& requestError) {
  if (routeError) {
    if (routeError->isTooLarge()) return "folder is too large";
    if (routeError->isTooManyFiles()) return "folder has too many files";
    if (routeError->isPath()) {
      return routeError->path ? routeError->path->description() : routeError->description();
    }
    return "Dropbox rejected the folder archive request";
  }
  if (requestError) return requestError->localizedDescription();
  return std::nullopt;
}

}  // namespace

void WebDAVConnect::warmDropboxZipSnapshotIfNeededForFolder(
    const std::optional<std::string>& folder) {
  const std::string name = folder.value_or("");
  std::optional<std::string> downloaded;
  bool provided = false;
  const bool ready = WebDAVDropboxZipSnapshot::sharedSnapshot().warmPendingFolder(
      name, [&]() -> std::optional<std::string> {
        log::info(fmt::format("[DROPBOX] Folder snapshot warm beginning for {}", name));
        provided = true;
        downloaded = downloadDropboxZipForFolder(folder);
        return downloaded;
      });
  if (!provided || !downloaded) return;
  if (ready) {
    log::info(fmt::format(
        "[DROPBOX] Folder snapshot ready for {}: {} entries", name,
        WebDAVDropboxZipSnapshot::sharedSnapshot().indexedEntryCountForFolder(name)));
  } else {
    log::warning(fmt::format(
        "[DROPBOX] Folder snapshot extraction failed for {}; falling back to per-file downloads",
        name));
  }
  std::error_code ignored;
  std::filesystem::remove(*downloaded, ignored);
}

std::optional<std::string> WebDAVConnect::downloadDropboxZipForFolder(
    const std::optional<std::string>& folder) {
  auto client = dbx::DBClientsManager::authorizedClient();
  if (!client) {
    log::warning(
        "[DROPBOX] Folder snapshot request skipped because the Dropbox client is unavailable");
    return std::nullopt;
  }
  const std::string zipPath =
      (Env::current().temporaryDirectory() /
       fmt::format("WebDAVDropbox-{}.zip", Env::current().newUUID()))
          .string();
  const std::string remote = getResolvedDropboxFolderPath(folder);

  const bool slotTaken = acquireDropboxDownloadSlot();
  waitForDropboxCooldown();

  struct Answer {
    bool succeeded = false;
    std::optional<dbx::DBFILESDownloadZipError> routeError;
    std::optional<Error> requestError;
  };
  // Shared with the handler, which may still be unwinding when this call returns.
  auto answer = std::make_shared<Answer>();
  auto answered = std::make_shared<CountingSemaphore>(0);
  client->filesRoutes()
      .downloadZipUrl(remote, true, zipPath)
      .setResponseBlock(
          [answer, answered, slotTaken](const dbx::DBFILESDownloadZipResult* result,
                                        const dbx::DBFILESDownloadZipError* routeError,
                                        const dbx::DBRequestError* requestError,
                                        const std::filesystem::path&) {
            if (slotTaken) releaseDropboxDownloadSlot();
            answer->succeeded = result != nullptr && routeError == nullptr && requestError == nullptr;
            if (routeError != nullptr) answer->routeError = *routeError;
            answer->requestError = getErrorFromRequestError(requestError);
            answered->signal();
          },
          queueToUse);
  answered->wait();

  if (answer->succeeded && ::access(zipPath.c_str(), R_OK) == 0) return zipPath;
  log::warning(fmt::format(
      "[DROPBOX] Folder snapshot download failed for {}: {}; falling back to per-file downloads",
      folder.value_or(""),
      failureReason(answer->routeError, answer->requestError).value_or("unknown error")));
  std::error_code ignored;
  std::filesystem::remove(zipPath, ignored);
  return std::nullopt;
}

}  // namespace wdc
