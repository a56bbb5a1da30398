// Arbitrary named objects (attachments): snapshot first, otherwise one files/download whose
// request error alone decides the outcome.
#include <fmt/format.h>

#include <filesystem>

#include "dropbox/blocking_call.h"
#include "dropbox/download_paths.h"
#include "platform/logger.h"
#include "webdavconnect/webdav_connect.h"
#include "webdavconnect/zip_snapshot.h"

namespace wdc {

std::optional<PlistValue> WebDAVConnect::downloadArbitraryFileFromDropbox(
    const std::optional<std::string>& name, const std::optional<std::string>& fromFolder,
    ErrorOut error) {
  const std::string fileName = name.value_or("");
  log::debug(fmt::format("[DROPBOX] downloadArbitraryFileFromDropbox: {}", fileName));
  warmDropboxZipSnapshotIfNeededForFolder(fromFolder);
  if (auto extracted = WebDAVDropboxZipSnapshot::sharedSnapshot().payloadPathForFile(
          fileName, fromFolder.value_or(""))) {
    return decodedDropboxArbitraryDataAtLocalPath(*extracted, error);
  }

  const std::string remote = dropbox::remoteFilePath(fromFolder, fileName);
  const std::string scratch = dropbox::freshScratchPath(fileName);
  if (auto client = dropbox::authorizedClientFor(*this)) {
    // Route errors are not looked at: without a request error the scratch file decides.
    dropbox::awaitAnswer(*this, client->filesRoutes().downloadUrl(remote, true, scratch),
                         [](const dbx::DBFILESFileMetadata*, const dbx::DBFILESDownloadError*,
                            const std::filesystem::path&) {});
  }
  if (checkIfRequestFailed(error)) return std::nullopt;
  return decodedDropboxArbitraryDataAtLocalPath(scratch, error);
}

}  // namespace wdc
