// Each route: its URL, host, style and argument encoding; the typed glue is in client_core.h.
#include "dbx/routes.h"

#include <fstream>
#include <iterator>

#include "dbx/client_core.h"
#include "dbx/json_codec.h"

namespace wdc::dbx {

using detail::invoke;
using detail::RouteCall;
using detail::RouteHost;

namespace {

RouteCall rpc(std::string route, const json::Json& argument) {
  RouteCall call;
  call.route = std::move(route);
  call.argument = argument.dump(-1, ' ', false, json::Json::error_handler_t::replace);
  return call;
}

RouteCall upload(std::string route, const json::Json& argument, std::string body) {
  RouteCall call;
  call.route = std::move(route);
  call.host = RouteHost::kContent;
  call.style = RouteStyle::kUpload;
  call.argument = json::headerSafe(argument);
  call.uploadBody = std::move(body);
  return call;
}

RouteCall download(std::string route, const json::Json& argument) {
  RouteCall call;
  call.route = std::move(route);
  call.host = RouteHost::kContent;
  call.style = RouteStyle::kDownload;
  call.argument = json::headerSafe(argument);
  return call;
}

// A task that fails before anything is sent, delivered like any other answer.
template <typename Result, typename RouteError>
DBTask<Result, RouteError> failedTask(DBRequestError error) {
  auto state = std::make_shared<typename DBTask<Result, RouteError>::State>();
  detail::Outcome<Result, RouteError> outcome;
  outcome.requestError = std::move(error);
  state->complete(std::move(outcome));
  return DBTask<Result, RouteError>(state);
}

}  // namespace

DBUSERSUserAuthRoutes::DBUSERSUserAuthRoutes(std::shared_ptr<detail::ClientCore> core)
    : core_(std::move(core)) {}

DBRpcTask<DBUSERSFullAccount, DBVoid> DBUSERSUserAuthRoutes::getCurrentAccount() {
  RouteCall call;
  call.route = "users/get_current_account";  // Void argument: no body, no Content-Type
  return invoke<DBUSERSFullAccount, DBVoid>(core_, std::move(call));
}

DBFILESUserAuthRoutes::DBFILESUserAuthRoutes(std::shared_ptr<detail::ClientCore> core)
    : core_(std::move(core)) {}

DBRpcTask<DBFILESListFolderResult, DBFILESListFolderError> DBFILESUserAuthRoutes::listFolder(
    const DBFILESListFolderArg& arg) {
  return invoke<DBFILESListFolderResult, DBFILESListFolderError>(
      core_, rpc("files/list_folder", json::encode(arg)));
}

DBRpcTask<DBFILESListFolderResult, DBFILESListFolderContinueError>
DBFILESUserAuthRoutes::listFolderContinue(const std::string& cursor) {
  return invoke<DBFILESListFolderResult, DBFILESListFolderContinueError>(
      core_, rpc("files/list_folder/continue", {{"cursor", cursor}}));
}

DBRpcTask<DBFILESSearchResult, DBFILESSearchError> DBFILESUserAuthRoutes::search(
    const DBFILESSearchArg& arg) {
  // files/search was retired; search_v2 answers the same question.
  return invoke<DBFILESSearchResult, DBFILESSearchError>(
      core_, rpc("files/search_v2", json::encodeSearchV2(arg)));
}

DBRpcTask<DBFILESSearchResult, DBFILESSearchError> DBFILESUserAuthRoutes::search(
    const std::string& path, const std::string& query) {
  DBFILESSearchArg arg;
  arg.path = path;
  arg.query = query;
  return search(arg);
}

DBRpcTask<DBFILESCreateFolderResult, DBFILESCreateFolderError>
DBFILESUserAuthRoutes::createFolderV2(const std::string& path, bool autorename) {
  return invoke<DBFILESCreateFolderResult, DBFILESCreateFolderError>(
      core_, rpc("files/create_folder_v2", {{"path", path}, {"autorename", autorename}}));
}

DBUploadTask<DBFILESFileMetadata, DBFILESUploadError> DBFILESUserAuthRoutes::uploadUrl(
    const DBFILESUploadArg& arg, const std::filesystem::path& inputFile) {
  std::ifstream in(inputFile, std::ios::binary);
  if (!in) {
    return failedTask<DBFILESFileMetadata, DBFILESUploadError>(DBRequestError::transport(
        kURLErrorFileDoesNotExist, "files/upload: cannot read " + inputFile.string()));
  }
  std::string data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) {
    return failedTask<DBFILESFileMetadata, DBFILESUploadError>(DBRequestError::transport(
        kURLErrorFileDoesNotExist, "files/upload: cannot read " + inputFile.string()));
  }
  return uploadData(arg, std::move(data));
}

