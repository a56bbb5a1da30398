// Deleting by name pattern: whatever the server's search lists for a folder goes in one batch.
#include "webdavconnect/webdav_connect.h"

namespace wdc {

bool WebDAVConnect::deleteFilesThatMatchInDropbox(const std::optional<std::string>& folder,
                                                  const std::string& thatMatch, ErrorOut error) {
  const std::optional<FileList> matches =
      searchForMatchingFiles(thatMatch, folder, std::string(), error);
  if (!matches) return false;

  // Each match's path is joined under the folder, as every record delete names its file. Search
  // answers with whole paths, so this names the matches themselves only for the root folder;
  // under a named folder the joined paths normally name nothing (see the header).
  const std::optional<Error> failure = deleteFilesAtPathFromDropbox(*matches, folder);
  // The batch's outcome is the connection's last call; the caller's error holds only what the
  // search reported, so the public operation does not retry a failed batch.
  lastAsyncError = failure;
  asyncCallWasSuccessful = !failure.has_value();
  return !failure.has_value();
}

}  // namespace wdc
