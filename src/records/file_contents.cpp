#include "webdavconnect/file_contents.h"

namespace wdc {

size_t WebDAVFileContents::hash() const { return FileMetaData ? FileMetaData->hash() : 0; }

bool WebDAVFileContents::isEqual(const WebDAVFileContents* other) const {
  if (other == nullptr) return false;
  if (other == this) return true;
  if (!FileMetaData || !other->FileMetaData) return false;
  // Compare paths only, never the records' identity or payloads.
  if (!FileMetaData->FilePath || !other->FileMetaData->FilePath) return false;
  WebDAVFileMetaData probe;
  probe.FilePath = other->FileMetaData->FilePath;
  return FileMetaData->isEqual(&probe);
}

std::shared_ptr<WebDAVBatchUploadResult> WebDAVBatchUploadResult::initWithContents(
    std::shared_ptr<WebDAVFileContents> contents, const std::optional<Error>& andError) {
  auto result = std::make_shared<WebDAVBatchUploadResult>();
  result->fileContents = std::move(contents);
  result->uploadError = andError;
  return result;
}

std::shared_ptr<WebDAVBatchDeleteResult> WebDAVBatchDeleteResult::initWithMeta(
    std::shared_ptr<WebDAVFileMetaData> meta, const std::optional<Error>& andError) {
  auto result = std::make_shared<WebDAVBatchDeleteResult>();
  result->fileMetaData = std::move(meta);
  result->deleteError = andError;
  return result;
}

}  // namespace wdc
