// Decoders and encoders of the Dropbox JSON shapes. Field access goes through small helpers that
// check type before reading, so no nlohmann exception can escape on hostile input.
#include "dbx/json_codec.h"

#include "dbx/tag_names.h"

namespace wdc::dbx::json {
namespace {

const Json* field(const Json& object, std::string_view key) {
  if (!object.is_object()) return nullptr;
  auto it = object.find(key);
  if (it == object.end() || it->is_null()) return nullptr;
  return &*it;
}

bool getString(const Json& object, std::string_view key, std::string& out) {
  const Json* v = field(object, key);
  if (v == nullptr || !v->is_string()) return false;
  out = v->get_ref<const std::string&>();
  return true;
}

// Absent is fine; present with the wrong type is not.
bool getOptString(const Json& object, std::string_view key, std::optional<std::string>& out) {
  const Json* v = field(object, key);
  if (v == nullptr) {
    out.reset();
    return true;
  }
  if (!v->is_string()) return false;
  out = v->get_ref<const std::string&>();
  return true;
}

bool getBool(const Json& object, std::string_view key, bool& out, std::optional<bool> fallback) {
  const Json* v = field(object, key);
  if (v == nullptr) {
    if (!fallback) return false;
    out = *fallback;
    return true;
  }
  if (!v->is_boolean()) return false;
  out = v->get<bool>();
  return true;
}

bool getUInt(const Json& object, std::string_view key, uint64_t& out,
             std::optional<uint64_t> fallback = std::nullopt) {
  const Json* v = field(object, key);
  if (v == nullptr) {
    if (!fallback) return false;
    out = *fallback;
    return true;
  }
  if (!v->is_number_unsigned()) return false;
  out = v->get<uint64_t>();
  return true;
}

bool getTimestamp(const Json& object, std::string_view key, DBTimestamp& out) {
  std::string text;
  if (!getString(object, key, text)) return false;
  auto parsed = parseTimestamp(text);
  if (!parsed) return false;
  out = *parsed;
  return true;
}

bool getOptTimestamp(const Json& object, std::string_view key, std::optional<DBTimestamp>& out) {
  out.reset();
  if (field(object, key) == nullptr) return true;
  DBTimestamp parsed;
  if (!getTimestamp(object, key, parsed)) return false;
  out = parsed;
  return true;
}

// The ".tag" of a union value. Requests may use a bare string for void members; answers from
// the server always use the object form, but both are accepted.
std::optional<std::string> tagOf(const Json& value) {
  if (value.is_string()) return value.get<std::string>();
  std::string tag;
  if (!getString(value, ".tag", tag)) return std::nullopt;
  return tag;
}

template <typename Tag, std::size_t N>
bool decodeTag(const Json& value, const std::array<std::string_view, N>& names, Tag& out) {
  auto tag = tagOf(value);
  if (!tag) return false;
  auto index = tags::indexOf(names, *tag);
  if (!index) return false;
  out = static_cast<Tag>(*index);
  return true;
}

// A member whose value is a union or primitive sits under a key named after its tag.
template <typename T>
bool nested(const Json& value, std::string_view key, std::optional<T>& out) {
  const Json* v = field(value, key);
  if (v == nullptr) return false;
  T inner{};
  if (!decode(*v, inner)) return false;
  out = std::move(inner);
  return true;
}

bool decodeCommon(const Json& value, DBFILESMetadata& out) {
  return value.is_object() && getString(value, "name", out.name) &&
         getOptString(value, "path_lower", out.pathLower) &&
         getOptString(value, "path_display", out.pathDisplay) &&
         getOptString(value, "parent_shared_folder_id", out.parentSharedFolderId);
}

bool decodeSearchMatchV1(const Json& value, DBFILESSearchMatch& out) {
  const Json* type = field(value, "match_type");
  if (type != nullptr && !decodeTag(*type, tags::kSearchMatchType, out.matchType)) return false;
  const Json* metadata = field(value, "metadata");
  return metadata != nullptr && decode(*metadata, out.metadata);
}

bool decodeSearchMatchV2(const Json& value, DBFILESSearchMatch& out) {
  // MetadataV2 is an open union with the single member "metadata"; other members carry nothing
  // this client can use and fail the match.
  const Json* wrapper = field(value, "metadata");
  if (wrapper == nullptr) return false;
  auto tag = tagOf(*wrapper);
  if (!tag || *tag != "metadata") return false;
  const Json* metadata = field(*wrapper, "metadata");
  if (metadata == nullptr || !decode(*metadata, out.metadata)) return false;
  out.matchType = DBFILESSearchMatch::MatchType::kFilename;
  if (const Json* type = field(value, "match_type")) {
    auto name = tagOf(*type);
    if (!name) return false;
    if (*name == "file_content") out.matchType = DBFILESSearchMatch::MatchType::kContent;
    if (*name == "filename_and_content") out.matchType = DBFILESSearchMatch::MatchType::kBoth;
  }
  return true;
}

bool decodeEntries(const Json& value, std::vector<DBFILESUploadSessionFinishBatchResultEntry>& out) {
  const Json* list = field(value, "entries");
  if (list == nullptr || !list->is_array()) return false;
  out.clear();
  for (const Json& item : *list) {
    DBFILESUploadSessionFinishBatchResultEntry entry;
    if (!decodeTag(item, tags::kResultEntry, entry.tag)) return false;
    if (entry.isSuccess()) {
      DBFILESFileMetadata metadata;
      if (!decode(item, metadata)) return false;
      entry.success = std::move(metadata);
    } else if (!nested(item, "failure", entry.failure)) {
      return false;
    }
    out.push_back(std::move(entry));
  }
  return true;
}

bool decodeEntries(const Json& value, std::vector<DBFILESDeleteBatchResultEntry>& out) {
  const Json* list = field(value, "entries");
  if (list == nullptr || !list->is_array()) return false;
  out.clear();
  for (const Json& item : *list) {
    DBFILESDeleteBatchResultEntry entry;
    if (!decodeTag(item, tags::kResultEntry, entry.tag)) return false;
    if (entry.isSuccess()) {
      const Json* metadata = field(item, "metadata");
      if (metadata == nullptr || !decode(*metadata, entry.success)) return false;
    } else if (!nested(item, "failure", entry.failure)) {
      return false;
    }
    out.push_back(std::move(entry));
  }
  return true;
}

// Depth of the deepest nesting in `text`, counted outside strings; stops early past `limit`.
bool withinDepth(std::string_view text, int limit) {
  int depth = 0;
  bool inString = false;
  bool escaped = false;
  for (char c : text) {
    if (inString) {
      if (escaped) {
        escaped = false;
      } else if (c == '\\') {
        escaped = true;
      } else if (c == '"') {
        inString = false;
      }
      continue;
    }
    if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > limit) return false;
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return true;
}

}  // namespace

std::optional<Json> parse(std::string_view text) {
  if (!withinDepth(text, kMaxDepth)) return std::nullopt;
  Json value = Json::parse(text.begin(), text.end(), nullptr, /*allow_exceptions=*/false);
  if (value.is_discarded()) return std::nullopt;
  return value;
}

std::string headerSafe(const Json& value) {
  std::string text = value.dump(-1, ' ', /*ensure_ascii=*/true, Json::error_handler_t::replace);
  // ensure_ascii leaves DEL (0x7F) raw; the header rule wants it escaped too. It can only occur
  // inside a string, where the escape means the same character.
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    if (c == '\x7f') {
      out += "\\u007f";
    } else {
      out += c;
    }
  }
  return out;
}

