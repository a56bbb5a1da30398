// The folder records and their life cycle. One mutex and one condition variable guard the whole
// map: warms are rare and long, lookups short, so a finer scheme would buy nothing. Every change
// of state broadcasts, and waiters re-read their folder's record after each wake-up, because
// markFolder or reset may have replaced or dropped it meanwhile. Records are compared by
// identity: a warm that finds a different record on return knows it has been overtaken.
#include "webdavconnect/zip_snapshot.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/env.h"
#include "snapshot/zip_extractor.h"
#include "util/unicode_case.h"

namespace wdc {
namespace {

namespace fs = std::filesystem;

constexpr uint64_t kMinimumExpectedCount = 25;
constexpr const char* kSnapshotsDirectoryName = "WebDAVDropboxZipSnapshots";

// The last component of a slash-separated path, trailing slashes ignored: "a/b/" -> "b".
std::string_view lastPathComponent(std::string_view path) {
  const size_t end = path.find_last_not_of('/');
  if (end == std::string_view::npos) return path.empty() ? path : path.substr(0, 1);
  path = path.substr(0, end + 1);
  const size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

// Deletion failures are ignored: a leftover directory in the temporary area harms nobody.
void removeDirectory(const std::optional<std::string>& path) {
  if (!path || path->empty()) return;
  std::error_code ec;
  fs::remove_all(*path, ec);
}

// Creates `root` when missing and makes sure it is a real directory of ours that nobody else may
// write to. In a shared /tmp another user could otherwise swap an extraction directory for a
// link while we write into it.
bool isPrivateDirectory(const fs::path& root) {
  std::error_code ec;
  fs::create_directories(root, ec);
  struct stat info {};
  if (::lstat(root.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != ::geteuid()) {
    return false;
  }
  return (info.st_mode & 077) == 0 || ::chmod(root.c_str(), 0700) == 0;
}

}  // namespace

WebDAVDropboxZipSnapshot::WebDAVDropboxZipSnapshot(WebDAVZipExtractionLimits limits)
    : limits_(limits) {}

WebDAVDropboxZipSnapshot& WebDAVDropboxZipSnapshot::sharedSnapshot() {
  static auto* shared = new WebDAVDropboxZipSnapshot();
  return *shared;
}

std::string WebDAVDropboxZipSnapshot::normalizedFolder(std::string_view folder) {
  const size_t first = folder.find_first_not_of('/');
  if (first == std::string_view::npos) return {};
  const size_t last = folder.find_last_not_of('/');
  return lowercaseUnicode(folder.substr(first, last - first + 1));
}

bool WebDAVDropboxZipSnapshot::markFolder(std::string_view folder,
                                          uint64_t pendingWithExpectedCount) {
  if (pendingWithExpectedCount < kMinimumExpectedCount) return false;
  std::string key = normalizedFolder(folder);
  if (key.empty()) return false;
  auto fresh = std::make_shared<WebDAVDropboxZipFolderSnapshot>();
  std::optional<std::string> oldExtraction;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    Record& slot = folders_[std::move(key)];
    if (slot) oldExtraction = slot->extractionPath;
    slot = std::move(fresh);
    condition_.notify_all();
  }
  removeDirectory(oldExtraction);
  return true;
}

bool WebDAVDropboxZipSnapshot::folder(std::string_view folder, unsigned hasState) const {
  const std::string key = normalizedFolder(folder);
  std::lock_guard<std::mutex> lock(mutex_);
  const auto it = folders_.find(key);
  return it != folders_.end() && it->second->state == hasState;
}

bool WebDAVDropboxZipSnapshot::isFolderPending(std::string_view folder) const {
  return this->folder(folder, WebDAVDropboxZipFolderSnapshot::kStatePending);
}
bool WebDAVDropboxZipSnapshot::isFolderReady(std::string_view folder) const {
  return this->folder(folder, WebDAVDropboxZipFolderSnapshot::kStateReady);
}
bool WebDAVDropboxZipSnapshot::isFolderFailed(std::string_view folder) const {
  return this->folder(folder, WebDAVDropboxZipFolderSnapshot::kStateFailed);
}

bool WebDAVDropboxZipSnapshot::warmPendingFolder(std::string_view folder,
                                                 const WebDAVZipProvider& usingZipProvider) {
  const std::string key = normalizedFolder(folder);
  Record record;
  {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      const auto it = folders_.find(key);
      record = it == folders_.end() ? nullptr : it->second;
      if (!record || !record->warming) break;
      condition_.wait(lock);
    }
    if (!record || record->state == WebDAVDropboxZipFolderSnapshot::kStateFailed) return false;
    if (record->state == WebDAVDropboxZipFolderSnapshot::kStateReady) return true;
    record->warming = true;
  }

