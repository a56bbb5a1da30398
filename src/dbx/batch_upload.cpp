// The batch upload runs as a small state machine on the client's I/O thread: up to
// kFilesInFlight files go through their upload sessions at a time; when every file is either
// uploaded or failed, the closed sessions are committed in groups of at most 1,000, one group
// after another. Rate-limited requests wait out the server's back-off (through the Env's timer)
// and are tried again a few times before they count as failed.
#include <algorithm>
#include <fstream>
#include <mutex>

#include <fmt/format.h>

#include "dbx/client_core.h"
#include "dbx/routes.h"
#include "platform/env.h"
#include "platform/logger.h"

namespace wdc::dbx {
namespace {

// Sessions are independent until the commit, and a record's session is one short request whose
// time is mostly the round trip: with only 4 at a time a batch of small records moved no faster
// than 4 blocking uploads in a row (bench/dropbox_write). Over HTTP/2 they share one connection.
constexpr std::size_t kFilesInFlight = 32;
constexpr int kRateLimitRetries = 4;
constexpr auto kPollInterval = std::chrono::milliseconds(250);

std::string localPathOf(const std::string& fileUrl) {
  constexpr std::string_view kScheme = "file://";
  if (!fileUrl.starts_with(kScheme)) return fileUrl;
  std::string out;
  std::string_view rest = std::string_view(fileUrl).substr(kScheme.size());
  if (rest.starts_with("localhost/")) rest.remove_prefix(9);
  for (std::size_t i = 0; i < rest.size(); ++i) {
    auto hex = [](char c) -> int {
      if (c >= '0' && c <= '9') return c - '0';
      if (c >= 'a' && c <= 'f') return c - 'a' + 10;
      if (c >= 'A' && c <= 'F') return c - 'A' + 10;
      return -1;
    };
    if (rest[i] == '%' && i + 2 < rest.size() &&
        hex(rest[i + 1]) >= 0 && hex(rest[i + 2]) >= 0) {
      out += static_cast<char>(hex(rest[i + 1]) * 16 + hex(rest[i + 2]));
      i += 2;
    } else {
      out += rest[i];
    }
  }
  return out;
}

std::chrono::nanoseconds backoffOf(const DBRequestError& error) {
  return fromSeconds(std::max(1.0, error.backoff.value_or(1.0)));
}

struct Item {
  std::string url;
  std::filesystem::path path;
  DBFILESCommitInfo commit;
  uint64_t size = 0;
  std::string sessionId;
  uint64_t offset = 0;
  bool uploaded = false;
};

class Batch : public std::enable_shared_from_this<Batch> {
 public:
  Batch(std::shared_ptr<detail::ClientCore> core, std::vector<Item> items,
        std::shared_ptr<OperationQueue> queue, DBProgressBlock progress,
        DBBatchUploadResponseBlock block)
      : core_(std::move(core)),
        routes_(core_),
        items_(std::move(items)),
        queue_(std::move(queue)),
        progress_(std::move(progress)),
        block_(std::move(block)),
        useV1_(!core_->config().preferFinishBatchV2) {}

  void start() {
    for (std::size_t index = 0; index < items_.size(); ++index) {
      Item& item = items_[index];
      std::error_code ec;
      auto size = std::filesystem::file_size(item.path, ec);
      if (ec) {
        std::lock_guard lock(mutex_);
        requestErrors_[item.url] = DBRequestError::transport(
            kURLErrorFileDoesNotExist, "batch upload: cannot read " + item.path.string());
        item.size = 0;
        item.uploaded = false;
        failedUpfront_.push_back(index);
        continue;
      }
      item.size = size;
      totalBytes_ += size;
    }
    pump();
  }

  void cancel() {
    std::vector<std::function<void()>> cancels;
    {
      std::lock_guard lock(mutex_);
      cancelled_ = true;
      for (auto& [id, cancelFn] : active_) cancels.push_back(cancelFn);
    }
    for (auto& fn : cancels) fn();
  }

 private:
  // Starts more uploads while slots are free; commits once every file is settled.
  void pump() {
    std::vector<std::size_t> toStart;
    bool allSettled = false;
    {
      std::lock_guard lock(mutex_);
      while (inFlight_ < kFilesInFlight && next_ < items_.size()) {
        const std::size_t index = next_++;
        if (std::find(failedUpfront_.begin(), failedUpfront_.end(), index) !=
            failedUpfront_.end()) {
          continue;
        }
        ++inFlight_;
        toStart.push_back(index);
      }
      allSettled = inFlight_ == 0 && next_ >= items_.size() && !committing_;
      if (allSettled) committing_ = true;
    }
    for (std::size_t index : toStart) sendChunk(index, 0);
    if (allSettled) beginCommits();
  }