DBUploadTask<DBFILESFileMetadata, DBFILESUploadError> DBFILESUserAuthRoutes::uploadData(
    const DBFILESUploadArg& arg, std::string data) {
  return invoke<DBFILESFileMetadata, DBFILESUploadError>(
      core_, upload("files/upload", json::encode(arg), std::move(data)));
}

DBUploadTask<DBFILESUploadSessionStartResult, DBFILESUploadSessionStartError>
DBFILESUserAuthRoutes::uploadSessionStartData(bool close, std::string data) {
  return invoke<DBFILESUploadSessionStartResult, DBFILESUploadSessionStartError>(
      core_, upload("files/upload_session/start", {{"close", close}}, std::move(data)));
}

DBUploadTask<DBVoid, DBFILESUploadSessionAppendError>
DBFILESUserAuthRoutes::uploadSessionAppendV2Data(const DBFILESUploadSessionCursor& cursor,
                                                 bool close, std::string data) {
  return invoke<DBVoid, DBFILESUploadSessionAppendError>(
      core_, upload("files/upload_session/append_v2",
                    {{"cursor", json::encode(cursor)}, {"close", close}}, std::move(data)));
}

DBRpcTask<DBFILESUploadSessionFinishBatchResult, DBVoid>
DBFILESUserAuthRoutes::uploadSessionFinishBatchV2(
    const std::vector<DBFILESUploadSessionFinishArg>& entries) {
  return invoke<DBFILESUploadSessionFinishBatchResult, DBVoid>(
      core_, rpc("files/upload_session/finish_batch_v2", json::encode(entries)));
}

DBRpcTask<DBFILESUploadSessionFinishBatchLaunch, DBVoid>
DBFILESUserAuthRoutes::uploadSessionFinishBatch(
    const std::vector<DBFILESUploadSessionFinishArg>& entries) {
  return invoke<DBFILESUploadSessionFinishBatchLaunch, DBVoid>(
      core_, rpc("files/upload_session/finish_batch", json::encode(entries)));
}

DBRpcTask<DBFILESUploadSessionFinishBatchJobStatus, DBASYNCPollError>
DBFILESUserAuthRoutes::uploadSessionFinishBatchCheck(const std::string& asyncJobId) {
  return invoke<DBFILESUploadSessionFinishBatchJobStatus, DBASYNCPollError>(
      core_, rpc("files/upload_session/finish_batch/check", {{"async_job_id", asyncJobId}}));
}

DBDownloadUrlTask<DBFILESFileMetadata, DBFILESDownloadError> DBFILESUserAuthRoutes::downloadUrl(
    const std::string& path, bool overwrite, const std::filesystem::path& destination) {
  RouteCall call = download("files/download", {{"path", path}});
  call.destination = destination;
  call.overwrite = overwrite;
  call.verifyContentHash = true;
  return invoke<DBFILESFileMetadata, DBFILESDownloadError, std::filesystem::path>(
      core_, std::move(call));
}

DBDownloadDataTask<DBFILESFileMetadata, DBFILESDownloadError> DBFILESUserAuthRoutes::downloadData(
    const std::string& path) {
  RouteCall call = download("files/download", {{"path", path}});
  call.verifyContentHash = true;
  return invoke<DBFILESFileMetadata, DBFILESDownloadError, std::string>(core_, std::move(call));
}

DBDownloadUrlTask<DBFILESDownloadZipResult, DBFILESDownloadZipError>
DBFILESUserAuthRoutes::downloadZipUrl(const std::string& path, bool overwrite,
                                      const std::filesystem::path& destination) {
  RouteCall call = download("files/download_zip", {{"path", path}});
  call.destination = destination;
  call.overwrite = overwrite;
  return invoke<DBFILESDownloadZipResult, DBFILESDownloadZipError, std::filesystem::path>(
      core_, std::move(call));
}

DBRpcTask<DBFILESDeleteResult, DBFILESDeleteError> DBFILESUserAuthRoutes::deleteV2(
    const std::string& path) {
  return invoke<DBFILESDeleteResult, DBFILESDeleteError>(core_,
                                                        rpc("files/delete_v2", {{"path", path}}));
}

DBRpcTask<DBFILESDeleteBatchLaunch, DBVoid> DBFILESUserAuthRoutes::deleteBatch(
    const std::vector<DBFILESDeleteArg>& entries) {
  return invoke<DBFILESDeleteBatchLaunch, DBVoid>(core_,
                                                  rpc("files/delete_batch", json::encode(entries)));
}

DBRpcTask<DBFILESDeleteBatchJobStatus, DBASYNCPollError> DBFILESUserAuthRoutes::deleteBatchCheck(
    const std::string& asyncJobId) {
  return invoke<DBFILESDeleteBatchJobStatus, DBASYNCPollError>(
      core_, rpc("files/delete_batch/check", {{"async_job_id", asyncJobId}}));
}

}  // namespace wdc::dbx
