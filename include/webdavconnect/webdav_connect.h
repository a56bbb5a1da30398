// WebDAVConnect: the one object through which a host's sync engine talks to its store. One per
// account and sync. The class's members are defined across several source files, one per
// operation family: src/core (construction, dispatch, rate-limit policy, retry loops),
// src/dropbox (the Dropbox backend), src/local (the local-folder backend), src/core/webdav_backend
// (the WebDAV backend, whose operations are empty).
//
// Operations declared here are implemented; families still being built are added with their code.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "webdavconnect/error.h"
#include "webdavconnect/file_contents.h"
#include "webdavconnect/file_metadata.h"
#include "webdavconnect/operation_queue.h"
#include "webdavconnect/plist_value.h"

namespace wdc {

namespace dbx {
class DBFILESMetadata;
struct DBRequestError;
class DBUserClient;
class DBFILESMetadata;
}  // namespace dbx

namespace detail {
// The library's own access to a connection's private call state (src/core).
struct ConnectionInternals;
}  // namespace detail

using FileList = std::vector<std::shared_ptr<WebDAVFileMetaData>>;

// The connection type that selects the Dropbox backend for the public operations.
inline constexpr uint64_t kConnectionTypeDropbox = 3;

// Per-connection state is not locked: one WebDAVConnect serves one sync at a time, from one thread
// at a time. Process-wide state (rate-limit cooldown, download slots, retry queue, snapshot cache)
// is shared by all connections and locked.
class WebDAVConnect : public std::enable_shared_from_this<WebDAVConnect> {
 public:
  // Stores the connection type and nothing else: `login` and `andPassword` are accepted and
  // discarded. Every other field starts empty, false or zero.
  WebDAVConnect(uint64_t connectionType, const std::optional<std::string>& login,
                const std::optional<std::string>& andPassword);
  static std::shared_ptr<WebDAVConnect> initWithConnectionType(
      uint64_t connectionType, const std::optional<std::string>& login,
      const std::optional<std::string>& andPassword);
  ~WebDAVConnect();
  WebDAVConnect(const WebDAVConnect&) = delete;
  // Between syncs: empties the process-wide folder snapshot cache (deleting its extractions) and
  // drops this connection's listing scratch. The Dropbox client and the cursor stay.
  void removeAllResources();
  WebDAVConnect& operator=(const WebDAVConnect&) = delete;

  // ---- Host-visible properties -------------------------------------------------------------
  uint64_t connectionType = 0;
  // The cursor the last delta listing left; pass it back as `usingCursor` to continue.
  std::optional<std::string> dropboxDeltaCursor;
  // Set by the delta listing when the host must discard its local copy.
  bool shouldResetLocalData = false;
  // The queue on which Dropbox answers are delivered. REQUIRES: never the thread that calls a
  // blocking operation of this connection.
  std::shared_ptr<OperationQueue> queueToUse;

  // ---- Public operations (src/core/public_operations.cpp) -------------------------------------
  // Each waits out the shared cooldown, requires connection type 3 (it keeps polling otherwise),
  // calls its Dropbox backend operation and retries a retryable failure: at most 10 attempts,
  // 0.5 s apart, or the rate-limit delay after a 429. The error is written only on failure.
  //
  // Threads: every operation that returns a result blocks the calling thread until the store has
  // answered (sleeping between attempts): call it from a host background thread, never on
  // `queueToUse`, where the client delivers its answers, and one at a time per connection. The
  // asynchronous forms (getContentsForFile with a retry limit, uploadFileWithObjects) return
  // without waiting for the store and run their completion exactly once, on the thread their
  // comment names; their retries run later on the shared retry queue.

  // The linked account's display name.
  std::optional<std::string> getAccountUsername(ErrorOut error = nullptr);

  // -- Sync lock, deletes and folders (src/core/public_lock_delete_operations.cpp)

