// Arguments and results of the files routes. Arguments carry the API's defaults, so a caller
// sets only what differs; optional fields left absent are not sent. Value types;
// thread-compatible.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "dbx/metadata.h"
#include "dbx/route_errors.h"

namespace wdc::dbx {

// ---- list_folder, list_folder/continue ----

struct DBFILESListFolderArg {
  std::string path;  // "" is the root
  bool recursive = false;
  bool includeMediaInfo = false;
  bool includeDeleted = false;
  std::optional<bool> includeHasExplicitSharedMembers;
  bool includeMountedFolders = true;
  std::optional<uint32_t> limit;
  bool includeNonDownloadableFiles = true;
};

struct DBFILESListFolderResult {
  std::vector<DBFILESMetadataRef> entries;
  std::string cursor;
  bool hasMore = false;
};

// files/list_folder/longpoll: whether the folder changed since the cursor, and how many seconds
// the server asks the client to wait before the next longpoll.
struct DBFILESListFolderLongpollResult {
  bool changes = false;
  std::optional<uint64_t> backoff;
};

// ---- search ----

// The classic search arguments. The client sends them as search_v2: options.path (left out for
// the root), options.max_results, filename_only unless content search is asked for, file_status
// "deleted" for the deleted-filename mode. `start` has no v2 form and is not sent.
struct DBFILESSearchArg {
  std::string path;  // "" is the root
  std::string query;
  uint64_t start = 0;
  uint64_t maxResults = 100;
  enum class Mode : int { kFilename, kFilenameAndContent, kDeletedFilename };
  Mode mode = Mode::kFilename;
};

struct DBFILESSearchMatch {
  enum class MatchType : int { kFilename, kContent, kBoth };
  MatchType matchType = MatchType::kFilename;
  DBFILESMetadataRef metadata;  // never null in a decoded result
};

// The classic search result shape, filled from the search_v2 answer: its matches in the server's
// order, `more` from has_more, `start` the number of matches so far.
struct DBFILESSearchResult {
  std::vector<DBFILESSearchMatch> matches;
  bool more = false;
  uint64_t start = 0;
  std::optional<std::string> cursor;  // search_v2's continuation cursor, when it sent one
};

// ---- create_folder_v2 ----

struct DBFILESCreateFolderResult {
  DBFILESFolderMetadata metadata;
};

// ---- upload, upload sessions ----

struct DBFILESWriteMode {
  enum class Tag : int { kAdd, kOverwrite, kUpdate };
  Tag tag = Tag::kAdd;
  std::string update;  // the rev, for kUpdate
  static DBFILESWriteMode add() { return {}; }
  static DBFILESWriteMode overwrite() { return {Tag::kOverwrite, {}}; }
  static DBFILESWriteMode updateRev(std::string rev) { return {Tag::kUpdate, std::move(rev)}; }
};

// Where and how a file is committed (files/upload and each finish_batch entry).
struct DBFILESCommitInfo {
  std::string path;
  DBFILESWriteMode mode;
  bool autorename = false;
  std::optional<DBTimestamp> clientModified;
  bool mute = false;
  bool strictConflict = false;
};

struct DBFILESUploadArg {
  DBFILESCommitInfo commit;
  std::optional<std::string> contentHash;
};

struct DBFILESUploadSessionStartResult {
  std::string sessionId;
};

struct DBFILESUploadSessionCursor {
  std::string sessionId;
  uint64_t offset = 0;
};

struct DBFILESUploadSessionFinishArg {
  DBFILESUploadSessionCursor cursor;
  DBFILESCommitInfo commit;
};

// One entry of a finished batch (closed union).
struct DBFILESUploadSessionFinishBatchResultEntry {
  enum class Tag : int { kSuccess, kFailure };
  Tag tag = Tag::kFailure;
  std::optional<DBFILESFileMetadata> success;
  std::optional<DBFILESUploadSessionFinishError> failure;
  [[nodiscard]] bool isSuccess() const { return tag == Tag::kSuccess; }
  [[nodiscard]] bool isFailure() const { return tag == Tag::kFailure; }
  [[nodiscard]] std::string tagName() const;
};

struct DBFILESUploadSessionFinishBatchResult {
  std::vector<DBFILESUploadSessionFinishBatchResultEntry> entries;
};

// finish_batch (v1): a job id, or (rarely) the finished result at once.
struct DBFILESUploadSessionFinishBatchLaunch {
  enum class Tag : int { kAsyncJobId, kComplete, kOther };
  Tag tag = Tag::kOther;
  std::string asyncJobId;
  std::optional<DBFILESUploadSessionFinishBatchResult> complete;
  [[nodiscard]] bool isAsyncJobId() const { return tag == Tag::kAsyncJobId; }
  [[nodiscard]] bool isComplete() const { return tag == Tag::kComplete; }
};

// finish_batch/check (closed union).
struct DBFILESUploadSessionFinishBatchJobStatus {
  enum class Tag : int { kInProgress, kComplete };
  Tag tag = Tag::kInProgress;
  std::optional<DBFILESUploadSessionFinishBatchResult> complete;
  [[nodiscard]] bool isInProgress() const { return tag == Tag::kInProgress; }
  [[nodiscard]] bool isComplete() const { return tag == Tag::kComplete; }
};

// ---- download, download_zip ----

struct DBFILESDownloadZipResult {
  DBFILESFolderMetadata metadata;
};

// ---- delete_v2, delete_batch ----

struct DBFILESDeleteArg {
  std::string path;
  std::optional<std::string> parentRev;
};

struct DBFILESDeleteResult {
  DBFILESMetadataRef metadata;  // never null in a decoded result
};

struct DBFILESDeleteBatchResultEntry {
  enum class Tag : int { kSuccess, kFailure };
  Tag tag = Tag::kFailure;
  DBFILESMetadataRef success;  // DeleteBatchResultData.metadata
  std::optional<DBFILESDeleteError> failure;
  [[nodiscard]] bool isSuccess() const { return tag == Tag::kSuccess; }
  [[nodiscard]] bool isFailure() const { return tag == Tag::kFailure; }
};

struct DBFILESDeleteBatchResult {
  std::vector<DBFILESDeleteBatchResultEntry> entries;
};

struct DBFILESDeleteBatchLaunch {
  enum class Tag : int { kAsyncJobId, kComplete, kOther };
  Tag tag = Tag::kOther;
  std::string asyncJobId;
  std::optional<DBFILESDeleteBatchResult> complete;
  [[nodiscard]] bool isAsyncJobId() const { return tag == Tag::kAsyncJobId; }
  [[nodiscard]] bool isComplete() const { return tag == Tag::kComplete; }
};

struct DBFILESDeleteBatchJobStatus {
  enum class Tag : int { kInProgress, kComplete, kFailed, kOther };
  Tag tag = Tag::kOther;
  std::optional<DBFILESDeleteBatchResult> complete;
  std::optional<DBFILESDeleteBatchError> failed;
  [[nodiscard]] bool isInProgress() const { return tag == Tag::kInProgress; }
  [[nodiscard]] bool isComplete() const { return tag == Tag::kComplete; }
  [[nodiscard]] bool isFailed() const { return tag == Tag::kFailed; }
};

}  // namespace wdc::dbx
