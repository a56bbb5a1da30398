// Single deletes of the Dropbox backend (files/delete_v2). A path that is already gone is not a
// failure: the answer is simply "not deleted by us".
#include <fmt/format.h>

#include "dbx/clients_manager.h"
#include "dropbox/blocking_call.h"
#include "dropbox/delete_answer.h"
#include "dropbox/folders.h"
#include "platform/logger.h"
#include "util/unicode_case.h"

namespace wdc {

bool WebDAVConnect::deleteArbitraryFileFromDropbox(const std::optional<std::string>& name,
                                                   const std::optional<std::string>& inFolder,
                                                   ErrorOut error) {
  const std::string remotePath =
      dropbox::appendingPathComponent(getResolvedDropboxFolderPath(inFolder), name.value_or(""));
  log::debug(fmt::format("[DROPBOX] deleteArbitraryFileFromDropbox: {}", remotePath));
  bool deleted = false;
  if (auto client = dropbox::authorizedClientFor(*this)) {
    const std::string remoteLower = lowercaseUnicode(remotePath);
    dropbox::awaitDeleteAnswer(
        queueToUse, client->filesRoutes().deleteV2(remotePath),
        [&](const dbx::DBFILESDeleteResult* result, const dbx::DBFILESDeleteError* routeError,
            const dbx::DBRequestError* requestError) {
          // Only the server naming this very path counts as our delete.
          if (result != nullptr && result->metadata &&
              result->metadata->pathLower.value_or("") == remoteLower) {
            deleted = true;
          }
          const bool alreadyGone =
              routeError != nullptr && routeError->isPathLookup() && routeError->pathLookup &&
              (routeError->pathLookup->isNotFound() || routeError->pathLookup->isNotFile());
          const bool conflictOrMissing =
              requestError != nullptr && requestError->statusCode &&
              (*requestError->statusCode == 409 || *requestError->statusCode == 404);
          if (alreadyGone || conflictOrMissing) {
            setAsyncErrorIfRequired(nullptr);
          } else {
            setAsyncErrorIfRequired(requestError);
          }
        });
  }
  if (checkIfRequestFailed(error)) return false;
  return deleted;
}

bool WebDAVConnect::deleteFileAtPathFromDropbox(const std::shared_ptr<WebDAVFileMetaData>& file,
                                                const std::optional<std::string>& inFolder,
                                                ErrorOut error) {
  const std::optional<std::string> filePath = file ? file->FilePath : std::nullopt;
  log::debug(
      fmt::format("[DROPBOX] deleteFileAtPathFromDropbox: {}", dropbox::textOrNull(filePath)));
  // A record that names no file must not turn into a delete of the whole folder.
  if (!filePath || filePath->empty()) return false;
  return deleteArbitraryFileFromDropbox(filePath, inFolder, error);
}

}  // namespace wdc
