// The delta listing: what changed in the app folder, answered per folder and extension from one
// pass over the change feed. A fetch (delta_listing_fetch.cpp) keeps every entry on the
// connection; each call, fetching or not, then filters that cache into records of one folder
// (delta_filter.cpp).
#include <fmt/format.h>

#include <optional>
#include <string>

#include "dbx/metadata.h"
#include "dropbox/delta_filter.h"
#include "platform/logger.h"
#include "webdavconnect/webdav_connect.h"
#include "webdavconnect/zip_snapshot.h"

namespace wdc {
namespace {

std::string textOr(const std::optional<std::string>& text) { return text.value_or("(null)"); }

}  // namespace

std::optional<FileList> WebDAVConnect::getDeltaFileListFromDropbox(
    ErrorOut error, const std::optional<std::string>& fromPath,
    const std::optional<std::string>& usingCursor, const std::optional<std::string>& withExtension,
    bool canUseCachedResult) {
  const std::string resolvedPath = getResolvedDropboxFolderPath(fromPath);
  const bool fetching = !canUseCachedResult;
  if (fetching) {
    // A new pass may change which folders deserve a snapshot, and what the old snapshots hold.
    WebDAVDropboxZipSnapshot::sharedSnapshot().reset();
    log::debug("[DROPBOX] Delta Setting up Cache...");
    dictDoesContainDeltaForExtension.clear();
    shouldResetLocalData = false;
    dropboxDeltaCursor.reset();
    hasMoreDeltaChanges = false;
    arrDropboxDeltaTuples.emplace();
    // A failed page is reported by the check below.
    fetchDeltaPages(error, usingCursor);
  } else if (!arrDropboxDeltaTuples) {
    log::debug("[DROPBOX] Can use cache but tuples is NIL!");
  } else if (arrDropboxDeltaTuples->empty()) {
    log::info(fmt::format("[DROPBOX] Delta returning empty set for as no data available: {}",
                          textOr(withExtension)));
    return FileList{};
  } else if (withExtension) {
    const auto flag = dictDoesContainDeltaForExtension.find(*withExtension);
    if (flag == dictDoesContainDeltaForExtension.end() || !flag->second) {
      log::info(fmt::format("[DROPBOX] Delta returning empty set for: {} [2]", *withExtension));
      return FileList{};
    }
  }

  // After a cache-only call this reports a failure the connection's last request left behind.
  if (checkIfRequestFailed(error)) return std::nullopt;

  static const std::vector<std::shared_ptr<const dbx::DBFILESMetadata>> kNoEntries;
  const auto& entries = arrDropboxDeltaTuples ? *arrDropboxDeltaTuples : kNoEntries;
  if (fetching) markDropboxZipSnapshotFoldersFromEntries(entries);

  return dropbox::filterDeltaEntries(entries, resolvedPath, withExtension,
                                     fetching ? &dictDoesContainDeltaForExtension : nullptr, error);
}

}  // namespace wdc