// ---- results ----

bool decode(const Json& value, DBVoid&) { return value.is_null() || value.is_object(); }

bool decode(const Json& value, DBUSERSFullAccount& out) {
  const Json* name = field(value, "name");
  if (name == nullptr || !getString(value, "account_id", out.accountId) ||
      !getOptString(*name, "display_name", out.name.displayName)) {
    return false;
  }
  // The remaining name parts and account fields are informational; wrong types still fail.
  std::optional<std::string> text;
  auto optional = [&](const Json& object, std::string_view key, std::string& target) {
    if (!getOptString(object, key, text)) return false;
    target = text.value_or("");
    return true;
  };
  if (!optional(*name, "given_name", out.name.givenName) ||
      !optional(*name, "surname", out.name.surname) ||
      !optional(*name, "familiar_name", out.name.familiarName) ||
      !optional(*name, "abbreviated_name", out.name.abbreviatedName) ||
      !optional(value, "email", out.email) || !optional(value, "locale", out.locale) ||
      !getBool(value, "email_verified", out.emailVerified, false) ||
      !getBool(value, "disabled", out.disabled, false) ||
      !getOptString(value, "country", out.country)) {
    return false;
  }
  if (const Json* type = field(value, "account_type")) {
    auto tag = tagOf(*type);
    if (!tag) return false;
    out.accountType = *tag;
  }
  return true;
}

