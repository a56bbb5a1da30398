// Downloading many records at once, as a host's sync does: every record through the
// asynchronous getContentsForFile (the library bounds the downloads in flight and serves records
// of a folder snapshot from disk). Shared by `pull` and `demo`.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "webdavconnect/webdav_connect.h"

namespace wdc::cli {

struct FetchedRecord {
  std::shared_ptr<WebDAVFileMetaData> meta;
  std::shared_ptr<WebDAVFileContents> contents;  // null when the download failed
  std::optional<Error> error;
};

// Downloads `records` of `folder`; `onEach` runs on the calling thread as each one arrives.
// Returns them in the order given.
std::vector<FetchedRecord> fetchRecords(WebDAVConnect& store, const FileList& records,
                                        const std::string& folder, int64_t retryLimit,
                                        const std::function<void(const FetchedRecord&)>& onEach);

}  // namespace wdc::cli
