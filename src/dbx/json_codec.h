// JSON encoding of route arguments and decoding of route results and errors. Server answers are
// untrusted: every decoder checks presence and type of each field it reads and answers absent
// (never throws) when the value does not have the shape the API publishes. Unknown fields are
// ignored; unknown tags of open unions decode as their `other` member.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "dbx/metadata.h"
#include "dbx/route_errors.h"
#include "dbx/route_types.h"

namespace wdc::dbx::json {

using Json = nlohmann::json;

// Parses `text` as one JSON value; absent on any syntax error, trailing garbage or nesting
// deeper than `kMaxDepth`.
inline constexpr int kMaxDepth = 64;
[[nodiscard]] std::optional<Json> parse(std::string_view text);

// Serialises for a Dropbox-API-Arg header: compact, every character from U+007F up written as a
// \uXXXX escape (surrogate pairs beyond the BMP), so the header stays 7-bit clean.
[[nodiscard]] std::string headerSafe(const Json& value);

// ---- decoders: absent when `value` does not have the published shape ----
// Each decoder has the form  bool decode(const Json&, T& out)  and leaves `out` unspecified on
// failure. `decodeAs<T>` wraps one for the string-level entry points.
bool decode(const Json& value, DBVoid& out);
bool decode(const Json& value, DBUSERSFullAccount& out);
bool decode(const Json& value, DBFILESMetadataRef& out);  // with ".tag" file/folder/deleted
bool decode(const Json& value, DBFILESFileMetadata& out);  // without ".tag"
bool decode(const Json& value, DBFILESFolderMetadata& out);
bool decode(const Json& value, DBFILESListFolderResult& out);
bool decode(const Json& value, DBFILESListFolderLongpollResult& out);
bool decode(const Json& value, DBFILESSearchResult& out);  // search_v2 or classic search shape
bool decode(const Json& value, DBFILESCreateFolderResult& out);
bool decode(const Json& value, DBFILESUploadSessionStartResult& out);
bool decode(const Json& value, DBFILESUploadSessionFinishBatchResult& out);
bool decode(const Json& value, DBFILESUploadSessionFinishBatchLaunch& out);
bool decode(const Json& value, DBFILESUploadSessionFinishBatchJobStatus& out);
bool decode(const Json& value, DBFILESDownloadZipResult& out);
bool decode(const Json& value, DBFILESDeleteResult& out);
bool decode(const Json& value, DBFILESDeleteBatchLaunch& out);
bool decode(const Json& value, DBFILESDeleteBatchJobStatus& out);

bool decode(const Json& value, DBFILESLookupError& out);
bool decode(const Json& value, DBFILESWriteConflictError& out);
bool decode(const Json& value, DBFILESWriteError& out);
bool decode(const Json& value, DBFILESListFolderError& out);
bool decode(const Json& value, DBFILESListFolderContinueError& out);
bool decode(const Json& value, DBFILESSearchError& out);
bool decode(const Json& value, DBFILESCreateFolderError& out);
bool decode(const Json& value, DBFILESUploadError& out);
bool decode(const Json& value, DBFILESUploadSessionStartError& out);
bool decode(const Json& value, DBFILESUploadSessionAppendError& out);
bool decode(const Json& value, DBFILESUploadSessionLookupError& out);
bool decode(const Json& value, DBFILESUploadSessionFinishError& out);
bool decode(const Json& value, DBFILESDownloadError& out);
bool decode(const Json& value, DBFILESDownloadZipError& out);
bool decode(const Json& value, DBFILESDeleteError& out);
bool decode(const Json& value, DBFILESDeleteBatchError& out);
bool decode(const Json& value, DBASYNCPollError& out);
bool decode(const Json& value, DBAUTHTokenFromOAuth1Error& out);

template <typename T>
std::optional<T> decodeAs(const Json& value) {
  T out{};
  if (!decode(value, out)) return std::nullopt;
  return out;
}
template <typename T>
std::optional<T> decodeText(std::string_view text) {
  auto value = parse(text);
  if (!value) return std::nullopt;
  return decodeAs<T>(*value);
}

// ---- encoders of route arguments ----
Json encode(const DBFILESListFolderArg& arg);
Json encodeSearchV2(const DBFILESSearchArg& arg);
Json encode(const DBFILESCommitInfo& commit);
Json encode(const DBFILESUploadArg& arg);
Json encode(const DBFILESUploadSessionCursor& cursor);
Json encode(const std::vector<DBFILESUploadSessionFinishArg>& entries);
Json encode(const std::vector<DBFILESDeleteArg>& entries);

}  // namespace wdc::dbx::json