bool decode(const Json& value, DBFILESFileMetadata& out) {
  return decodeCommon(value, out) && getString(value, "id", out.id) &&
         getOptTimestamp(value, "client_modified", out.clientModified) &&
         getTimestamp(value, "server_modified", out.serverModified) &&
         getString(value, "rev", out.rev) && getUInt(value, "size", out.size) &&
         getBool(value, "is_downloadable", out.isDownloadable, true) &&
         getOptString(value, "content_hash", out.contentHash);
}

bool decode(const Json& value, DBFILESFolderMetadata& out) {
  return decodeCommon(value, out) && getString(value, "id", out.id);
}

bool decode(const Json& value, DBFILESMetadataRef& out) {
  auto tag = tagOf(value);
  if (!tag || !value.is_object()) return false;
  if (*tag == "file") {
    auto file = std::make_shared<DBFILESFileMetadata>();
    if (!decode(value, *file)) return false;
    out = std::move(file);
  } else if (*tag == "folder") {
    auto folder = std::make_shared<DBFILESFolderMetadata>();
    if (!decode(value, *folder)) return false;
    out = std::move(folder);
  } else if (*tag == "deleted") {
    auto deleted = std::make_shared<DBFILESDeletedMetadata>();
    if (!decodeCommon(value, *deleted)) return false;
    out = std::move(deleted);
  } else {
    return false;
  }
  return true;
}

bool decode(const Json& value, DBFILESListFolderResult& out) {
  const Json* entries = field(value, "entries");
  if (entries == nullptr || !entries->is_array()) return false;
  out.entries.clear();
  out.entries.reserve(entries->size());
  for (const Json& item : *entries) {
    DBFILESMetadataRef entry;
    if (!decode(item, entry)) return false;
    out.entries.push_back(std::move(entry));
  }
  return getString(value, "cursor", out.cursor) && !out.cursor.empty() &&
         getBool(value, "has_more", out.hasMore, std::nullopt);
}

bool decode(const Json& value, DBFILESSearchResult& out) {
  const Json* matches = field(value, "matches");
  if (matches == nullptr || !matches->is_array()) return false;
  // search_v2 answers with has_more (and maybe a cursor); the classic route with more/start.
  const bool v2 = field(value, "has_more") != nullptr;
  out.matches.clear();
  out.matches.reserve(matches->size());
  for (const Json& item : *matches) {
    DBFILESSearchMatch match;
    if (!(v2 ? decodeSearchMatchV2(item, match) : decodeSearchMatchV1(item, match))) return false;
    out.matches.push_back(std::move(match));
  }
  if (v2) {
    out.start = out.matches.size();
    return getBool(value, "has_more", out.more, std::nullopt) &&
           getOptString(value, "cursor", out.cursor);
  }
  return getBool(value, "more", out.more, std::nullopt) && getUInt(value, "start", out.start);
}

bool decode(const Json& value, DBFILESCreateFolderResult& out) {
  const Json* metadata = field(value, "metadata");
  return metadata != nullptr && decode(*metadata, out.metadata);
}

bool decode(const Json& value, DBFILESUploadSessionStartResult& out) {
  return getString(value, "session_id", out.sessionId) && !out.sessionId.empty();
}

bool decode(const Json& value, DBFILESUploadSessionFinishBatchResult& out) {
  return decodeEntries(value, out.entries);
}

bool decode(const Json& value, DBFILESUploadSessionFinishBatchLaunch& out) {
  if (!decodeTag(value, tags::kBatchLaunch, out.tag)) return false;
  if (out.isAsyncJobId()) return getString(value, "async_job_id", out.asyncJobId);
  if (out.isComplete()) {
    DBFILESUploadSessionFinishBatchResult result;
    if (!decode(value, result)) return false;
    out.complete = std::move(result);
  }
  return true;
}

bool decode(const Json& value, DBFILESUploadSessionFinishBatchJobStatus& out) {
  if (!decodeTag(value, tags::kFinishBatchJobStatus, out.tag)) return false;
  if (out.isComplete()) {
    DBFILESUploadSessionFinishBatchResult result;
    if (!decode(value, result)) return false;
    out.complete = std::move(result);
  }
  return true;
}

bool decode(const Json& value, DBFILESDownloadZipResult& out) {
  const Json* metadata = field(value, "metadata");
  return metadata != nullptr && decode(*metadata, out.metadata);
}