  // The current sync lock: the last lock file (".tsl") the server's search lists in the root
  // folder, or null when there is none (then `error` is untouched). An error with code 0 ends the
  // operation at once, without a retry.
  std::shared_ptr<WebDAVFileMetaData> getCurrentLockFile(ErrorOut error = nullptr);
  // Takes the sync lock for `ownerIdentifier`: uploads "<owner>_<seconds since 1970>.tsl" to the
  // root folder and returns its record (`FilePath` = the lock name without ".tsl", `UID` = the
  // owner). See lockDirectoryDropbox for where the uploaded bytes are read from.
  std::shared_ptr<WebDAVFileMetaData> lockDirectory(const std::string& ownerIdentifier,
                                                    ErrorOut error = nullptr);
  // Removes the lock file named by `lockName` (the `FilePath` of a lock record). True only when
  // the server confirms it deleted that very file; false without an error when it was not there.
  bool unlockDirectory(const std::string& lockName, ErrorOut error = nullptr);
  // Deletes `paths` (host paths, resolved like folder paths) in one polled batch. Entries that
  // are not found, not a file or not a folder do not fail the batch. Reports differently from
  // the other operations: with `error`, every failed attempt stores the batch's error there and
  // the result is true exactly when the last attempt had none; without `error`, one attempt only.
  bool deleteArbitraryFiles(const std::vector<std::string>& paths, ErrorOut error = nullptr);
  // Deletes `name` in `inFolder`. True only when the server confirms it deleted that path; a
  // file that was not there gives false and leaves `error` untouched.
  bool deleteArbitraryFile(const std::optional<std::string>& name,
                           const std::optional<std::string>& inFolder, ErrorOut error = nullptr);
  // Deletes, in one batch, what the server's name search for `pattern` lists under `inFolder`
  // (any depth, partial name matches included, at most the search's 100 results). Search names
  // each match by its whole lower-case path and that path is joined under `inFolder` again, so:
  // with the root folder ("" or absent) every match is deleted; with a named folder the joined
  // path ("Tasks" + "/tasks/a.tod" -> "/Tasks/tasks/a.tod") normally names nothing, nothing is
  // deleted and the call still succeeds (entries not found do not fail a batch). Only a failed
  // search is retried and reported in `error`; a failed batch gives false at once, `error`
  // untouched.
  bool deleteFilesThatMatch(const std::string& pattern, const std::optional<std::string>& inFolder,
                            ErrorOut error = nullptr);
  // Deletes the folder `path` with everything in it. True only when the server confirms it.
  bool deleteFolder(const std::optional<std::string>& path, ErrorOut error = nullptr);

  // -- Read path: delta listing (src/core/public_delta_operations.cpp)

  // The record files of `fromPath` (and, when given, of one extension) from the change feed:
  // getDeltaFileListFromDropbox inside the retry loop. A retried fetch starts again from
  // `usingCursor`, so a failure in the middle of a listing loses and repeats nothing. Absent on
  // failure; an empty list is a success.
  std::optional<FileList> getDeltaFileList(ErrorOut error,
                                           const std::optional<std::string>& fromPath,
                                           const std::optional<std::string>& usingCursor,
                                           const std::optional<std::string>& withExtension,
                                           bool canUseCachedResult);

  // -- Read path: downloads (src/core/public_download_operations.cpp)

  // What an asynchronous download hands back: the contents, or none and the error.
  using ContentsCompletion =
      std::function<void(std::shared_ptr<WebDAVFileContents> contents, std::optional<Error> error)>;

  // One record's metadata with its decoded payload (getContentsForDropboxFile in the retry loop).
  std::shared_ptr<WebDAVFileContents> getContentsForFile(
      const std::shared_ptr<WebDAVFileMetaData>& file, const std::optional<std::string>& inFolder,
      ErrorOut error = nullptr);
  // The object stored under `name` by uploadArbitraryFile (downloadArbitraryFileFromDropbox in the
  // retry loop).
  std::optional<PlistValue> downloadArbitraryFile(const std::optional<std::string>& name,
                                                  const std::optional<std::string>& fromFolder,
                                                  ErrorOut error = nullptr);
  // Asynchronous record download: no cooldown wait or type test up front (the download itself
  // waits for a slot and the cooldown). A retryable failure is tried again, up to
  // `withRetryLimit` passes in all, on the shared retry queue (after the rate-limit delay for a
  // 429, which also opens the shared cooldown). The connection is held weakly while a retry is
  // pending: if it is gone by then, the completion gets the failed attempt's error. The
  // completion runs exactly once, on `queueToUse` after a download or on the calling thread
  // after a folder snapshot hit.
  void getContentsForFile(const std::shared_ptr<WebDAVFileMetaData>& file,
                          const std::optional<std::string>& inFolder, int64_t withRetryLimit,
                          ContentsCompletion andCompletion);
  // The same, with the rate-limit attempts earlier passes used (the short form passes 0).
  void getContentsForFile(const std::shared_ptr<WebDAVFileMetaData>& file,
                          const std::optional<std::string>& inFolder, int64_t withRetryLimit,
                          int64_t rateLimitAttemptsUsed, ContentsCompletion andCompletion);

  // -- Write path: uploads and the retrying batch (src/core/public_write_operations.cpp)

  // Called once when a batch upload is over: the result of every item that went up in any pass
  // (each carrying its item, and on failure its error), and the error of the last pass or absent
  // when everything went up. Runs on the batch's `usingQueue` (the main queue when null).
  using BatchUploadCompletion =
      std::function<void(const std::vector<std::shared_ptr<WebDAVBatchUploadResult>>& results,
                         const std::optional<Error>& error)>;

