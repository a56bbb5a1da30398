// Reading the answers of a batch delete: the launch, each poll of the job, and a completed job's
// entries, into the job id and the one error the batch reports. Apart from the sending so that
// decoded answers can be walked without a connection.
#pragma once

#include <optional>
#include <string>

#include "dbx/metadata.h"
#include "dbx/request_error.h"
#include "dbx/route_errors.h"
#include "dbx/route_types.h"
#include "webdavconnect/error.h"

namespace wdc::dropbox {

// The launch answer: a job id into `jobId`, or the failure into `failure` (logged).
void readDeleteBatchLaunch(const dbx::DBFILESDeleteBatchLaunch* launch,
                           const dbx::DBVoid* routeError, const dbx::DBRequestError* requestError,
                           std::string& jobId, std::optional<Error>& failure);

// One poll's answer. True when the job is done (complete, failed, or no usable answer); then
// `failure` holds what the batch reports, if anything. False: still in progress, poll again.
bool readDeleteBatchCheck(const dbx::DBFILESDeleteBatchJobStatus* status,
                          const dbx::DBASYNCPollError* pollError,
                          const dbx::DBRequestError* requestError, std::optional<Error>& failure);

// A completed job's entries into the batch's error, if any.
std::optional<Error> walkDeleteBatchEntries(const dbx::DBFILESDeleteBatchResult& result);

}  // namespace wdc::dropbox
