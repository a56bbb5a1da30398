// The delta listing's filter on its own: cached list_folder entries in, the records of one folder
// out. Kept apart from the connection so it can be exercised on decoded answers directly.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "dbx/metadata.h"
#include "webdavconnect/error.h"
#include "webdavconnect/webdav_connect.h"

namespace wdc::dropbox {

// The records among `entries` that lie directly in `resolvedPath` (and carry `withExtension`
// when given), in the entries' order. With `extensionFlags` (a fetch), also records there which
// of the six record extensions any entry has, also when the call fails. A file entry without a
// client-modified date fails the call: nullopt with "Dropbox Sync" 100.
std::optional<FileList> filterDeltaEntries(
    const std::vector<std::shared_ptr<const dbx::DBFILESMetadata>>& entries,
    std::string_view resolvedPath, const std::optional<std::string>& withExtension,
    std::map<std::string, bool, std::less<>>* extensionFlags, ErrorOut error);

}  // namespace wdc::dropbox