  // Stores one record (gzip of a keyed archive of its payload under "data") in `toFolder`, named
  // "o_" OP "_k_" container "_p_" parent "_i_" UID "_d_." EXT with the identifiers lower-cased.
  // Returns the new metadata (FileRev = the store's rev), which also replaces the object's
  // FileMetaData; null and `error` on failure. Retries like every blocking operation.
  std::shared_ptr<WebDAVFileMetaData> uploadFileWithObject(
      const std::shared_ptr<WebDAVFileContents>& object, const std::optional<std::string>& toFolder,
      ErrorOut error = nullptr);
  // Stores `withData` (any payload value, archived under "data" and gzipped) as `name` in
  // `toFolder`. False at once, `error` untouched, when `withData` is absent.
  bool uploadArbitraryFile(const std::string& name, const std::optional<PlistValue>& withData,
                           const std::optional<std::string>& toFolder, ErrorOut error = nullptr);
  // Uploads `objects` as one batch and retries what is left: each pass sends only the items that
  // have not gone up yet, at most `withRetryLimit` passes, a rate-limited pass waiting out the
  // back-off (which also opens the shared cooldown) on the shared retry queue. Waits out the
  // shared cooldown first, so it may block the caller; the passes themselves run later.
  // Errors of the completion: the last pass's error; "Kavo" 500 "Failed to upload" when items
  // are still left after the last pass; "KavoWebDAV" 500 "Dropbox connection reset before upload
  // could finish." when this connection was released while a retry was pending (a pending retry
  // holds it weakly). REQUIRES: the connection is owned by a std::shared_ptr.
  void uploadFileWithObjects(const std::vector<std::shared_ptr<WebDAVFileContents>>& objects,
                             int64_t withRetryLimit, const std::optional<std::string>& toFolder,
                             std::shared_ptr<OperationQueue> usingQueue,
                             BatchUploadCompletion andCompletion);
  // One pass of the above, without the cooldown wait: `previouslyUploadedContents` are the
  // results earlier passes already got (handed on to the completion first), and
  // `rateLimitAttemptsUsed` the rate-limited passes so far. Returns at once.
  void uploadFileWithObjects(
      const std::vector<std::shared_ptr<WebDAVFileContents>>& objects,
      const std::optional<std::vector<std::shared_ptr<WebDAVBatchUploadResult>>>&
          previouslyUploadedContents,
      int64_t withRetryLimit, const std::optional<std::string>& toFolder,
      std::shared_ptr<OperationQueue> usingQueue, int64_t rateLimitAttemptsUsed,
      BatchUploadCompletion andCompletion);

  // ---- Rate-limit and retry policy (src/core/rate_limit_policy.cpp) --------------------------
  // Process-wide: shared by every connection, created on first use, thread-safe.

  // Whether a failed attempt is worth another: 500/502/503 and 1001; 429 while fewer than 6
  // rate-limit attempts were used; the URL-loading codes -1012, -1009, -1005, -1004, -1003, -1001;
  // otherwise only when the description contains "The request timed out".
  static bool isRetryableWebDAVErrorCode(int64_t code, std::string_view errorDescription,
                                         int64_t rateLimitAttemptsUsed);
  // Seconds to wait before rate-limit attempt `attempt` (2, 4, 8, 16, 30, 30... plus 0-1 s of
  // jitter), or the server's back-off when that is longer.
  static double rateLimitRetryDelayForAttempt(int64_t attempt, double serverBackoffSeconds);
  // The "WebDAVDropboxRetryAfterSeconds" hint of an error; 0 when missing, not numeric or negative.
  static double serverBackoffSecondsFromError(const std::optional<Error>& error);
  // Opens (or extends, never shortens) the cooldown every Dropbox request waits out.
  static void noteDropboxRateLimitWithSuggestedDelay(double seconds);
  // Seconds left of the cooldown; 0 (and the cooldown cleared) once it has passed.
  static double dropboxCooldownRemainingSeconds();
  // Sleeps in slices of at most one second until the cooldown has passed, so a deadline pushed
  // later by another thread extends the wait. Returns at once when there is none.
  static void waitForDropboxCooldown();
  // Takes one of the 4 process-wide download slots, waiting at most 120 s. False when the wait
  // timed out: the caller then downloads without a slot and must not release one.
  static bool acquireDropboxDownloadSlot();
  static void releaseDropboxDownloadSlot();
  // The serial queue on which delayed asynchronous retries run.
  static OperationQueue& dropboxRetryQueue();
  // Clears the cooldown. The download slots and the retry queue are untouched.
  static void resetDropboxRateLimitStateForTesting();

  // ---- Dropbox backend (src/dropbox) ---------------------------------------------------------
  // Blocking calls over the asynchronous client: each takes the authorized client of
  // dbx::DBClientsManager when it starts, sends one request, and waits (without a time-out) for
  // its answer on `queueToUse`. REQUIRES: not called on `queueToUse`; one request at a time per
  // connection. With no linked account they fail at once with "Dropbox" 401.

