// Route error unions of the Dropbox API v2. Each is a tagged union: `tag` holds one member of
// `Tag`, whose numeric values follow the API's declaration order (so LookupError's not_found is
// 1, not_file 2, not_folder 3; ListFolderContinueError's reset is 1). Open unions end in kOther,
// which also stands for any tag this client does not know. Members that carry a value keep it in
// the field named after them. `tagName()` is the wire name; `description()` the chain of tags
// from the outside in, the way the server's error_summary reads ("path/not_found").
// Value types; thread-compatible.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "dbx/metadata.h"

namespace wdc::dbx {

struct DBFILESLookupError {
  enum class Tag : int {
    kMalformedPath, kNotFound, kNotFile, kNotFolder, kRestrictedContent,
    kUnsupportedContentType, kLocked, kOther
  };
  Tag tag = Tag::kOther;
  std::optional<std::string> malformedPath;

  [[nodiscard]] bool isNotFound() const { return tag == Tag::kNotFound; }
  [[nodiscard]] bool isNotFile() const { return tag == Tag::kNotFile; }
  [[nodiscard]] bool isNotFolder() const { return tag == Tag::kNotFolder; }
  [[nodiscard]] bool isOther() const { return tag == Tag::kOther; }
  [[nodiscard]] std::string tagName() const;
  [[nodiscard]] std::string description() const;
};

struct DBFILESWriteConflictError {
  enum class Tag : int { kFile, kFolder, kFileAncestor, kOther };
  Tag tag = Tag::kOther;
  [[nodiscard]] std::string tagName() const;
  [[nodiscard]] std::string description() const;
};

struct DBFILESWriteError {
  enum class Tag : int {
    kMalformedPath, kConflict, kNoWritePermission, kInsufficientSpace, kDisallowedName,
    kTeamFolder, kOperationSuppressed, kTooManyWriteOperations, kAccessRestricted, kOther
  };
  Tag tag = Tag::kOther;
  std::optional<std::string> malformedPath;
  std::optional<DBFILESWriteConflictError> conflict;

