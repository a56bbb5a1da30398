// Deleting by name pattern: whatever the server's search lists under a folder goes in one batch.
#include <fmt/format.h>

#include "dropbox/folders.h"
#include "platform/logger.h"
#include "util/unicode_case.h"
#include "webdavconnect/webdav_connect.h"

namespace wdc {

bool WebDAVConnect::deleteFilesThatMatchInDropbox(const std::optional<std::string>& folder,
                                                  const std::string& thatMatch, ErrorOut error) {
  const std::optional<FileList> matches =
      searchForMatchingFiles(thatMatch, folder, std::string(), error);
  if (!matches) return false;

  // Search answers with whole lower-case paths, so they are deleted as they stand (joining them
  // to the folder again would name files that do not exist). Anything the server lists outside
  // the folder is left alone: only what lies under it may go.
  const std::string folderLower = lowercaseUnicode(getResolvedDropboxFolderPath(folder));
  std::vector<std::string> paths;
  for (const auto& match : *matches) {
    const std::string& path = *match->FilePath;
    if (!folderLower.empty() && folderLower != "/" && path.rfind(folderLower + "/", 0) != 0) {
      log::warning(fmt::format("[DROPBOX] deleteFilesThatMatch: not deleting {}, outside {}", path,
                               folderLower));
      continue;
    }
    paths.push_back(path);
  }
  const std::optional<Error> failure = deleteFilesAtPathsFromDropbox(paths);
  lastAsyncError_ = failure;
  asyncCallWasSuccessful_ = !failure.has_value();
  // Hand the batch's failure to the caller too, so a throttled or failed batch is retried.
  checkIfRequestFailed(error);
  return !failure.has_value();
}

}  // namespace wdc
