// files/delete_batch and files/delete_batch/check answers from the server, decoded as the batch
// delete decodes them and read into its job id and its one error: never a crash, and the error
// says what the entries say. Input layout: byte 0 picks the HTTP status; the rest is the body,
// read both as a launch answer and as a poll answer.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "dbx/client_core.h"
#include "dbx/http_response.h"
#include "dropbox/delete_batch_status.h"
#include "fuzz_support.h"

namespace {

using wdc::fuzzing::check;

using namespace wdc;

constexpr long kStatuses[] = {200, 409, 200, 429, 500, 401, 400, 200};

template <typename Result, typename RouteError>
void typed(const dbx::detail::RawOutcome& raw, std::optional<Result>& result,
           std::optional<RouteError>& routeError,
           std::optional<dbx::DBRequestError>& requestError) {
  dbx::detail::typeOutcome(raw, result, routeError, requestError);
  check(result.has_value() + routeError.has_value() + requestError.has_value() == 1);
}

// Whether a completed job's entries should fail the batch: any failure that is not a path the
// delete wanted gone anyway.
bool entriesFail(const dbx::DBFILESDeleteBatchResult& result) {
  for (const auto& entry : result.entries) {
    if (entry.isSuccess() || !entry.isFailure()) continue;
    if (!entry.failure || !entry.failure->isPathLookup()) return true;
    const auto& lookup = entry.failure->pathLookup;
    if (!lookup || !(lookup->isNotFound() || lookup->isNotFile() || lookup->isNotFolder())) {
      return true;
    }
  }
  return false;
}

void readLaunch(const dbx::detail::RawOutcome& raw) {
  std::optional<dbx::DBFILESDeleteBatchLaunch> launch;
  std::optional<dbx::DBVoid> routeError;
  std::optional<dbx::DBRequestError> requestError;
  typed(raw, launch, routeError, requestError);
  std::string jobId;
  std::optional<Error> failure;
  dropbox::readDeleteBatchLaunch(launch ? &*launch : nullptr, routeError ? &*routeError : nullptr,
                                 requestError ? &*requestError : nullptr, jobId, failure);
  // A job id or a failure, never both; a launch with no job id and no failure is reported by the
  // caller ("Could not delete files in Dropbox").
  check(jobId.empty() || !failure);
  if (failure) check(!failure->domain().empty());
}

void readCheck(const dbx::detail::RawOutcome& raw) {
  std::optional<dbx::DBFILESDeleteBatchJobStatus> status;
  std::optional<dbx::DBASYNCPollError> pollError;
  std::optional<dbx::DBRequestError> requestError;
  typed(raw, status, pollError, requestError);
  std::optional<Error> failure;
  const bool done =
      dropbox::readDeleteBatchCheck(status ? &*status : nullptr, pollError ? &*pollError : nullptr,
                                    requestError ? &*requestError : nullptr, failure);
  if (!status) {
    // Every error answer ends the polling with an error.
    check(done && failure.has_value());
    return;
  }
  if (!status->isComplete() && !status->isFailed()) {
    check(!done && !failure);
    return;
  }
  check(done);
  if (status->isComplete() && status->complete) {
    check(failure.has_value() == entriesFail(*status->complete));
    check(failure.has_value() == dropbox::walkDeleteBatchEntries(*status->complete).has_value());
  }
  if (failure) {
    check(failure->domain() == kDropboxErrorDomain);
    check(failure->code() == 400 || failure->code() == 406);
    check(!failure->localizedDescription().empty());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > 256 * 1024) return -1;
  dbx::HttpResponse response;
  response.status = kStatuses[data[0] % std::size(kStatuses)];
  response.body.assign(reinterpret_cast<const char*>(data) + 1, size - 1);
  if (data[0] & 0x80) response.headers["retry-after"] = "3";
  dbx::detail::RawOutcome raw;
  raw.classified = dbx::classifyResponse(response, dbx::RouteStyle::kRpc);
  readLaunch(raw);
  readCheck(raw);
  return 0;
}
