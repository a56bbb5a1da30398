// How an answer of the Dropbox client becomes this library's error value, and the per-connection
// record of the last answer that a blocking operation reads after its wait.
#include <fmt/format.h>

#include <cmath>

#include "dbx/request_error.h"
#include "platform/logger.h"
#include "webdavconnect/webdav_connect.h"

namespace wdc {
namespace {

// Even a 429 that names no wait pauses the process this long.
constexpr double kMinimumRateLimitCooldownSeconds = 2.0;

std::string messageText(const dbx::DBRequestError& requestError) {
  if (requestError.errorContent) return *requestError.errorContent;
  if (requestError.nsError) return requestError.nsError->localizedDescription();
  std::string description = requestError.description();
  if (!description.empty()) return description;
  return "Unknown error";
}

// The server's number as it gave it: whole seconds stay integers.
PlistValue backoffValue(double seconds) {
  if (std::isfinite(seconds) && seconds == std::trunc(seconds) && std::fabs(seconds) < 9.0e15) {
    return PlistValue(static_cast<int64_t>(seconds));
  }
  return PlistValue(seconds);
}

Error mapRequestError(const dbx::DBRequestError& requestError) {
  log::error(fmt::format("[DROPBOX] Got Async Error: {} => {}", requestError.description(),
                         requestError.nsError ? requestError.nsError->description() : "(null)"));
  PlistDictionary userInfo;
  userInfo.set(std::string(kErrorContentKey), messageText(requestError));
  if (requestError.isRateLimitError()) {
    const double backoff = requestError.backoff.value_or(0.0);
    userInfo.set(std::string(kRetryAfterSecondsKey), backoffValue(backoff));
    WebDAVConnect::noteDropboxRateLimitWithSuggestedDelay(
        backoff > kMinimumRateLimitCooldownSeconds ? backoff : kMinimumRateLimitCooldownSeconds);
  }
  if (requestError.nsError) {
    return Error(requestError.nsError->domain(), requestError.nsError->code(),
                 std::move(userInfo));
  }
  return Error(std::string(kDropboxErrorDomain), requestError.statusCode.value_or(0),
               std::move(userInfo));
}

}  // namespace

void WebDAVConnect::setAsyncErrorIfRequired(const dbx::DBRequestError* requestError) {
  if (requestError == nullptr) {
    asyncCallWasSuccessful = true;
    lastAsyncError.reset();
    return;
  }
  asyncCallWasSuccessful = false;
  lastAsyncError = mapRequestError(*requestError);
}

bool WebDAVConnect::checkIfRequestFailed(ErrorOut error) {
  if (asyncCallWasSuccessful || !lastAsyncError) return false;
  log::error(fmt::format("[DROPBOX] Request failed: {}", lastAsyncError->description()));
  setError(error, Error(lastAsyncError->domain(), lastAsyncError->code(),
                        lastAsyncError->userInfo()));
  return true;
}

std::optional<Error> WebDAVConnect::getErrorFromRequestError(
    const dbx::DBRequestError* requestError) {
  if (requestError == nullptr) return std::nullopt;
  return mapRequestError(*requestError);
}

}  // namespace wdc