  std::optional<std::string> zipPath;
  // A throwing provider must not leave the record warming for ever: its waiters would hang.
  try {
    if (usingZipProvider) zipPath = usingZipProvider();
  } catch (...) {
    zipPath.reset();
  }
  std::string extractionPath;
  WebDAVZipPayloadIndex index;
  const bool extracted =
      extractZipAtPath(zipPath.value_or(std::string()), key, &extractionPath, &index);

  bool current = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it = folders_.find(key);
    current = it != folders_.end() && it->second == record;
    if (current) {
      record->warming = false;
      if (extracted) {
        record->state = WebDAVDropboxZipFolderSnapshot::kStateReady;
        record->extractionPath = extractionPath;
        record->payloadPathsByLowercaseName = std::move(index);
      } else {
        record->state = WebDAVDropboxZipFolderSnapshot::kStateFailed;
        record->extractionPath.reset();
        record->payloadPathsByLowercaseName.clear();
      }
    }
    condition_.notify_all();
  }
  if (!current || !extracted) {
    if (extracted) removeDirectory(extractionPath);
    return false;
  }
  return true;
}

bool WebDAVDropboxZipSnapshot::warmFolder(std::string_view folder,
                                          const std::string& fromZipAtPath) {
  return warmPendingFolder(folder, [&fromZipAtPath] { return fromZipAtPath; });
}

bool WebDAVDropboxZipSnapshot::extractZipAtPath(const std::string& zipPath,
                                                std::string_view /*forFolder*/,
                                                std::string* extractionPath,
                                                WebDAVZipPayloadIndex* payloadPaths) const {
  if (zipPath.empty() || ::access(zipPath.c_str(), R_OK) != 0) return false;
  Env& env = Env::current();
  const fs::path root = env.temporaryDirectory() / kSnapshotsDirectoryName;
  if (!isPrivateDirectory(root)) return false;
  const fs::path directory = root / env.newUUID();
  std::error_code ec;
  // A directory that already exists is not ours to fill.
  if (!fs::create_directory(directory, ec) || ec) return false;

  if (!extractZipFile(zipPath, directory, limits_, nullptr)) {
    fs::remove_all(directory, ec);
    return false;
  }
  WebDAVZipPayloadIndex index = indexExtractedFiles(directory);
  if (index.empty()) {
    fs::remove_all(directory, ec);
    return false;
  }
  if (extractionPath != nullptr) *extractionPath = directory.string();
  if (payloadPaths != nullptr) *payloadPaths = std::move(index);
  return true;
}

std::optional<std::string> WebDAVDropboxZipSnapshot::payloadPathForFile(
    std::string_view file, std::string_view inFolder) const {
  const std::string key = normalizedFolder(inFolder);
  const std::string name = lowercaseUnicode(lastPathComponent(file));
  std::lock_guard<std::mutex> lock(mutex_);
  const auto it = folders_.find(key);
  if (it == folders_.end() || it->second->state != WebDAVDropboxZipFolderSnapshot::kStateReady) {
    return std::nullopt;
  }
  const auto& index = it->second->payloadPathsByLowercaseName;
  const auto hit = index.find(name);
  if (hit == index.end()) return std::nullopt;
  return hit->second;
}

std::size_t WebDAVDropboxZipSnapshot::indexedEntryCountForFolder(std::string_view folder) const {
  const std::string key = normalizedFolder(folder);
  std::lock_guard<std::mutex> lock(mutex_);
  const auto it = folders_.find(key);
  if (it == folders_.end() || it->second->state != WebDAVDropboxZipFolderSnapshot::kStateReady) {
    return 0;
  }
  return it->second->payloadPathsByLowercaseName.size();
}

void WebDAVDropboxZipSnapshot::reset() {
  std::vector<std::optional<std::string>> directories;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    directories.reserve(folders_.size());
    for (const auto& [name, record] : folders_) directories.push_back(record->extractionPath);
    folders_.clear();
    condition_.notify_all();
  }
  for (const auto& directory : directories) removeDirectory(directory);
}

}  // namespace wdc