  // users/get_current_account: the account's display name.
  std::optional<std::string> getDropboxAccountUsername(ErrorOut error = nullptr);
  // Moves OAuth 1 tokens left by an older host to OAuth 2 with the build's app key and secret.
  // True when there were tokens and a migration ran (its outcome is only logged); false at once
  // when there was nothing to migrate.
  bool migrateDropboxV1TokensToV2WithQueue();

  // -- Folders and search (src/dropbox/folders.cpp, src/dropbox/search.cpp)
  // Host paths are relative to the app folder, with or without a leading "/". The existence
  // tests ask the server's name search, which lists partial matches at any depth, and which on
  // the real service may not list a file for a few seconds after it was written.

  // files/create_folder_v2 (no renaming). False, with the server's error, when something is
  // already there.
  bool createNewDropboxFolder(const std::optional<std::string>& folderPath,
                              ErrorOut error = nullptr);
  // Deletes the folder with everything in it (deleteArbitraryFileFromDropbox of "" in it).
  bool deleteDropboxFolder(const std::optional<std::string>& folderPath, ErrorOut error = nullptr);
  // Searches the parent folder for the last path component: true when some match's name equals
  // it exactly (case-sensitive), folder or file alike. Name top-level paths without a leading
  // "/" here and in doesDropboxFileExist: the parent of "/Tasks" resolves to "/", which the
  // server refuses (400).
  bool doesDropboxFolderExist(const std::optional<std::string>& folderPath,
                              ErrorOut error = nullptr);
  // doesDropboxContainFile of the last path component in the parent folder, excluding nothing.
  bool doesDropboxFileExist(const std::optional<std::string>& filePath, ErrorOut error = nullptr);
  // True when searchForMatchingFiles lists anything; false on failure (with `error` set).
  bool doesDropboxContainFile(const std::optional<std::string>& fileName,
                              const std::optional<std::string>& inFolder,
                              const std::optional<std::string>& excludingFile,
                              ErrorOut error = nullptr);
  // files/search for `fileName` under `inFolder`: whatever the server lists, in its order, at any
  // depth, whole or partial matches, except matches whose lower-case name equals `excludingFile`
  // lower-cased (when non-empty). Each record has only `FilePath` (the match's whole lower-case
  // path, leading "/" included) and `Extension`. Absent on failure; an empty list is no error.
  std::optional<FileList> searchForMatchingFiles(const std::optional<std::string>& fileName,
                                                 const std::optional<std::string>& inFolder,
                                                 const std::optional<std::string>& excludingFile,
                                                 ErrorOut error = nullptr);

  // The Dropbox path of a host folder path: "/" joined with it as path components ("a", "/a" and
  // "a/" all give "/a"; "/" stays "/"); the root, "", for an empty or absent path.
  static std::string getResolvedDropboxFolderPath(const std::optional<std::string>& folderPath);

  // -- Sync lock (src/dropbox/sync_lock.cpp)
  // The lock is a file "<owner>_<seconds since 1970, six decimals>.tsl" in the root of the app
  // folder holding a property list {"meta": <32-hex-digit UUID>}. Nothing makes taking it atomic
  // across devices: two devices may each see no lock and both upload one.

  // Writes the lock file into the Env's temporary directory (replacing a stale copy, which is
  // left there afterwards) and uploads it to "/<lock name>.tsl" (overwrite, mute). The upload
  // reads the file by its bare name, resolved against the process's current directory (kept as
  // it always was): a host runs with the temporary directory as its current directory, or the
  // upload fails with NSURLErrorDomain -1100 and nothing is sent. Returns the lock record
  // (`FilePath` = lock name, `UID` = `ownerIdentifier`).
  std::shared_ptr<WebDAVFileMetaData> lockDirectoryDropbox(const std::string& ownerIdentifier,
                                                           ErrorOut error = nullptr);
  // Searches the root for ".tsl" and describes the last match in the server's order (a second
  // lock present at the same time is not reported): `FilePath` = its name without extension,
  // `UID` = the part before the first "_", dates from its client-modified time (none for a
  // folder). Null when nothing matched (then `error` is untouched) or on failure.
  std::shared_ptr<WebDAVFileMetaData> getCurrentDropboxLockFile(ErrorOut error = nullptr);
  // deleteArbitraryFileFromDropbox of "<lockName>.tsl" in "/".
  bool unlockDirectoryDropbox(const std::string& lockName, ErrorOut error = nullptr);

  // -- Deletes (src/dropbox/delete*.cpp)
  // Folder and name are joined with one "/" (the root "" gives "/name").

