// The route objects of an authorized client: users and files. Each call builds its request from
// typed arguments, sends it at once on the client's I/O thread and returns the task on which the
// caller registers its handler (see task.h). Calls on a closed client fail at once with a
// cancelled request error (-999), delivered to the handler like any other answer.
// Thread-safe: any thread may call; the objects live as long as their client.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "dbx/batch_upload.h"
#include "dbx/metadata.h"
#include "dbx/route_errors.h"
#include "dbx/route_types.h"
#include "dbx/task.h"

namespace wdc::dbx {

namespace detail {
class ClientCore;
}

class DBUSERSUserAuthRoutes {
 public:
  explicit DBUSERSUserAuthRoutes(std::shared_ptr<detail::ClientCore> core);

  // users/get_current_account. No route error of its own.
  DBRpcTask<DBUSERSFullAccount, DBVoid> getCurrentAccount();

 private:
  std::shared_ptr<detail::ClientCore> core_;
};

class DBFILESUserAuthRoutes {
 public:
  explicit DBFILESUserAuthRoutes(std::shared_ptr<detail::ClientCore> core);

  // files/list_folder and files/list_folder/continue.
  DBRpcTask<DBFILESListFolderResult, DBFILESListFolderError> listFolder(
      const DBFILESListFolderArg& arg);
  DBRpcTask<DBFILESListFolderResult, DBFILESListFolderContinueError> listFolderContinue(
      const std::string& cursor);
  // Waits up to `timeoutSeconds` (30-480; the server adds up to 90 s of jitter) for a change
  // after `cursor`. Unauthenticated, on the notify host. Its route error is reset or other.
  DBRpcTask<DBFILESListFolderLongpollResult, DBFILESListFolderContinueError> listFolderLongpoll(
      const std::string& cursor, uint64_t timeoutSeconds);

  // Name search under `path` ("" = root). Sent as files/search_v2 with options.path; the answer
  // comes back in the classic shape.
  DBRpcTask<DBFILESSearchResult, DBFILESSearchError> search(const DBFILESSearchArg& arg);
  DBRpcTask<DBFILESSearchResult, DBFILESSearchError> search(const std::string& path,
                                                            const std::string& query);

  // files/create_folder_v2.
  DBRpcTask<DBFILESCreateFolderResult, DBFILESCreateFolderError> createFolderV2(
      const std::string& path, bool autorename = false);

  // files/upload of a local file, or of bytes in memory. A local file that cannot be read fails
  // with a request error (kURLErrorFileDoesNotExist) before anything is sent.
  DBUploadTask<DBFILESFileMetadata, DBFILESUploadError> uploadUrl(
      const DBFILESUploadArg& arg, const std::filesystem::path& inputFile);
  DBUploadTask<DBFILESFileMetadata, DBFILESUploadError> uploadData(const DBFILESUploadArg& arg,
                                                                   std::string data);

  // Upload sessions: start with the first chunk, append further chunks at an offset; `close`
  // on the last chunk.
  DBUploadTask<DBFILESUploadSessionStartResult, DBFILESUploadSessionStartError>
  uploadSessionStartData(bool close, std::string data);
  DBUploadTask<DBVoid, DBFILESUploadSessionAppendError> uploadSessionAppendV2Data(
      const DBFILESUploadSessionCursor& cursor, bool close, std::string data);

  // Commits of closed sessions (at most kMaxEntriesPerCommit entries): the synchronous v2 form,
  // and the classic asynchronous one with its check.
  DBRpcTask<DBFILESUploadSessionFinishBatchResult, DBVoid> uploadSessionFinishBatchV2(
      const std::vector<DBFILESUploadSessionFinishArg>& entries);
  DBRpcTask<DBFILESUploadSessionFinishBatchLaunch, DBVoid> uploadSessionFinishBatch(
      const std::vector<DBFILESUploadSessionFinishArg>& entries);
  DBRpcTask<DBFILESUploadSessionFinishBatchJobStatus, DBASYNCPollError>
  uploadSessionFinishBatchCheck(const std::string& asyncJobId);

  // The batch upload facility (batch_upload.h). Returns at once; `responseBlock` runs once on
  // `queue` (the main queue when null).
  DBBatchUploadTask batchUploadFiles(std::map<std::string, DBFILESCommitInfo> fileUrlsToCommitInfo,
                                     std::shared_ptr<OperationQueue> queue,
                                     DBProgressBlock progressBlock,
                                     DBBatchUploadResponseBlock responseBlock);

  // files/download into `destination`. With `overwrite` false an existing destination fails the
  // request before sending. The file is written only when the whole answer arrived: a failed or
  // cut-short download leaves no partial destination.
  DBDownloadUrlTask<DBFILESFileMetadata, DBFILESDownloadError> downloadUrl(
      const std::string& path, bool overwrite, const std::filesystem::path& destination);
  // files/download into memory (at most DBClientConfig::maxResponseBytes).
  DBDownloadDataTask<DBFILESFileMetadata, DBFILESDownloadError> downloadData(
      const std::string& path);
  // files/download_zip of a folder into `destination`.
  DBDownloadUrlTask<DBFILESDownloadZipResult, DBFILESDownloadZipError> downloadZipUrl(
      const std::string& path, bool overwrite, const std::filesystem::path& destination);

  // files/delete_v2, files/delete_batch (at most 1,000 entries) and its check.
  DBRpcTask<DBFILESDeleteResult, DBFILESDeleteError> deleteV2(const std::string& path);
  DBRpcTask<DBFILESDeleteBatchLaunch, DBVoid> deleteBatch(
      const std::vector<DBFILESDeleteArg>& entries);
  DBRpcTask<DBFILESDeleteBatchJobStatus, DBASYNCPollError> deleteBatchCheck(
      const std::string& asyncJobId);

 private:
  std::shared_ptr<detail::ClientCore> core_;
};

}  // namespace wdc::dbx
