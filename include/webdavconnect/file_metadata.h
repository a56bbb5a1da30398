// WebDAVFileMetaData: the in-memory description of one record file, shared by every backend.
// Listings return it, downloads and deletes take it, uploads fill it. Records are passed around
// as std::shared_ptr because hosts compare them by identity as well as by path.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "webdavconnect/date.h"

namespace wdc {

// A plain value object: fields are public and unlocked. Use from one thread at a time.
class WebDAVFileMetaData {
 public:
  // The folder (relative to the backend's root) the file lives in; absent or empty for the root.
  std::optional<std::string> ParentFolder;
  // The file's name; for listings, the bare directory entry name, extension included.
  std::optional<std::string> FilePath;
  bool IsDirectory = false;
  std::optional<std::string> ContainerUID;  // field after "_k_"
  std::optional<std::string> ParentUID;     // field after "_p_"
  std::optional<std::string> UID;           // field after "_i_"
  std::optional<std::string> DeviceUDID;    // field after "_d_"
  std::optional<std::string> OpType;        // field after "o_"
  std::optional<std::string> Extension;     // without the dot
  std::optional<std::string> FileRev;       // the backend's revision of the file
  std::optional<Date> CreationDate;         // absent where the backend cannot tell
  std::optional<Date> ModificationDate;
  double ModificationDateAbsolute = 0;      // ModificationDate as seconds since 1970 (UTC)
  bool DeletedFromDropbox = false;          // the listing reported the file as deleted

  // The encoded record name "o_" OP "_k_" CONTAINER "_p_" PARENT "_i_" UID "_d_" then, when an
  // extension is given, "." EXT. An absent op type is written "u"; other absent fields are
  // written as nothing. The device field is left empty. Never fails.
  static std::string createEncodedPathWithOpType(const std::optional<std::string>& opType,
                                                 const std::optional<std::string>& andContainer,
                                                 const std::optional<std::string>& andParent,
                                                 const std::optional<std::string>& andUID,
                                                 const std::optional<std::string>& andExtension);

  // Hash of FilePath as it stands (case-sensitive); 0 when FilePath is absent.
  [[nodiscard]] size_t hash() const;
  // True when `other` is this very object, or when both FilePaths are present and equal after
  // Unicode lower-casing. Null gives false. Note the deliberate asymmetry with hash(): paths that
  // differ only in case are equal but may hash differently, so hashed containers keep one entry
  // per path only when the hashes happen to collide.
  [[nodiscard]] bool isEqual(const WebDAVFileMetaData* other) const;
};

// Hash and equality for unordered containers of shared records, with the semantics above.
struct WebDAVFileMetaDataHash {
  size_t operator()(const std::shared_ptr<WebDAVFileMetaData>& record) const {
    return record ? record->hash() : 0;
  }
};
struct WebDAVFileMetaDataEqual {
  bool operator()(const std::shared_ptr<WebDAVFileMetaData>& a,
                  const std::shared_ptr<WebDAVFileMetaData>& b) const {
    return a == b || (a && a->isEqual(b.get()));
  }
};

}  // namespace wdc