  // files/delete_v2 of `name` in `inFolder`. True only when the answer's metadata names this
  // very path; a path that is not found, not a file, or answers 404/409 gives false with no
  // error.
  bool deleteArbitraryFileFromDropbox(const std::optional<std::string>& name,
                                      const std::optional<std::string>& inFolder,
                                      ErrorOut error = nullptr);
  // deleteArbitraryFileFromDropbox of the file's `FilePath`.
  bool deleteFileAtPathFromDropbox(const std::shared_ptr<WebDAVFileMetaData>& file,
                                   const std::optional<std::string>& inFolder,
                                   ErrorOut error = nullptr);
  // deleteFilesAtPathsFromDropbox of each file's `FilePath` joined to `inFolder` ("" when absent).
  // Records without a `FilePath` are left out: they would name the folder itself.
  std::optional<Error> deleteFilesAtPathFromDropbox(const FileList& files,
                                                    const std::optional<std::string>& inFolder);
  // files/delete_batch of the resolved paths, then files/delete_batch/check back to back, with no
  // pause and no limit, until the job completes or fails. More than 1,000 paths (the route's
  // limit) fail at once with "Dropbox" 400, nothing sent. Returns the error, or
  // nothing on success: entries not found / not a file / not a folder are ignored; an entry with
  // too_many_files ("Dropbox" 406) or too_many_write_operations (400) ends the walk; a launch
  // without a job id (even one the server completed at once) is "Could not delete files in
  // Dropbox" (400). Does not touch the connection's call state.
  std::optional<Error> deleteFilesAtPathsFromDropbox(const std::vector<std::string>& paths);
  // searchForMatchingFiles(`thatMatch`, `folder`), then deleteFilesAtPathFromDropbox of the
  // matches joined under `folder`. False when the search failed (its error in `error`, call state
  // untouched); otherwise records the batch's outcome as the connection's last call and returns
  // whether it succeeded, leaving `error` alone. Since matches carry whole paths, the root folder
  // ("" or absent) deletes every match, while a named folder joins them into paths that normally
  // name nothing ("Tasks" + "/tasks/a.tod" -> "/Tasks/tasks/a.tod"): nothing is deleted and the
  // result is true, as entries not found do not fail a batch.
  bool deleteFilesThatMatchInDropbox(const std::optional<std::string>& folder,
                                     const std::string& thatMatch, ErrorOut error = nullptr);

  // -- Delta listing (src/dropbox/delta_listing*.cpp)

  // With `canUseCachedResult` false (a fetch): empties the process-wide folder snapshot cache,
  // pulls the whole change feed of the app folder (files/list_folder of the root, recursive, 1,000
  // entries a page, then list_folder/continue while the server has more; with `usingCursor` it
  // continues from there), keeps every entry as this connection's cache, records which of the six
  // record extensions occur, leaves the last cursor in `dropboxDeltaCursor`, and marks the record
  // folders that hold enough files for a folder snapshot. A cursor the server resets is answered
  // by starting over once; a second reset in the same fetch leaves `shouldResetLocalData` true
  // for the host.
  // With `canUseCachedResult` true: answers from the last fetch's cache without any request, and
  // at once with an empty list for an extension the last fetch did not see.
  // Either way the answer holds the record files directly in `fromPath` (compared, as given,
  // with the server's lower-case paths: a folder named with capitals matches nothing; an empty
  // path matches nothing), of `withExtension` when given, in the server's order; entries that are
  // not record names, hold a blank, or lie in a sub-folder are skipped. Deleted entries and op
  // type "d" come back with DeletedFromDropbox set. Records carry FilePath (the lower-case name),
  // the identifiers of the name (DeviceUDID is "" when the name has a device field, absent
  // otherwise), FileRev and the client-modified date.
  // Absent on failure: a request error of any page; a failure still recorded on the connection
  // from its last request (also for a cache-only call); a file entry without client-modified
  // date ("Dropbox Sync" 100). Entries fetched before a failure stay cached.
  std::optional<FileList> getDeltaFileListFromDropbox(ErrorOut error,
                                                      const std::optional<std::string>& fromPath,
                                                      const std::optional<std::string>& usingCursor,
                                                      const std::optional<std::string>& withExtension,
                                                      bool canUseCachedResult);

  // -- Folder snapshot marking (src/dropbox/snapshot_marking.cpp)

  // Counts the file entries (folders and deleted entries do not count) per parent folder name,
  // for the six record folders ("tod", "col", "cal", "cat", "cag", "loc", whatever lies above
  // them), and marks each counted folder pending in the process-wide snapshot cache; the cache
  // ignores folders with fewer than 25 files. Only the bare folder name is marked. Any thread.
  static void markDropboxZipSnapshotFoldersFromEntries(
      const std::vector<std::shared_ptr<const dbx::DBFILESMetadata>>& entries);

  // -- Folder snapshot download (src/dropbox/snapshot_download.cpp)