bool decode(const Json& value, DBFILESDeleteResult& out) {
  const Json* metadata = field(value, "metadata");
  return metadata != nullptr && decode(*metadata, out.metadata);
}

bool decode(const Json& value, DBFILESDeleteBatchLaunch& out) {
  if (!decodeTag(value, tags::kBatchLaunch, out.tag)) return false;
  if (out.isAsyncJobId()) return getString(value, "async_job_id", out.asyncJobId);
  if (out.isComplete()) {
    DBFILESDeleteBatchResult result;
    if (!decodeEntries(value, result.entries)) return false;
    out.complete = std::move(result);
  }
  return true;
}

bool decode(const Json& value, DBFILESDeleteBatchJobStatus& out) {
  if (!decodeTag(value, tags::kDeleteBatchJobStatus, out.tag)) return false;
  if (out.isComplete()) {
    DBFILESDeleteBatchResult result;
    if (!decodeEntries(value, result.entries)) return false;
    out.complete = std::move(result);
  }
  if (out.isFailed()) return nested(value, "failed", out.failed);
  return true;
}

// ---- route errors ----

bool decode(const Json& value, DBFILESLookupError& out) {
  if (!decodeTag(value, tags::kLookupError, out.tag)) return false;
  if (out.tag == DBFILESLookupError::Tag::kMalformedPath && value.is_object()) {
    return getOptString(value, "malformed_path", out.malformedPath);
  }
  return true;
}

bool decode(const Json& value, DBFILESWriteConflictError& out) {
  return decodeTag(value, tags::kWriteConflictError, out.tag);
}

bool decode(const Json& value, DBFILESWriteError& out) {
  if (!decodeTag(value, tags::kWriteError, out.tag)) return false;
  if (out.tag == DBFILESWriteError::Tag::kMalformedPath && value.is_object()) {
    return getOptString(value, "malformed_path", out.malformedPath);
  }
  if (out.isConflict()) return nested(value, "conflict", out.conflict);
  return true;
}

bool decode(const Json& value, DBFILESListFolderError& out) {
  if (!decodeTag(value, tags::kListFolderError, out.tag)) return false;
  return !out.isPath() || nested(value, "path", out.path);
}

bool decode(const Json& value, DBFILESListFolderContinueError& out) {
  if (!decodeTag(value, tags::kListFolderContinueError, out.tag)) return false;
  return !out.isPath() || nested(value, "path", out.path);
}

bool decode(const Json& value, DBFILESSearchError& out) {
  if (!decodeTag(value, tags::kSearchError, out.tag)) return false;
  if (out.tag == DBFILESSearchError::Tag::kInvalidArgument && value.is_object()) {
    return getOptString(value, "invalid_argument", out.invalidArgument);
  }
  return !out.isPath() || nested(value, "path", out.path);
}

bool decode(const Json& value, DBFILESCreateFolderError& out) {
  if (!decodeTag(value, tags::kCreateFolderError, out.tag)) return false;
  std::optional<DBFILESWriteError> path;
  if (!nested(value, "path", path)) return false;
  out.path = std::move(*path);
  return true;
}

bool decode(const Json& value, DBFILESUploadError& out) {
  if (!decodeTag(value, tags::kUploadError, out.tag)) return false;
  if (!out.isPath()) return true;
  // UploadWriteFailed is a struct, so its fields sit beside the tag.
  std::string sessionId;
  if (!nested(value, "reason", out.pathReason) ||
      !getString(value, "upload_session_id", sessionId)) {
    return false;
  }
  out.uploadSessionId = std::move(sessionId);
  return true;
}

bool decode(const Json& value, DBFILESUploadSessionStartError& out) {
  return decodeTag(value, tags::kUploadSessionStartError, out.tag);
}

bool decode(const Json& value, DBFILESUploadSessionAppendError& out) {
  if (!decodeTag(value, tags::kUploadSessionAppendError, out.tag)) return false;
  if (out.tag == DBFILESUploadSessionAppendError::Tag::kIncorrectOffset) {
    uint64_t offset = 0;
    if (!getUInt(value, "correct_offset", offset)) return false;
    out.correctOffset = offset;
  }
  return true;
}

bool decode(const Json& value, DBFILESUploadSessionLookupError& out) {
  if (!decodeTag(value, tags::kUploadSessionLookupError, out.tag)) return false;
  if (out.tag == DBFILESUploadSessionLookupError::Tag::kIncorrectOffset) {
    uint64_t offset = 0;
    if (!getUInt(value, "correct_offset", offset)) return false;
    out.correctOffset = offset;
  }
  return true;
}