  std::optional<std::string> readChunk(const Item& item, uint64_t offset, std::size_t length) {
    std::ifstream in(item.path, std::ios::binary);
    if (!in) return std::nullopt;
    in.seekg(static_cast<std::streamoff>(offset));
    std::string data(length, '\0');
    in.read(data.data(), static_cast<std::streamsize>(length));
    if (static_cast<std::size_t>(in.gcount()) != length) return std::nullopt;
    return data;
  }

  void fileFailed(std::size_t index, DBRequestError error) {
    {
      std::lock_guard lock(mutex_);
      requestErrors_[items_[index].url] = std::move(error);
      --inFlight_;
    }
    pump();
  }

  void fileDone(std::size_t index) {
    {
      std::lock_guard lock(mutex_);
      items_[index].uploaded = true;
      --inFlight_;
    }
    pump();
  }

  bool isCancelled() {
    std::lock_guard lock(mutex_);
    return cancelled_;
  }

  // Keeps a task's cancel hook while its request runs.
  template <typename Task>
  uint64_t track(Task task) {
    std::lock_guard lock(mutex_);
    const uint64_t id = nextTaskId_++;
    active_[id] = [task]() mutable { task.cancel(); };
    return id;
  }
  void untrack(uint64_t id) {
    std::lock_guard lock(mutex_);
    active_.erase(id);
  }

  void addProgress(uint64_t bytes) {
    uint64_t done;
    {
      std::lock_guard lock(mutex_);
      sentBytes_ += bytes;
      done = sentBytes_;
    }
    if (progress_) progress_(done, totalBytes_);
  }

  void retryLater(const DBRequestError& error, std::function<void()> again) {
    Env::current().scheduleAfter(backoffOf(error), std::move(again));
  }

  // Sends the chunk at the item's current offset; `attempt` counts rate-limit retries.
  void sendChunk(std::size_t index, int attempt) {
    if (isCancelled()) {
      fileFailed(index, DBRequestError::transport(kURLErrorCancelled, "batch upload cancelled"));
      return;
    }
    Item& item = items_[index];
    const uint64_t chunkBytes = std::max<std::size_t>(1, core_->config().uploadChunkBytes);
    const std::size_t length =
        static_cast<std::size_t>(std::min<uint64_t>(chunkBytes, item.size - item.offset));
    const bool last = item.offset + length >= item.size;
    auto data = readChunk(item, item.offset, length);
    if (!data) {
      fileFailed(index, DBRequestError::transport(
                            kURLErrorFileDoesNotExist, "batch upload: cannot read " + item.path.string()));
      return;
    }
    auto self = shared_from_this();
    auto onError = [self, index, attempt](const DBRequestError& error) {
      if (error.isRateLimitError() && attempt < kRateLimitRetries && !self->isCancelled()) {
        self->retryLater(error, [self, index, attempt] { self->sendChunk(index, attempt + 1); });
        return;
      }
      self->fileFailed(index, error);
    };
    if (item.sessionId.empty()) {
      auto task = routes_.uploadSessionStartData(last, std::move(*data));
      const uint64_t id = track(task);
      task.setResponseBlock(
          [self, index, length, last, id, onError](const DBFILESUploadSessionStartResult* result,
                                                   const DBFILESUploadSessionStartError* routeError,
                                                   const DBRequestError* error) {
            self->untrack(id);
            if (result) {
              self->items_[index].sessionId = result->sessionId;
              self->chunkSent(index, length, last);
            } else if (error) {
              onError(*error);
            } else {
              self->fileFailed(index, self->routeFailure("upload_session/start", routeError->description()));
            }
          },
          detail::inlineQueue());
    } else {
      auto task = routes_.uploadSessionAppendV2Data({item.sessionId, item.offset}, last,
                                                    std::move(*data));
      const uint64_t id = track(task);
      task.setResponseBlock(
          [self, index, length, last, id, onError](const DBVoid* result,
                                                   const DBFILESUploadSessionAppendError* routeError,
                                                   const DBRequestError* error) {
            self->untrack(id);
            if (result) {
              self->chunkSent(index, length, last);
            } else if (error) {
              onError(*error);
            } else {
              self->fileFailed(index, self->routeFailure("upload_session/append_v2", routeError->description()));
            }
          },
          detail::inlineQueue());
    }
  }

