// Records that carry payloads and batch outcomes between the host and the backends.
#pragma once

#include <memory>
#include <optional>

#include "webdavconnect/error.h"
#include "webdavconnect/file_metadata.h"
#include "webdavconnect/plist_value.h"

namespace wdc {

// One file's metadata with its payload. Both are shared references, not copies: the host and
// the backend see the same objects. Default construction leaves both empty.
// Use from one thread at a time.
class WebDAVFileContents {
 public:
  WebDAVFileContents() = default;
  WebDAVFileContents(std::shared_ptr<WebDAVFileMetaData> metaData,
                     std::shared_ptr<PlistDictionary> contents)
      : FileMetaData(std::move(metaData)), FileContents(std::move(contents)) {}

  std::shared_ptr<WebDAVFileMetaData> FileMetaData;
  // The record's payload: the host's fields. Stored as a keyed archive under "data", gzipped.
  std::shared_ptr<PlistDictionary> FileContents;

  // Case-sensitive hash of FileMetaData's FilePath; 0 when either is absent.
  [[nodiscard]] size_t hash() const;
  // True for this very object, or when both metadata FilePaths are present and equal after
  // lower-casing. Payloads are never compared. Same hash/equality asymmetry as the metadata.
  [[nodiscard]] bool isEqual(const WebDAVFileContents* other) const;
};

struct WebDAVFileContentsHash {
  size_t operator()(const std::shared_ptr<WebDAVFileContents>& c) const {
    return c ? c->hash() : 0;
  }
};
struct WebDAVFileContentsEqual {
  bool operator()(const std::shared_ptr<WebDAVFileContents>& a,
                  const std::shared_ptr<WebDAVFileContents>& b) const {
    return a == b || (a && a->isEqual(b.get()));
  }
};

// The outcome of one item of a batch upload: the item, and its error (absent on success).
class WebDAVBatchUploadResult {
 public:
  // Holds `contents` (shared) and a copy of `andError` (absent stays absent).
  static std::shared_ptr<WebDAVBatchUploadResult> initWithContents(
      std::shared_ptr<WebDAVFileContents> contents, const std::optional<Error>& andError);

  std::shared_ptr<WebDAVFileContents> fileContents;
  std::optional<Error> uploadError;
};

// The outcome of one item of a batch delete: the file, and its error (absent on success).
class WebDAVBatchDeleteResult {
 public:
  static std::shared_ptr<WebDAVBatchDeleteResult> initWithMeta(
      std::shared_ptr<WebDAVFileMetaData> meta, const std::optional<Error>& andError);

  std::shared_ptr<WebDAVFileMetaData> fileMetaData;
  std::optional<Error> deleteError;
};

}  // namespace wdc
