// Wire names of every union tag, indexed by the numeric value of the union's Tag enum (the API's
// declaration order). The decoders map names to tags with these tables and tagName() maps back.
#pragma once

#include <array>
#include <optional>
#include <string_view>

namespace wdc::dbx::tags {

inline constexpr std::array<std::string_view, 8> kLookupError = {
    "malformed_path", "not_found", "not_file", "not_folder", "restricted_content",
    "unsupported_content_type", "locked", "other"};
inline constexpr std::array<std::string_view, 4> kWriteConflictError = {"file", "folder",
                                                                         "file_ancestor", "other"};
inline constexpr std::array<std::string_view, 10> kWriteError = {
    "malformed_path", "conflict",           "no_write_permission",       "insufficient_space",
    "disallowed_name", "team_folder",       "operation_suppressed",      "too_many_write_operations",
    "access_restricted", "other"};
inline constexpr std::array<std::string_view, 3> kListFolderError = {"path", "template_error",
                                                                      "other"};
inline constexpr std::array<std::string_view, 3> kListFolderContinueError = {"path", "reset",
                                                                              "other"};
inline constexpr std::array<std::string_view, 4> kSearchError = {"path", "invalid_argument",
                                                                  "internal_error", "other"};
inline constexpr std::array<std::string_view, 1> kCreateFolderError = {"path"};
inline constexpr std::array<std::string_view, 6> kUploadError = {
    "path", "properties_error", "payload_too_large", "content_hash_mismatch",
    "encryption_not_supported", "other"};
inline constexpr std::array<std::string_view, 5> kUploadSessionStartError = {
    "concurrent_session_data_not_allowed", "concurrent_session_close_not_allowed",
    "payload_too_large", "content_hash_mismatch", "other"};
inline constexpr std::array<std::string_view, 9> kUploadSessionAppendError = {
    "not_found",
    "incorrect_offset",
    "closed",
    "too_large",
    "concurrent_session_invalid_offset",
    "concurrent_session_invalid_data_size",
    "payload_too_large",
    "content_hash_mismatch",
    "other"};
inline constexpr std::array<std::string_view, 9> kUploadSessionLookupError = {
    "not_found",
    "incorrect_offset",
    "closed",
    "not_closed",
    "too_large",
    "concurrent_session_invalid_offset",
    "concurrent_session_invalid_data_size",
    "payload_too_large",
    "other"};
inline constexpr std::array<std::string_view, 12> kUploadSessionFinishError = {
    "lookup_failed",
    "path",
    "properties_error",
    "too_many_shared_folder_targets",
    "too_many_write_operations",
    "concurrent_session_data_not_allowed",
    "concurrent_session_not_closed",
    "concurrent_session_missing_data",
    "payload_too_large",
    "content_hash_mismatch",
    "encryption_not_supported",
    "other"};
inline constexpr std::array<std::string_view, 3> kDownloadError = {"path", "unsupported_file",
                                                                    "other"};
inline constexpr std::array<std::string_view, 4> kDownloadZipError = {"path", "too_large",
                                                                       "too_many_files", "other"};
inline constexpr std::array<std::string_view, 5> kDeleteError = {
    "path_lookup", "path_write", "too_many_write_operations", "too_many_files", "other"};
inline constexpr std::array<std::string_view, 2> kDeleteBatchError = {"too_many_write_operations",
                                                                       "other"};
inline constexpr std::array<std::string_view, 3> kPollError = {"invalid_async_job_id",
                                                                "internal_error", "other"};
inline constexpr std::array<std::string_view, 3> kTokenFromOAuth1Error = {
    "invalid_oauth1_token_info", "app_id_mismatch", "other"};
inline constexpr std::array<std::string_view, 2> kResultEntry = {"success", "failure"};
inline constexpr std::array<std::string_view, 3> kBatchLaunch = {"async_job_id", "complete",
                                                                  "other"};
inline constexpr std::array<std::string_view, 2> kFinishBatchJobStatus = {"in_progress",
                                                                           "complete"};
inline constexpr std::array<std::string_view, 4> kDeleteBatchJobStatus = {
    "in_progress", "complete", "failed", "other"};
inline constexpr std::array<std::string_view, 3> kWriteMode = {"add", "overwrite", "update"};
inline constexpr std::array<std::string_view, 3> kSearchMatchType = {"filename", "content", "both"};

// The index of `name` in `names`; for an open union (last name "other") an unknown name maps to
// that last index, for a closed one it is absent.
template <std::size_t N>
std::optional<int> indexOf(const std::array<std::string_view, N>& names, std::string_view name) {
  for (std::size_t i = 0; i < N; ++i) {
    if (names[i] == name) return static_cast<int>(i);
  }
  if (names[N - 1] == "other") return static_cast<int>(N - 1);
  return std::nullopt;
}

template <std::size_t N, typename Tag>
std::string_view nameOf(const std::array<std::string_view, N>& names, Tag tag) {
  auto index = static_cast<std::size_t>(tag);
  return index < N ? names[index] : std::string_view("other");
}

}  // namespace wdc::dbx::tags
