// The process-wide folder snapshot cache. A sync folder that holds many record files is fetched
// once as a ZIP archive of the whole folder; this cache extracts that archive into the temporary
// directory ("WebDAVDropboxZipSnapshots/<UUID>") and indexes the extracted files by lower-case
// file name, so that downloads from the folder are served from local disk.
//
// Each folder's record moves from absent to pending (markFolder), then, after one thread has
// fetched and extracted its ZIP (warmPendingFolder), to ready or failed. A failed folder is not
// retried until it is marked again; marking replaces a record in any state and deletes the old
// extraction. The cache knows nothing of where the ZIP comes from: a provider callback fetches it.
//
// Failures are silent here: no logging, no error values. A ZIP that cannot be read, holds no
// file, or breaks the safety rules (an entry outside the extraction directory, a link, more
// entries or bytes than the limits allow) leaves its folder failed and its directory deleted.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace wdc {

// Lower-case file name (last path component) to the full path of the extracted file.
using WebDAVZipPayloadIndex = std::unordered_map<std::string, std::string>;

// One folder's entry in the cache: a plain record without behaviour. Read and written only under
// the cache's lock.
struct WebDAVDropboxZipFolderSnapshot {
  static constexpr unsigned kStatePending = 0;
  static constexpr unsigned kStateReady = 1;
  static constexpr unsigned kStateFailed = 2;

  unsigned state = kStatePending;
  // True while one thread fetches and extracts this folder's ZIP; others wait for it.
  bool warming = false;
  // The directory holding the extracted files once ready; absent otherwise.
  std::optional<std::string> extractionPath;
  WebDAVZipPayloadIndex payloadPathsByLowercaseName;
};

// Bounds on what one archive may put on disk. Dropbox itself refuses folder archives of more
// than 10,000 entries, so the defaults only stop hostile or broken archives.
struct WebDAVZipExtractionLimits {
  // Entries of every kind (files and directories).
  uint64_t maxEntries = 20'000;
  // Sum of the extracted file sizes, counted as the data is written (headers may lie).
  uint64_t maxTotalBytes = uint64_t{2} << 30;
};

// Returns the local path of a ZIP archive of the folder, or nullopt when none could be had. The
// caller of warmPendingFolder owns that file: the cache never deletes it.
using WebDAVZipProvider = std::function<std::optional<std::string>()>;

// The cache. The library uses one instance, sharedSnapshot(); separate instances are independent
// (tests and tools may make their own). Folder arguments are normalized first (normalizedFolder).
// Thread-safe: any thread may call any operation. The lock is never held while the provider runs
// or while files are extracted or deleted.
class WebDAVDropboxZipSnapshot {
 public:
  explicit WebDAVDropboxZipSnapshot(WebDAVZipExtractionLimits limits = {});
  // Deletes nothing: extractions outlive the object unless reset() ran first.
  ~WebDAVDropboxZipSnapshot() = default;
  WebDAVDropboxZipSnapshot(const WebDAVDropboxZipSnapshot&) = delete;
  WebDAVDropboxZipSnapshot& operator=(const WebDAVDropboxZipSnapshot&) = delete;

  // The process-wide instance, created on first use and never destroyed.
  static WebDAVDropboxZipSnapshot& sharedSnapshot();

  // Leading and trailing "/" trimmed, then lower case (Unicode-aware): "/Tod/" -> "tod".
  [[nodiscard]] static std::string normalizedFolder(std::string_view folder);

  // Gives the folder a fresh pending record, replacing any record it had in any state, and
  // deletes the old record's extraction. Folders expecting fewer than 25 files are never
  // snapshotted: returns false for them, and for a folder that normalizes to "", changing nothing.
  bool markFolder(std::string_view folder, uint64_t pendingWithExpectedCount);

  // Whether the folder has a record in the given state (kStatePending, kStateReady, kStateFailed).
  [[nodiscard]] bool folder(std::string_view folder, unsigned hasState) const;
  [[nodiscard]] bool isFolderPending(std::string_view folder) const;
  [[nodiscard]] bool isFolderReady(std::string_view folder) const;
  [[nodiscard]] bool isFolderFailed(std::string_view folder) const;

  // Makes a pending folder ready: calls `usingZipProvider` (on this thread, outside the lock),
  // extracts the ZIP it names and indexes it. Returns whether the folder is ready afterwards.
  // A ready folder returns true and a failed or unmarked one false at once, without calling the
  // provider. While another thread warms the same folder this one waits (no time-out) and then
  // takes its result. If the folder is marked again or reset during the warm, the new record is
  // left alone, this extraction is deleted and the result is false.
  bool warmPendingFolder(std::string_view folder, const WebDAVZipProvider& usingZipProvider);
  // warmPendingFolder with a provider that returns `fromZipAtPath`.
  bool warmFolder(std::string_view folder, const std::string& fromZipAtPath);

  // Extracts the ZIP at `zipPath` into a new directory under the Env's temporary directory and
  // indexes every file in it. On success fills `extractionPath` and `payloadPaths` (each only when
  // non-null) and returns true; on failure deletes whatever it extracted and returns false. Does
  // not touch the cache's records. `forFolder` is accepted for callers' symmetry and not used.
  bool extractZipAtPath(const std::string& zipPath, std::string_view forFolder,
                        std::string* extractionPath, WebDAVZipPayloadIndex* payloadPaths) const;

  // Full path of the extracted file whose last path component matches that of `file`, ignoring
  // case, when the folder is ready; nullopt otherwise. The file may be deleted by a later
  // markFolder or reset, so read it soon.
  [[nodiscard]] std::optional<std::string> payloadPathForFile(std::string_view file,
                                                              std::string_view inFolder) const;

  // Number of indexed files of a ready folder; 0 for any other folder.
  [[nodiscard]] std::size_t indexedEntryCountForFolder(std::string_view folder) const;

  // Forgets every folder and deletes every extraction. Waiting warms wake up and return false.
  void reset();

 private:
  using Record = std::shared_ptr<WebDAVDropboxZipFolderSnapshot>;

  const WebDAVZipExtractionLimits limits_;

  // Guards folders_ and every record in it; broadcast on every state change.
  mutable std::mutex mutex_;
  std::condition_variable condition_;
  std::map<std::string, Record, std::less<>> folders_;
};

}  // namespace wdc