  // A session request's route error has no place in the handler's shape: it becomes this file's
  // request error, with the union's tags as its content.
  DBRequestError routeFailure(std::string_view route, const std::string& description) {
    DBRequestError error;
    error.kind = DBRequestError::Kind::kHttp;
    error.statusCode = 409;
    error.errorContent = description;
    error.message = fmt::format("{} failed", route);
    return error;
  }

  void chunkSent(std::size_t index, std::size_t length, bool last) {
    items_[index].offset += length;
    addProgress(length);
    if (last) {
      fileDone(index);
    } else {
      sendChunk(index, 0);
    }
  }

  void beginCommits() {
    std::vector<std::size_t> ready;
    for (std::size_t i = 0; i < items_.size(); ++i) {
      if (items_[i].uploaded) ready.push_back(i);
    }
    // Ordered by destination, as Dropbox's own helpers commit them.
    std::stable_sort(ready.begin(), ready.end(), [&](std::size_t a, std::size_t b) {
      return items_[a].commit.path < items_[b].commit.path;
    });
    for (std::size_t at = 0; at < ready.size(); at += kMaxEntriesPerCommit) {
      auto end = std::min(ready.size(), at + kMaxEntriesPerCommit);
      commits_.emplace_back(ready.begin() + static_cast<std::ptrdiff_t>(at),
                            ready.begin() + static_cast<std::ptrdiff_t>(end));
    }
    commitNext(0);
  }

  std::vector<DBFILESUploadSessionFinishArg> finishArgs(const std::vector<std::size_t>& group) {
    std::vector<DBFILESUploadSessionFinishArg> args;
    args.reserve(group.size());
    for (std::size_t index : group) {
      args.push_back({{items_[index].sessionId, items_[index].offset}, items_[index].commit});
    }
    return args;
  }

  void commitNext(int attempt) {
    if (commitIndex_ >= commits_.size() || isCancelled()) {
      if (isCancelled() && commitIndex_ < commits_.size() && !finishRequestError_) {
        finishRequestError_ = DBRequestError::transport(kURLErrorCancelled, "batch upload cancelled");
      }
      deliver();
      return;
    }
    auto self = shared_from_this();
    const auto& group = commits_[commitIndex_];
    if (useV1_) {
      auto task = routes_.uploadSessionFinishBatch(finishArgs(group));
      const uint64_t id = track(task);
      task.setResponseBlock(
          [self, id, attempt](const DBFILESUploadSessionFinishBatchLaunch* launch, const DBVoid*,
                              const DBRequestError* error) {
            self->untrack(id);
            if (error) {
              self->commitFailed(*error, attempt);
            } else if (launch->isAsyncJobId()) {
              self->poll(launch->asyncJobId, 0);
            } else if (launch->isComplete()) {
              self->commitAnswered(*launch->complete);
            } else {
              self->commitFailed(DBRequestError::transport(kURLErrorCannotParseResponse,
                                                           "finish_batch: unknown answer"),
                                 kRateLimitRetries);
            }
          },
          detail::inlineQueue());
      return;
    }
    auto task = routes_.uploadSessionFinishBatchV2(finishArgs(group));
    const uint64_t id = track(task);
    task.setResponseBlock(
        [self, id, attempt](const DBFILESUploadSessionFinishBatchResult* result, const DBVoid*,
                            const DBRequestError* error) {
          self->untrack(id);
          if (result) {
            self->commitAnswered(*result);
            return;
          }
          // A server without the synchronous form answers "no such route": use the classic one.
          if (error->statusCode && (*error->statusCode == 404 || *error->statusCode == 400)) {
            log::debug("dbx: finish_batch_v2 not offered; using finish_batch");
            self->useV1_ = true;
            self->commitNext(attempt);
            return;
          }
          self->commitFailed(*error, attempt);
        },
        detail::inlineQueue());
  }

  void poll(const std::string& jobId, int attempt) {
    if (isCancelled()) {
      commitFailed(DBRequestError::transport(kURLErrorCancelled, "batch upload cancelled"),
                   kRateLimitRetries);
      return;
    }
    auto self = shared_from_this();
    auto task = routes_.uploadSessionFinishBatchCheck(jobId);
    const uint64_t id = track(task);
    task.setResponseBlock(
        [self, id, jobId, attempt](const DBFILESUploadSessionFinishBatchJobStatus* status,
                                   const DBASYNCPollError* routeError,
                                   const DBRequestError* error) {
          self->untrack(id);
          if (status && status->isComplete()) {
            self->commitAnswered(*status->complete);
          } else if (status) {
            Env::current().scheduleAfter(kPollInterval, [self, jobId] { self->poll(jobId, 0); });
          } else if (routeError) {
            self->finishRouteError_ = *routeError;
            self->deliver();
          } else if (error->isRateLimitError() && attempt < kRateLimitRetries) {
            self->retryLater(*error, [self, jobId, attempt] { self->poll(jobId, attempt + 1); });
          } else {
            self->finishRequestError_ = *error;
            self->deliver();
          }
        },
        detail::inlineQueue());
  }