  // Before a download from `folder`: when the folder is marked pending in the shared snapshot
  // cache, fetches it as one ZIP (downloadDropboxZipForFolder), extracts and indexes it, and
  // deletes the ZIP. May block for the whole fetch, or while another thread warms the folder.
  // A ready, failed or unmarked folder returns at once. Failures are logged, never reported:
  // downloads then go on per file.
  void warmDropboxZipSnapshotIfNeededForFolder(const std::optional<std::string>& folder);
  // files/download_zip of `folder` into "<temp>/WebDAVDropbox-<UUID>.zip", inside a download
  // slot and after the cooldown. The ZIP's path, or nullopt after a logged warning (no linked
  // account, too large, too many files, path, transport) with no file left behind.
  std::optional<std::string> downloadDropboxZipForFolder(const std::optional<std::string>& folder);

  // -- Downloads and decoding (src/dropbox/download*.cpp)

  // One record: from the folder's snapshot when it has the file (no request), otherwise
  // files/download into "<temp>/<FilePath>.gz" and decoded. A 404 answer is not a failure here:
  // the missing scratch file then fails to decode ("KavoWebDAV" 1800). Route errors path/not_found
  // and path/not_file give "Dropbox" 404, other path lookups "Dropbox" 400. Takes no download
  // slot and does not wait for the cooldown.
  std::shared_ptr<WebDAVFileContents> getContentsForDropboxFile(
      const std::shared_ptr<WebDAVFileMetaData>& file, const std::optional<std::string>& inFolder,
      ErrorOut error = nullptr);
  // The asynchronous form: snapshot first (completion on the calling thread), otherwise a
  // download slot, the cooldown, and files/download into "<temp>/<lower-case FilePath>.gz" (so
  // two names that differ only in case share a scratch file). The slot is given back before
  // anything else happens to the answer. Every failure, a 404 included, reaches the completion.
  void getContentsForDropboxFile(const std::shared_ptr<WebDAVFileMetaData>& file,
                                 const std::optional<std::string>& inFolder,
                                 ContentsCompletion andCompletion);
  // Decodes a record payload file (a gzip stream, or a bare keyed archive; a ".gz" path is
  // restored on disk first). Contents whose FileMetaData is `file` itself and whose FileContents
  // is the archive's "data" (absent, logged, when the archive has none). An unreadable payload
  // gives "KavoWebDAV" 1800.
  std::shared_ptr<WebDAVFileContents> decodedDropboxContentsForFile(
      const std::shared_ptr<WebDAVFileMetaData>& file, const std::string& atLocalPath,
      ErrorOut error = nullptr);
  // Decodes an arbitrary payload file the same way, without logging: the object under "data"
  // (nullopt without error when there is none); an unreadable payload gives "Dropbox Sync" 100.
  std::optional<PlistValue> decodedDropboxArbitraryDataAtLocalPath(const std::string& localPath,
                                                                   ErrorOut error = nullptr);
  // An object stored by uploadArbitraryFileToDropbox: snapshot first, otherwise files/download
  // into "<temp>/<name>.gz" and decoded. No download slot, no cooldown wait.
  std::optional<PlistValue> downloadArbitraryFileFromDropbox(
      const std::optional<std::string>& name, const std::optional<std::string>& fromFolder,
      ErrorOut error = nullptr);

  // -- Uploads (src/dropbox/upload*.cpp)
  // Each object is archived and gzipped into a scratch file in the Env's temporary directory
  // (created afresh, never through a link found there) and uploaded from it with mode overwrite,
  // muted, never renamed. A single upload deletes its scratch file once stored; a batch keeps
  // its scratch files.

  // files/upload of one record; see uploadFileWithObject. No retry.
  std::shared_ptr<WebDAVFileMetaData> uploadFileWithObjectToDropbox(
      const std::shared_ptr<WebDAVFileContents>& object, const std::optional<std::string>& toFolder,
      ErrorOut error = nullptr);
  // files/upload of an arbitrary object; see uploadArbitraryFile. No retry.
  bool uploadArbitraryFileToDropbox(const std::string& name,
                                    const std::optional<PlistValue>& withData,
                                    const std::optional<std::string>& toFolder,
                                    ErrorOut error = nullptr);
  // One batch through the client's batch facility; returns at once. The completion (when given)
  // gets one result per file the answer reports: success (the object's FileMetaData replaced by
  // the new metadata with the store's rev), a failed commit ("Dropbox" 400 with the failure's
  // tag, or the mapped request error), or a file that never reached a commit (its mapped request
  // error; such a file may be reported twice). The error: the mapped finish_batch request error,
  // or "Dropbox" 500 with the failure text, or absent. Without a linked account every item fails
  // with "Dropbox" 401. No retry.
  void uploadFileWithObjects(const std::vector<std::shared_ptr<WebDAVFileContents>>& objects,
                             const std::optional<std::string>& toFolder,
                             std::shared_ptr<OperationQueue> usingQueue,
                             BatchUploadCompletion andCompletion);

