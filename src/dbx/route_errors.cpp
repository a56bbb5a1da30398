#include "dbx/route_errors.h"

#include "dbx/tag_names.h"

namespace wdc::dbx {
namespace {

std::string chain(std::string_view tag, const std::string& inner) {
  std::string out(tag);
  if (!inner.empty()) {
    out += '/';
    out += inner;
  }
  return out;
}

}  // namespace

std::string DBFILESLookupError::tagName() const {
  return std::string(tags::nameOf(tags::kLookupError, tag));
}
std::string DBFILESLookupError::description() const { return tagName(); }

std::string DBFILESWriteConflictError::tagName() const {
  return std::string(tags::nameOf(tags::kWriteConflictError, tag));
}
std::string DBFILESWriteConflictError::description() const { return tagName(); }

std::string DBFILESWriteError::tagName() const {
  return std::string(tags::nameOf(tags::kWriteError, tag));
}
std::string DBFILESWriteError::description() const {
  return chain(tagName(), conflict ? conflict->description() : std::string());
}

std::string DBFILESListFolderError::tagName() const {
  return std::string(tags::nameOf(tags::kListFolderError, tag));
}
std::string DBFILESListFolderError::description() const {
  return chain(tagName(), path ? path->description() : std::string());
}

std::string DBFILESListFolderContinueError::tagName() const {
  return std::string(tags::nameOf(tags::kListFolderContinueError, tag));
}
std::string DBFILESListFolderContinueError::description() const {
  return chain(tagName(), path ? path->description() : std::string());
}

std::string DBFILESSearchError::tagName() const {
  return std::string(tags::nameOf(tags::kSearchError, tag));
}
std::string DBFILESSearchError::description() const {
  return chain(tagName(), path ? path->description() : std::string());
}

std::string DBFILESCreateFolderError::tagName() const {
  return std::string(tags::nameOf(tags::kCreateFolderError, tag));
}
std::string DBFILESCreateFolderError::description() const {
  return chain(tagName(), path.description());
}

std::string DBFILESUploadError::tagName() const {
  return std::string(tags::nameOf(tags::kUploadError, tag));
}
std::string DBFILESUploadError::description() const {
  return chain(tagName(), pathReason ? pathReason->description() : std::string());
}

std::string DBFILESUploadSessionStartError::tagName() const {
  return std::string(tags::nameOf(tags::kUploadSessionStartError, tag));
}
std::string DBFILESUploadSessionStartError::description() const { return tagName(); }

std::string DBFILESUploadSessionAppendError::tagName() const {
  return std::string(tags::nameOf(tags::kUploadSessionAppendError, tag));
}
std::string DBFILESUploadSessionAppendError::description() const { return tagName(); }

std::string DBFILESUploadSessionLookupError::tagName() const {
  return std::string(tags::nameOf(tags::kUploadSessionLookupError, tag));
}
std::string DBFILESUploadSessionLookupError::description() const { return tagName(); }

std::string DBFILESUploadSessionFinishError::tagName() const {
  return std::string(tags::nameOf(tags::kUploadSessionFinishError, tag));
}
std::string DBFILESUploadSessionFinishError::description() const {
  if (lookupFailed) return chain(tagName(), lookupFailed->description());
  if (path) return chain(tagName(), path->description());
  return tagName();
}

std::string DBFILESDownloadError::tagName() const {
  return std::string(tags::nameOf(tags::kDownloadError, tag));
}
std::string DBFILESDownloadError::description() const {
  return chain(tagName(), path ? path->description() : std::string());
}

std::string DBFILESDownloadZipError::tagName() const {
  return std::string(tags::nameOf(tags::kDownloadZipError, tag));
}
std::string DBFILESDownloadZipError::description() const {
  return chain(tagName(), path ? path->description() : std::string());
}

std::string DBFILESDeleteError::tagName() const {
  return std::string(tags::nameOf(tags::kDeleteError, tag));
}
std::string DBFILESDeleteError::description() const {
  if (pathLookup) return chain(tagName(), pathLookup->description());
  if (pathWrite) return chain(tagName(), pathWrite->description());
  return tagName();
}

std::string DBFILESDeleteBatchError::tagName() const {
  return std::string(tags::nameOf(tags::kDeleteBatchError, tag));
}
std::string DBFILESDeleteBatchError::description() const { return tagName(); }

std::string DBASYNCPollError::tagName() const {
  return std::string(tags::nameOf(tags::kPollError, tag));
}
std::string DBASYNCPollError::description() const { return tagName(); }

std::string DBAUTHTokenFromOAuth1Error::tagName() const {
  return std::string(tags::nameOf(tags::kTokenFromOAuth1Error, tag));
}
std::string DBAUTHTokenFromOAuth1Error::description() const { return tagName(); }

}  // namespace wdc::dbx
