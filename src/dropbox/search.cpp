// files/search for the Dropbox backend: what the server's name search lists under a folder.
#include <fmt/format.h>

#include "dbx/clients_manager.h"
#include "dropbox/blocking_call.h"
#include "dropbox/folders.h"
#include "platform/logger.h"
#include "util/unicode_case.h"

namespace wdc {

std::optional<FileList> WebDAVConnect::searchForMatchingFiles(
    const std::optional<std::string>& fileName, const std::optional<std::string>& inFolder,
    const std::optional<std::string>& excludingFile, ErrorOut error) {
  log::debug(
      fmt::format("[DROPBOX] searchForMatchingFiles : fileName : {}, inFolder : {}, excluding : {}",
                  dropbox::textOrNull(fileName), dropbox::textOrNull(inFolder),
                  dropbox::textOrNull(excludingFile)));
  arrSearchMetaDatas = FileList{};
  const std::string excluded = lowercaseUnicode(excludingFile.value_or(""));
  if (auto client = dropbox::authorizedClientFor(*this)) {
    dropbox::awaitAnswer(
        *this,
        client->filesRoutes().search(getResolvedDropboxFolderPath(inFolder), fileName.value_or("")),
        [this, &excluded](const dbx::DBFILESSearchResult* result, const dbx::DBFILESSearchError*) {
          if (result == nullptr) return;
          // The server decides what matches (partial names, any depth): its list is taken as it
          // is, in its order, less the excluded name.
          for (const auto& match : result->matches) {
            if (!match.metadata) continue;
            const std::string pathLower = match.metadata->pathLower.value_or("");
            if (!excluded.empty() && dropbox::lastPathComponent(pathLower) == excluded) continue;
            auto record = std::make_shared<WebDAVFileMetaData>();
            record->FilePath = pathLower;
            record->Extension = dropbox::pathExtension(pathLower);
            arrSearchMetaDatas->push_back(std::move(record));
          }
        });
  }
  if (checkIfRequestFailed(error)) return std::nullopt;
  return arrSearchMetaDatas;
}

}  // namespace wdc
