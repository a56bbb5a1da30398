// The batch upload of the Dropbox backend: every record is prepared as a scratch file, the client's
// batch facility sends them through upload sessions and commits them with finish_batch, and its
// answer becomes one WebDAVBatchUploadResult per reported file plus an overall error. Three
// dictionaries, keyed by the scratch file, carry each file from the request to its answer.
#include <fmt/format.h>

#include <atomic>
#include <map>
#include <thread>

#include "dbx/clients_manager.h"
#include "dropbox/upload_scratch.h"
#include "platform/logger.h"
#include "webdavconnect/webdav_connect.h"

namespace wdc {
namespace {

using Results = std::vector<std::shared_ptr<WebDAVBatchUploadResult>>;

constexpr const char* kNotLinkedText = "Dropbox account is not linked. Please relink and try again.";
// A scratch file costs a few file-system round trips (create, compress, remove); preparing a few
// at once hides the disk's latency behind the others' work. Small batches stay on the caller.
constexpr size_t kPrepareThreads = 4;
constexpr size_t kItemsPerPrepareThread = 16;

// What a batch remembers between its request and its answer.
struct BatchBookkeeping {
  // Keyed by the local scratch path actually uploaded.
  std::map<std::string, std::shared_ptr<WebDAVFileMetaData>> newMetaDataByPath;
  std::map<std::string, std::shared_ptr<WebDAVFileContents>> sourceByPath;
  // Files that could not be handed to the client (no complete scratch file), by file URL.
  std::map<std::string, dbx::DBRequestError> unsent;
};

dbx::DBFILESCommitInfo commitFor(const std::string& remotePath) {
  dbx::DBFILESCommitInfo commit;
  commit.path = remotePath;
  commit.mode = dbx::DBFILESWriteMode::overwrite();
  commit.autorename = false;
  commit.mute = true;
  commit.strictConflict = false;
  return commit;
}

std::string describeFileErrors(const std::map<std::string, dbx::DBRequestError>& errors) {
  std::string text = "{";
  for (const auto& [url, error] : errors) {
    if (text.size() > 1) text += " ";
    text += fmt::format("\"{}\" = \"{}\";", url, error.description());
  }
  return text + "}";
}

void deliverOn(const std::shared_ptr<OperationQueue>& queue, std::function<void()> work) {
  if (queue) {
    queue->addOperation(std::move(work));
  } else {
    mainQueue().addOperation(std::move(work));
  }
}

// Turns the facility's answer into per-item results and the overall error.
void answerBatch(const BatchBookkeeping& books,
                 const std::map<std::string, dbx::DBFILESUploadSessionFinishBatchResultEntry>*
                     entries,
                 const dbx::DBASYNCPollError* finishRouteError,
                 const dbx::DBRequestError* finishRequestError,
                 const std::map<std::string, dbx::DBRequestError>& fileErrors,
                 const WebDAVConnect::BatchUploadCompletion& completion) {
  auto sourceOf = [&books](const std::string& path) -> std::shared_ptr<WebDAVFileContents> {
    auto found = books.sourceByPath.find(path);
    return found == books.sourceByPath.end() ? nullptr : found->second;
  };
  Results results;
  log::debug(fmt::format("[DROPBOX] Batch upload results to check: {}", fileErrors.size()));
  if (entries == nullptr) {
    log::warning("[DROPBOX] Warning, NO upload results to check!");
  } else {
    for (const auto& [url, entry] : *entries) {
      const std::string path = dropbox::pathForFileUrl(url).string();
      if (entry.isSuccess() && entry.success) {
        log::debug(fmt::format(
            "[DROPBOX] File successfully uploaded from {} on local machine to {} in Dropbox.", path,
            entry.success->pathDisplay.value_or("(null)")));
        auto meta = books.newMetaDataByPath.find(path);
        auto source = sourceOf(path);
        if (meta != books.newMetaDataByPath.end()) {
          meta->second->FileRev = entry.success->rev;
          if (source) source->FileMetaData = meta->second;
        }
        results.push_back(WebDAVBatchUploadResult::initWithContents(source, std::nullopt));
      } else if (entry.isFailure() && entry.failure) {
        auto requestError = fileErrors.find(url);
        const dbx::DBRequestError* network =
            requestError == fileErrors.end() ? nullptr : &requestError->second;
        log::error(fmt::format(
            "[DROPBOX] ERROR -----> File FAILED to upload from {} on local machine to {} in "
            "Dropbox., network: {}",
            path, entry.failure->description(), network ? network->description() : "(null)"));
        std::optional<Error> itemError = WebDAVConnect::getErrorFromRequestError(network);
        if (!itemError) {
          itemError = Error::withDescription(std::string(kDropboxErrorDomain), 400,
                                             entry.failure->tagName());
        }
        results.push_back(WebDAVBatchUploadResult::initWithContents(sourceOf(path), itemError));
      }
    }
  }

  std::optional<Error> overall;
  std::optional<std::string> failureText;
  if (finishRouteError != nullptr) {
    const std::string description = finishRouteError->description();
    log::error(fmt::format(
        "[DROPBOX] ERROR ----> Either bug in SDK code, or transient error on Dropbox server: {}",
        description));
    log::error(fmt::format("[DROPBOX] BATCH UPLOAD FAILED: {}", description));
    failureText = description;
  } else if (finishRequestError != nullptr) {
    const std::string description = finishRequestError->description();
    log::error(fmt::format(
        "[DROPBOX] ERROR ----> Request error from calling `/upload_session/finish_batch/check`: {}",
        description));
    log::error(fmt::format("[DROPBOX] BATCH UPLOAD FAILED: {}", description));
    overall = WebDAVConnect::getErrorFromRequestError(finishRequestError);
    failureText = description;
  }
  if (!fileErrors.empty()) {
    const std::string description = describeFileErrors(fileErrors);
    log::error(fmt::format(
        "[DROPBOX] ERROR ----> General request errors (e.g. file doesn't exist client-side, "
        "request timed out, etc.): {}",
        description));
    for (const auto& [url, error] : fileErrors) {
      const std::string path = dropbox::pathForFileUrl(url).string();
      log::error(fmt::format(
          "[DROPBOX] ERROR -----> File FAILED to upload from {} on local machine to Dropbox, "
          "network error: {}",
          path, error.description()));
      results.push_back(WebDAVBatchUploadResult::initWithContents(
          sourceOf(path), WebDAVConnect::getErrorFromRequestError(&error)));
    }
    log::error(fmt::format("[DROPBOX] BATCH UPLOAD FAILED: {}", description));
    failureText = description;
  }
  if (!overall && failureText) {
    overall = Error::withDescription(std::string(kDropboxErrorDomain), 500, *failureText);
  }
  if (completion) completion(results, overall);
}

// Prepares every object's scratch file, in input order of the result. Objects that share a stored
// name share a scratch file, so they are prepared one after another on one thread, in input
// order: the last one wins, as it would going one by one.
std::vector<dropbox::RecordUpload> prepareAll(
    const std::vector<std::shared_ptr<WebDAVFileContents>>& objects,
    const std::optional<std::string>& toFolder) {
  static const WebDAVFileContents kNothing;
  static const WebDAVFileMetaData kNoMetaData;
  std::map<std::string, std::vector<size_t>> byName;
  for (size_t i = 0; i < objects.size(); ++i) {
    const auto& meta = objects[i] ? objects[i]->FileMetaData : nullptr;
    byName[dropbox::uploadFileName(meta ? *meta : kNoMetaData)].push_back(i);
  }
  std::vector<const std::vector<size_t>*> groups;
  groups.reserve(byName.size());
  for (const auto& entry : byName) groups.push_back(&entry.second);

  std::vector<dropbox::RecordUpload> uploads(objects.size());
  std::atomic<size_t> nextGroup{0};
  auto work = [&] {
    for (size_t g = nextGroup++; g < groups.size(); g = nextGroup++) {
      for (size_t i : *groups[g]) {
        uploads[i] = dropbox::prepareRecordUpload(objects[i] ? *objects[i] : kNothing, toFolder,
                                                  dropbox::ScratchUse::kBatchRecord);
      }
    }
  };
  const size_t helpers =
      std::min(kPrepareThreads, objects.size() / kItemsPerPrepareThread + 1) - 1;
  std::vector<std::thread> pool;
  pool.reserve(helpers);
  for (size_t h = 0; h < helpers; ++h) pool.emplace_back(work);
  work();
  for (auto& thread : pool) thread.join();
  return uploads;
}

}  // namespace

void WebDAVConnect::uploadFileWithObjects(
    const std::vector<std::shared_ptr<WebDAVFileContents>>& objects,
    const std::optional<std::string>& toFolder, std::shared_ptr<OperationQueue> usingQueue,
    BatchUploadCompletion andCompletion) {
  auto client = dbx::DBClientsManager::authorizedClient();
  if (!client || !client->isAuthorized()) {
    log::error("[DROPBOX] Cannot upload batch because authorized client is missing. Aborting "
               "request.");
    const Error notLinked =
        Error::withDescription(std::string(kDropboxErrorDomain), 401, kNotLinkedText);
    Results results;
    results.reserve(objects.size());
    for (const auto& object : objects) {
      results.push_back(WebDAVBatchUploadResult::initWithContents(object, notLinked));
    }
    if (andCompletion) {
      deliverOn(usingQueue, [results = std::move(results), notLinked,
                             completion = std::move(andCompletion)] {
        completion(results, notLinked);
      });
    }
    return;
  }

  auto books = std::make_shared<BatchBookkeeping>();
  std::map<std::string, dbx::DBFILESCommitInfo> commitByFileUrl;
  std::vector<dropbox::RecordUpload> uploads = prepareAll(objects, toFolder);
  for (size_t i = 0; i < objects.size(); ++i) {
    const auto& object = objects[i];
    const dropbox::RecordUpload& upload = uploads[i];
    log::debug(fmt::format("[DROPBOX] Will upload file: {}", upload.remotePath));
    const std::string path = upload.scratch.uploadPath.string();
    books->newMetaDataByPath[path] = upload.newMetaData;
    books->sourceByPath[path] = object;
    const std::string url = dropbox::fileUrlForPath(upload.scratch.uploadPath);
    if (upload.scratch.complete) {
      commitByFileUrl[url] = commitFor(upload.remotePath);
    } else {
      commitByFileUrl.erase(url);
      books->unsent.insert_or_assign(url, dropbox::incompleteScratchError(upload.scratch));
    }
  }

  client->filesRoutes().batchUploadFiles(
      std::move(commitByFileUrl), usingQueue, nullptr,
      [books, completion = std::move(andCompletion)](
          const std::map<std::string, dbx::DBFILESUploadSessionFinishBatchResultEntry>* entries,
          const dbx::DBASYNCPollError* finishRouteError,
          const dbx::DBRequestError* finishRequestError,
          const std::map<std::string, dbx::DBRequestError>& fileErrors) {
        if (books->unsent.empty()) {
          answerBatch(*books, entries, finishRouteError, finishRequestError, fileErrors,
                      completion);
          return;
        }
        std::map<std::string, dbx::DBRequestError> allFileErrors = fileErrors;
        for (const auto& [url, error] : books->unsent) allFileErrors.insert_or_assign(url, error);
        answerBatch(*books, entries, finishRouteError, finishRequestError, allFileErrors,
                    completion);
      });
}

}  // namespace wdc