  [[nodiscard]] bool isConflict() const { return tag == Tag::kConflict; }
  [[nodiscard]] bool isTooManyWriteOperations() const {
    return tag == Tag::kTooManyWriteOperations;
  }
  [[nodiscard]] std::string tagName() const;
  [[nodiscard]] std::string description() const;
};

// files/list_folder
struct DBFILESListFolderError {
  enum class Tag : int { kPath, kTemplateError, kOther };
  Tag tag = Tag::kOther;
  std::optional<DBFILESLookupError> path;
  [[nodiscard]] bool isPath() const { return tag == Tag::kPath; }
  [[nodiscard]] std::string tagName() const;
  [[nodiscard]] std::string description() const;
};

// files/list_folder/continue
struct DBFILESListFolderContinueError {
  enum class Tag : int { kPath, kReset, kOther };
  Tag tag = Tag::kOther;
  std::optional<DBFILESLookupError> path;
  [[nodiscard]] bool isPath() const { return tag == Tag::kPath; }
  [[nodiscard]] bool isReset() const { return tag == Tag::kReset; }
  [[nodiscard]] std::string tagName() const;
  [[nodiscard]] std::string description() const;
};

// files/search (spoken as search_v2 on the wire; both share this union)
struct DBFILESSearchError {
  enum class Tag : int { kPath, kInvalidArgument, kInternalError, kOther };
  Tag tag = Tag::kOther;
  std::optional<DBFILESLookupError> path;
  std::optional<std::string> invalidArgument;
  [[nodiscard]] bool isPath() const { return tag == Tag::kPath; }
  [[nodiscard]] std::string tagName() const;
  [[nodiscard]] std::string description() const;
};

// files/create_folder_v2 (closed union: path is its only member)
struct DBFILESCreateFolderError {
  enum class Tag : int { kPath };
  Tag tag = Tag::kPath;
  DBFILESWriteError path;
  [[nodiscard]] bool isPath() const { return true; }
  [[nodiscard]] std::string tagName() const;
  [[nodiscard]] std::string description() const;
};

// files/upload
struct DBFILESUploadError {
  enum class Tag : int {
    kPath, kPropertiesError, kPayloadTooLarge, kContentHashMismatch, kEncryptionNotSupported,
    kOther
  };
  Tag tag = Tag::kOther;
  std::optional<DBFILESWriteError> pathReason;  // UploadWriteFailed.reason
  std::optional<std::string> uploadSessionId;   // UploadWriteFailed.upload_session_id
  [[nodiscard]] bool isPath() const { return tag == Tag::kPath; }
  [[nodiscard]] std::string tagName() const;
  [[nodiscard]] std::string description() const;
};

// files/upload_session/start
struct DBFILESUploadSessionStartError {
  enum class Tag : int {
    kConcurrentSessionDataNotAllowed, kConcurrentSessionCloseNotAllowed, kPayloadTooLarge,
    kContentHashMismatch, kOther
  };
  Tag tag = Tag::kOther;
  [[nodiscard]] std::string tagName() const;
  [[nodiscard]] std::string description() const;
};

// files/upload_session/append_v2
struct DBFILESUploadSessionAppendError {
  enum class Tag : int {
    kNotFound, kIncorrectOffset, kClosed, kTooLarge, kConcurrentSessionInvalidOffset,
    kConcurrentSessionInvalidDataSize, kPayloadTooLarge, kContentHashMismatch, kOther
  };
  Tag tag = Tag::kOther;
  std::optional<uint64_t> correctOffset;  // incorrect_offset
  [[nodiscard]] std::string tagName() const;
  [[nodiscard]] std::string description() const;
};

// The lookup_failed value of a finish entry's failure.
struct DBFILESUploadSessionLookupError {
  enum class Tag : int {
    kNotFound, kIncorrectOffset, kClosed, kNotClosed, kTooLarge,
    kConcurrentSessionInvalidOffset, kConcurrentSessionInvalidDataSize, kPayloadTooLarge, kOther
  };
  Tag tag = Tag::kOther;
  std::optional<uint64_t> correctOffset;
  [[nodiscard]] std::string tagName() const;
  [[nodiscard]] std::string description() const;
};

// One failed entry of finish_batch.
struct DBFILESUploadSessionFinishError {
  enum class Tag : int {
    kLookupFailed, kPath, kPropertiesError, kTooManySharedFolderTargets, kTooManyWriteOperations,
    kConcurrentSessionDataNotAllowed, kConcurrentSessionNotClosed,
    kConcurrentSessionMissingData, kPayloadTooLarge, kContentHashMismatch,
    kEncryptionNotSupported, kOther
  };
  Tag tag = Tag::kOther;
  std::optional<DBFILESUploadSessionLookupError> lookupFailed;
  std::optional<DBFILESWriteError> path;
  [[nodiscard]] bool isTooManyWriteOperations() const {
    return tag == Tag::kTooManyWriteOperations;
  }
  [[nodiscard]] std::string tagName() const;
  [[nodiscard]] std::string description() const;
};

// files/download
struct DBFILESDownloadError {
  enum class Tag : int { kPath, kUnsupportedFile, kOther };
  Tag tag = Tag::kOther;
  std::optional<DBFILESLookupError> path;
  [[nodiscard]] bool isPath() const { return tag == Tag::kPath; }
  [[nodiscard]] bool isOther() const { return tag == Tag::kOther; }
  [[nodiscard]] std::string tagName() const;
  [[nodiscard]] std::string description() const;
};

// files/download_zip
struct DBFILESDownloadZipError {
  enum class Tag : int { kPath, kTooLarge, kTooManyFiles, kOther };
  Tag tag = Tag::kOther;
  std::optional<DBFILESLookupError> path;
  [[nodiscard]] bool isPath() const { return tag == Tag::kPath; }
  [[nodiscard]] bool isTooLarge() const { return tag == Tag::kTooLarge; }
  [[nodiscard]] bool isTooManyFiles() const { return tag == Tag::kTooManyFiles; }
  [[nodiscard]] bool isOther() const { return tag == Tag::kOther; }
  [[nodiscard]] std::string tagName() const;
  [[nodiscard]] std::string description() const;
};

// files/delete_v2, and each failed entry of delete_batch
struct DBFILESDeleteError {
  enum class Tag : int { kPathLookup, kPathWrite, kTooManyWriteOperations, kTooManyFiles, kOther };
  Tag tag = Tag::kOther;
  std::optional<DBFILESLookupError> pathLookup;
  std::optional<DBFILESWriteError> pathWrite;
  [[nodiscard]] bool isPathLookup() const { return tag == Tag::kPathLookup; }
  [[nodiscard]] bool isPathWrite() const { return tag == Tag::kPathWrite; }
  [[nodiscard]] bool isTooManyWriteOperations() const {
    return tag == Tag::kTooManyWriteOperations;
  }
  [[nodiscard]] bool isTooManyFiles() const { return tag == Tag::kTooManyFiles; }
  [[nodiscard]] std::string tagName() const;
  [[nodiscard]] std::string description() const;
};

// The failed value of a delete_batch job.
struct DBFILESDeleteBatchError {
  enum class Tag : int { kTooManyWriteOperations, kOther };
  Tag tag = Tag::kOther;
  [[nodiscard]] std::string tagName() const;
  [[nodiscard]] std::string description() const;
};

// delete_batch/check and finish_batch/check
struct DBASYNCPollError {
  enum class Tag : int { kInvalidAsyncJobId, kInternalError, kOther };
  Tag tag = Tag::kOther;
  [[nodiscard]] std::string tagName() const;
  [[nodiscard]] std::string description() const;
};

// auth/token/from_oauth1
struct DBAUTHTokenFromOAuth1Error {
  enum class Tag : int { kInvalidOauth1TokenInfo, kAppIdMismatch, kOther };
  Tag tag = Tag::kOther;
  [[nodiscard]] std::string tagName() const;
  [[nodiscard]] std::string description() const;
};

}  // namespace wdc::dbx