  void commitFailed(const DBRequestError& error, int attempt) {
    if (error.isRateLimitError() && attempt < kRateLimitRetries && !isCancelled()) {
      auto self = shared_from_this();
      retryLater(error, [self, attempt] { self->commitNext(attempt + 1); });
      return;
    }
    finishRequestError_ = error;
    deliver();
  }

  void commitAnswered(const DBFILESUploadSessionFinishBatchResult& result) {
    const auto& group = commits_[commitIndex_];
    if (result.entries.size() != group.size()) {
      commitFailed(DBRequestError::transport(kURLErrorCannotParseResponse,
                                             "finish_batch: entry count does not match the commit"),
                   kRateLimitRetries);
      return;
    }
    for (std::size_t i = 0; i < group.size(); ++i) {
      results_[items_[group[i]].url] = result.entries[i];
    }
    anyCommitAnswered_ = true;
    ++commitIndex_;
    commitNext(0);
  }

  void deliver() {
    auto self = shared_from_this();
    auto run = [self] {
      if (self->block_) self->block_(self->anyCommitAnswered_ ? &self->results_ : nullptr,
                   self->finishRouteError_ ? &*self->finishRouteError_ : nullptr,
                   self->finishRequestError_ ? &*self->finishRequestError_ : nullptr,
                   self->requestErrors_);
      // Drop the client reference on the host's queue, never on the I/O thread.
      self->core_.reset();
    };
    if (queue_) {
      queue_->addOperation(std::move(run));
    } else {
      mainQueue().addOperation(std::move(run));
    }
  }

  std::shared_ptr<detail::ClientCore> core_;
  DBFILESUserAuthRoutes routes_;
  std::vector<Item> items_;
  std::shared_ptr<OperationQueue> queue_;
  DBProgressBlock progress_;
  DBBatchUploadResponseBlock block_;
  bool useV1_;  // commit phase only

  std::mutex mutex_;
  std::size_t next_ = 0;                    // guarded by mutex_
  std::size_t inFlight_ = 0;                // guarded by mutex_
  bool committing_ = false;                 // guarded by mutex_
  bool cancelled_ = false;                  // guarded by mutex_
  uint64_t sentBytes_ = 0;                  // guarded by mutex_
  uint64_t nextTaskId_ = 1;                 // guarded by mutex_
  std::map<uint64_t, std::function<void()>> active_;  // guarded by mutex_
  std::map<std::string, DBRequestError> requestErrors_;  // guarded by mutex_ until commits
  std::vector<std::size_t> failedUpfront_;
  uint64_t totalBytes_ = 0;

  // Commit phase: one request at a time, so no lock.
  std::vector<std::vector<std::size_t>> commits_;
  std::size_t commitIndex_ = 0;
  bool anyCommitAnswered_ = false;
  std::map<std::string, DBFILESUploadSessionFinishBatchResultEntry> results_;
  std::optional<DBASYNCPollError> finishRouteError_;
  std::optional<DBRequestError> finishRequestError_;
};

}  // namespace

DBBatchUploadTask DBFILESUserAuthRoutes::batchUploadFiles(
    std::map<std::string, DBFILESCommitInfo> fileUrlsToCommitInfo,
    std::shared_ptr<OperationQueue> queue, DBProgressBlock progressBlock,
    DBBatchUploadResponseBlock responseBlock) {
  std::vector<Item> items;
  items.reserve(fileUrlsToCommitInfo.size());
  for (auto& [url, commit] : fileUrlsToCommitInfo) {
    Item item;
    item.url = url;
    item.path = localPathOf(url);
    item.commit = std::move(commit);
    items.push_back(std::move(item));
  }
  auto batch = std::make_shared<Batch>(core_, std::move(items), std::move(queue),
                                       std::move(progressBlock), std::move(responseBlock));
  batch->start();
  return DBBatchUploadTask([weak = std::weak_ptr<Batch>(batch)] {
    if (auto strong = weak.lock()) strong->cancel();
  });
}

}  // namespace wdc::dbx