  // Records the outcome of one answer: success without a request error, otherwise the mapped
  // error (a 429 also opens the shared cooldown, at least 2 s).
  void setAsyncErrorIfRequired(const dbx::DBRequestError* requestError);
  // True when the last answer failed; then logs it and copies it into `error` (when given).
  bool checkIfRequestFailed(ErrorOut error);
  // The error value a request error maps to (absent for none): the system error's domain and
  // code for transport failures, else "Dropbox" and the HTTP status; user info "errorContent",
  // plus "WebDAVDropboxRetryAfterSeconds" for rate limits. Also opens the cooldown on a 429.
  static std::optional<Error> getErrorFromRequestError(const dbx::DBRequestError* requestError);

  // ---- Local-folder backend (src/local) ------------------------------------------------------
  // All paths are under one root folder: a build-time constant (CMake WDC_LOCAL_ROOT_FOLDER;
  // default <XDG data home>/webdavconnect/Local) that a host or test may override for the process.
  static std::filesystem::path localRootFolder();
  static void setLocalRootFolderForProcess(const std::filesystem::path& root);

  // Lists the records directly in `fromPath` (root when absent), oldest first; entries whose
  // names are not record names, whose extension is not in `withExtension` (when given) or that
  // are older than `modifiedAfter` are left out. Absent, with `error` set and an error logged,
  // when the folder cannot be read. Each entry's date is read by its bare name, resolved against
  // the process's current directory (kept as it always was): an entry not found there has no
  // date, and `error` ends up holding the outcome of the last entry's lookup, success included.
  std::optional<FileList> getFileListFromLocal(ErrorOut error,
                                               const std::optional<std::string>& fromPath,
                                               const std::optional<Date>& modifiedAfter,
                                               const std::optional<std::vector<std::string>>& withExtension);
  // Reads one record. A missing or undecodable file gives contents with an absent payload.
  // `error` is never written.
  std::shared_ptr<WebDAVFileContents> getContentsForLocalFile(
      const std::shared_ptr<WebDAVFileMetaData>& file, const std::optional<std::string>& inFolder,
      ErrorOut error);
  // Writes one record into the root folder (the folder is only recorded in the returned
  // metadata) and replaces the contents' metadata with the new one. `error` is never written.
  std::shared_ptr<WebDAVFileMetaData> uploadFileWithObjectToLocal(
      const std::shared_ptr<WebDAVFileContents>& contents,
      const std::optional<std::string>& toFolder, const std::optional<std::string>& forDevice,
      ErrorOut error);
  // Removes a record; true when nothing was there. On failure logs, sets `error`, returns false.
  bool deleteFileAtPathFromLocal(const std::shared_ptr<WebDAVFileMetaData>& file,
                                 const std::optional<std::string>& inFolder, ErrorOut error);
  // True when anything (folder or file) exists at the root joined with `folder`.
  bool doesLocalFolderExist(const std::optional<std::string>& folder, ErrorOut error);
  // Creates the folder with every missing parent; true when it already exists.
  bool createNewLocalFolder(const std::optional<std::string>& folder, ErrorOut error);
  // When something exists at the root joined with `folder`, removes `folder` as given (not
  // joined to the root: kept as it always was); true, removing nothing, when nothing is there.
  bool deleteLocalFolder(const std::optional<std::string>& folder, ErrorOut error);
  // Empty operations of the local backend: empty results, nothing written.
  std::optional<std::string> getLocalAccountUsername(ErrorOut error = nullptr);
  std::shared_ptr<WebDAVFileMetaData> getCurrentLocalLockFile(ErrorOut error = nullptr);
  std::shared_ptr<WebDAVFileMetaData> lockDirectoryLocal(const std::string& ownerIdentifier,
                                                         ErrorOut error);
  bool unlockDirectoryLocal(const std::string& lockName, ErrorOut error);
  std::optional<std::string> getHashFromLocal(ErrorOut error,
                                              const std::optional<std::string>& forFolderAtPath);
  std::optional<FileList> getDeltaFileListFromLocal(ErrorOut error,
                                                    const std::optional<std::string>& fromPath,
                                                    const std::optional<std::string>& usingCursor,
                                                    const std::optional<std::string>& withExtension,
                                                    bool canUseCachedResult);
  bool uploadArbitraryFileToLocal(const std::optional<std::string>& name,
                                  const std::optional<PlistValue>& withData,
                                  const std::optional<std::string>& toFolder, ErrorOut error);
  std::optional<PlistValue> downloadArbitraryFileFromLocal(
      const std::optional<std::string>& name, const std::optional<std::string>& fromFolder,
      ErrorOut error);
  bool deleteArbitraryFileFromLocal(const std::optional<std::string>& name,
                                    const std::optional<std::string>& inFolder, ErrorOut error);

