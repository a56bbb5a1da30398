// The batch upload facility: many local files committed to Dropbox with few commits. Each file
// goes up through its own upload session (closed with its last chunk); the sessions are then
// committed at most 1,000 at a time, one commit after another (Dropbox allows one commit per
// account at a time), with finish_batch_v2, falling back to finish_batch and polling
// finish_batch/check when the server does not offer v2. Files are keyed by local file URL
// ("file:///tmp/a.gz"; a plain path is accepted too) and answers come back under the same key.
// A rate-limited session or commit request waits out the server's back-off on the Env's timer
// (so under a VirtualEnv it waits for the test to advance time) and is tried up to four more
// times; commit jobs of the classic form are polled every 250 ms the same way.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "dbx/request_error.h"
#include "dbx/route_errors.h"
#include "dbx/route_types.h"

namespace wdc::dbx {

// Called once the whole batch is over, on the queue given to batchUploadFiles:
// - fileUrlsToBatchResultEntries: the commit's answer per file (success with the new metadata, or
//   failure with its union); null when no commit answered at all. A file whose upload failed has
//   no entry here.
// - finishBatchRouteError / finishBatchRequestError: why a commit (or its polling) failed; at most
//   one is non-null. Files of a failed commit have no entry.
// - fileUrlsToRequestErrors: files that never reached a commit (unreadable local file, failed
//   session request), with the request error; empty when every upload went through.
// Pointers are valid only during the call.
using DBBatchUploadResponseBlock = std::function<void(
    const std::map<std::string, DBFILESUploadSessionFinishBatchResultEntry>*
        fileUrlsToBatchResultEntries,
    const DBASYNCPollError* finishBatchRouteError, const DBRequestError* finishBatchRequestError,
    const std::map<std::string, DBRequestError>& fileUrlsToRequestErrors)>;

// Progress: bytes sent so far, bytes in all, from the client's I/O thread. May be empty.
using DBProgressBlock = std::function<void(uint64_t bytesUploaded, uint64_t totalBytes)>;

// Handle of a running batch. Cancelling stops requests in flight; the handler still runs once,
// with cancelled request errors.
class DBBatchUploadTask {
 public:
  explicit DBBatchUploadTask(std::function<void()> canceller) : canceller_(std::move(canceller)) {}
  void cancel() const {
    if (canceller_) canceller_();
  }

 private:
  std::function<void()> canceller_;
};

// Upper bound of entries in one commit (the server refuses more).
inline constexpr std::size_t kMaxEntriesPerCommit = 1000;

}  // namespace wdc::dbx
