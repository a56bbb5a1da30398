// Reading a downloaded (or snapshot-extracted) payload file back into values, outside any
// connection so that an answer handler can decode after its connection has gone.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "webdavconnect/error.h"
#include "webdavconnect/file_contents.h"
#include "webdavconnect/plist_value.h"

namespace wdc::dropbox {

// A record payload: contents holding `file` itself and the archive's "data" dictionary.
// Unreadable: nullptr with "KavoWebDAV" 1800, logged.
std::shared_ptr<WebDAVFileContents> decodeRecordPayloadFile(
    const std::shared_ptr<WebDAVFileMetaData>& file, const std::string& localPath, ErrorOut error);

// An arbitrary payload: the object under "data" (nullopt, no error, when absent). Unreadable:
// nullopt with "Dropbox Sync" 100. Never logs.
std::optional<PlistValue> decodeArbitraryPayloadFile(const std::string& localPath, ErrorOut error);

}  // namespace wdc::dropbox