  // ---- WebDAV backend (src/core/webdav_backend.cpp) -----------------------------------------
  // Present for hosts that call them; each returns an empty result (absent, false) and never
  // writes its error out-parameter.
  std::optional<std::string> getWebDAVAccountUsername(ErrorOut error = nullptr);
  std::shared_ptr<WebDAVFileMetaData> getCurrentWebDAVLockFile(ErrorOut error = nullptr);
  std::shared_ptr<WebDAVFileMetaData> lockDirectoryWebDAV(const std::string& ownerIdentifier,
                                                          ErrorOut error);
  bool unlockDirectoryWebDAV(const std::string& lockName, ErrorOut error);
  std::optional<std::string> getHashFromWebDAV(ErrorOut error,
                                               const std::optional<std::string>& forFolderAtPath);
  std::optional<FileList> getDeltaFileListFromWebDAV(ErrorOut error,
                                                     const std::optional<std::string>& fromPath,
                                                     const std::optional<std::string>& usingCursor,
                                                     const std::optional<std::string>& withExtension,
                                                     bool canUseCachedResult);
  std::optional<FileList> getFileListFromWebDAV(
      ErrorOut error, const std::optional<std::string>& fromPath,
      const std::optional<Date>& modifiedAfter,
      const std::optional<std::vector<std::string>>& withExtension);
  std::shared_ptr<WebDAVFileContents> getContentsForWebDAVFile(
      const std::shared_ptr<WebDAVFileMetaData>& file, const std::optional<std::string>& inFolder,
      ErrorOut error);
  bool doesWebDAVFolderExist(const std::optional<std::string>& folder, ErrorOut error);
  bool createNewWebDAVFolder(const std::optional<std::string>& folder, ErrorOut error);
  bool deleteWebDAVFolder(const std::optional<std::string>& folder, ErrorOut error);
  bool uploadArbitraryFileToWebDAV(const std::optional<std::string>& name,
                                   const std::optional<PlistValue>& withData,
                                   const std::optional<std::string>& toFolder, ErrorOut error);
  bool deleteArbitraryFileFromWebDAV(const std::optional<std::string>& name,
                                     const std::optional<std::string>& inFolder, ErrorOut error);
  std::optional<PlistValue> downloadArbitraryFileFromWebDAV(
      const std::optional<std::string>& name, const std::optional<std::string>& fromFolder,
      ErrorOut error);
  std::shared_ptr<WebDAVFileMetaData> uploadFileWithObjectToWebDAV(
      const std::shared_ptr<WebDAVFileContents>& contents,
      const std::optional<std::string>& toFolder, const std::optional<std::string>& forDevice,
      ErrorOut error);
  bool deleteFileAtPathFromWebDAV(const std::shared_ptr<WebDAVFileMetaData>& file,
                                  const std::optional<std::string>& inFolder, ErrorOut error);

 private:
  friend struct detail::ConnectionInternals;
  // Forgets the outcome of the last asynchronous call before a new attempt.
  void clearAsyncCallState();
  // Waits out the shared cooldown, then keeps waiting while the connection type is not Dropbox.
  void waitUntilDropboxIsSelected();

  // Outcome of the last asynchronous Dropbox call a blocking operation waited for.
  std::optional<Error> lastAsyncError;
  bool asyncCallWasSuccessful = false;

  // -- Fields of the sync lock, deletes, folders and search
  // Cached metadata of the app folder; dropped first when the connection goes.
  std::shared_ptr<const dbx::DBFILESMetadata> metaDropboxFolder;
  // Listing scratch: host paths of a folder's files.
  std::optional<std::vector<std::string>> arrDropboxFilePathsForDirectory;
  // The records of the last search, filled by its answer and handed to the caller.
  std::optional<FileList> arrSearchMetaDatas;

  // -- Fields of the delta listing
  // The last answer's has_more.
  bool hasMoreDeltaChanges = false;
  // Every entry of the last fetch, in arrival order; absent before the first fetch and after
  // removeAllResources.
  std::optional<std::vector<std::shared_ptr<const dbx::DBFILESMetadata>>> arrDropboxDeltaTuples;
  // For each record extension, whether the last fetch saw an entry with it.
  std::map<std::string, bool, std::less<>> dictDoesContainDeltaForExtension;
  // Directory-change scratch of the listing; dropped between syncs with the rest.
  std::optional<FileList> arrDeltaDirectoryChanges;
  // The network pass of a fetch: every page into arrDropboxDeltaTuples. A failed page ends it,
  // leaving its error on the connection.
  void fetchDeltaPages(ErrorOut error, const std::optional<std::string>& usingCursor);

  // -- Fields of the downloads
  // Records a download answer whose failure is not a plain request error (route errors that
  // map to their own codes): success when `failure` is empty.
  void recordDropboxDownloadOutcome(std::optional<Error> failure);

  // -- Fields of the write path (uploads)
  // The metadata the last single record upload made (its FileRev set once the store answered).
  std::shared_ptr<WebDAVFileMetaData> metaDataOfLastUploadedFile;
};

}  // namespace wdc