bool decode(const Json& value, DBFILESUploadSessionFinishError& out) {
  if (!decodeTag(value, tags::kUploadSessionFinishError, out.tag)) return false;
  using Tag = DBFILESUploadSessionFinishError::Tag;
  if (out.tag == Tag::kLookupFailed) return nested(value, "lookup_failed", out.lookupFailed);
  if (out.tag == Tag::kPath) return nested(value, "path", out.path);
  return true;
}

bool decode(const Json& value, DBFILESDownloadError& out) {
  if (!decodeTag(value, tags::kDownloadError, out.tag)) return false;
  return !out.isPath() || nested(value, "path", out.path);
}

bool decode(const Json& value, DBFILESDownloadZipError& out) {
  if (!decodeTag(value, tags::kDownloadZipError, out.tag)) return false;
  return !out.isPath() || nested(value, "path", out.path);
}

bool decode(const Json& value, DBFILESDeleteError& out) {
  if (!decodeTag(value, tags::kDeleteError, out.tag)) return false;
  if (out.isPathLookup()) return nested(value, "path_lookup", out.pathLookup);
  if (out.isPathWrite()) return nested(value, "path_write", out.pathWrite);
  return true;
}

bool decode(const Json& value, DBFILESDeleteBatchError& out) {
  return decodeTag(value, tags::kDeleteBatchError, out.tag);
}

bool decode(const Json& value, DBASYNCPollError& out) {
  return decodeTag(value, tags::kPollError, out.tag);
}

bool decode(const Json& value, DBAUTHTokenFromOAuth1Error& out) {
  return decodeTag(value, tags::kTokenFromOAuth1Error, out.tag);
}

// ---- encoders ----

Json encode(const DBFILESListFolderArg& arg) {
  Json out = {{"path", arg.path},
              {"recursive", arg.recursive},
              {"include_media_info", arg.includeMediaInfo},
              {"include_deleted", arg.includeDeleted},
              {"include_mounted_folders", arg.includeMountedFolders},
              {"include_non_downloadable_files", arg.includeNonDownloadableFiles}};
  if (arg.includeHasExplicitSharedMembers) {
    out["include_has_explicit_shared_members"] = *arg.includeHasExplicitSharedMembers;
  }
  if (arg.limit) out["limit"] = *arg.limit;
  return out;
}

Json encodeSearchV2(const DBFILESSearchArg& arg) {
  Json options = {{"max_results", arg.maxResults}, {"filename_only", true}};
  // search_v2 names the root by leaving the path out.
  if (!arg.path.empty()) options["path"] = arg.path;
  if (arg.mode == DBFILESSearchArg::Mode::kDeletedFilename) options["file_status"] = "deleted";
  if (arg.mode == DBFILESSearchArg::Mode::kFilenameAndContent) options["filename_only"] = false;
  return {{"query", arg.query}, {"options", options}};
}

Json encode(const DBFILESCommitInfo& commit) {
  Json mode = {{".tag", tags::kWriteMode[static_cast<int>(commit.mode.tag)]}};
  if (commit.mode.tag == DBFILESWriteMode::Tag::kUpdate) mode["update"] = commit.mode.update;
  Json out = {{"path", commit.path},
              {"mode", mode},
              {"autorename", commit.autorename},
              {"mute", commit.mute},
              {"strict_conflict", commit.strictConflict}};
  if (commit.clientModified) out["client_modified"] = formatTimestamp(*commit.clientModified);
  return out;
}

Json encode(const DBFILESUploadArg& arg) {
  Json out = encode(arg.commit);
  if (arg.contentHash) out["content_hash"] = *arg.contentHash;
  return out;
}

Json encode(const DBFILESUploadSessionCursor& cursor) {
  return {{"session_id", cursor.sessionId}, {"offset", cursor.offset}};
}

Json encode(const std::vector<DBFILESUploadSessionFinishArg>& entries) {
  Json list = Json::array();
  for (const auto& entry : entries) {
    list.push_back({{"cursor", encode(entry.cursor)}, {"commit", encode(entry.commit)}});
  }
  return {{"entries", list}};
}

Json encode(const std::vector<DBFILESDeleteArg>& entries) {
  Json list = Json::array();
  for (const auto& entry : entries) {
    Json item = {{"path", entry.path}};
    if (entry.parentRev) item["parent_rev"] = *entry.parentRev;
    list.push_back(item);
  }
  return {{"entries", list}};
}

}  // namespace wdc::dbx::json
