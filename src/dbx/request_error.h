// The request error of the Dropbox client: every failure that is not a route's own error union.
// Transport failures carry an underlying system error with the URL-loading codes the retry
// policy knows; HTTP failures carry the status and the server's error text; rate-limit answers
// carry the server's suggested wait.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "webdavconnect/error.h"

namespace wdc::dbx {

// URL-loading codes (domain kURLErrorDomain) used for `nsError`.
inline constexpr int64_t kURLErrorUnknown = -1;
inline constexpr int64_t kURLErrorCancelled = -999;
inline constexpr int64_t kURLErrorTimedOut = -1001;
inline constexpr int64_t kURLErrorUnsupportedURL = -1002;
inline constexpr int64_t kURLErrorCannotFindHost = -1003;
inline constexpr int64_t kURLErrorCannotConnectToHost = -1004;
inline constexpr int64_t kURLErrorNetworkConnectionLost = -1005;
inline constexpr int64_t kURLErrorNotConnectedToInternet = -1009;
inline constexpr int64_t kURLErrorBadServerResponse = -1011;
inline constexpr int64_t kURLErrorCannotDecodeContentData = -1016;
inline constexpr int64_t kURLErrorCannotParseResponse = -1017;
inline constexpr int64_t kURLErrorFileDoesNotExist = -1100;
inline constexpr int64_t kURLErrorDataLengthExceedsMaximum = -1103;
inline constexpr int64_t kURLErrorSecureConnectionFailed = -1200;
inline constexpr int64_t kURLErrorServerCertificateUntrusted = -1202;
inline constexpr int64_t kURLErrorCannotCreateFile = -3000;
inline constexpr int64_t kURLErrorCannotWriteToFile = -3003;

// A value type. Thread-compatible.
struct DBRequestError {
  // What kind of answer produced the error. Only `kRateLimit` changes how callers treat it.
  enum class Kind {
    kHttp,            // any other non-2xx status (3xx redirects included: they are never followed)
    kBadInput,        // 400: the server could not read the request (plain-text body)
    kAuth,            // 401: `authErrorTag` names the AuthError tag
    kAccess,          // 403
    kPathRoot,        // 422
    kRateLimit,       // 429
    kInternalServer,  // 5xx
    kClient,          // no usable answer: transport failure, malformed answer, cancelled
  };

  Kind kind = Kind::kClient;
  // HTTP status; absent when no answer arrived (transport failures).
  std::optional<int> statusCode;
  // The server's error text: the JSON envelope's "error_summary" when present, else the body.
  std::optional<std::string> errorContent;
  // "user_message.text" of the JSON envelope, when the server sent one.
  std::optional<std::string> userMessage;
  // "X-Dropbox-Request-Id" of the answer.
  std::optional<std::string> requestId;
  // The underlying system error for transport and client-side failures: domain kURLErrorDomain,
  // one of the codes above, and a localized description. Absent for HTTP failures.
  std::optional<Error> nsError;
  // Rate limit only: seconds to wait. The body's "retry_after" wins, then the Retry-After header;
  // absent when the server gave neither.
  std::optional<double> backoff;
  // Rate limit only: "too_many_requests" or "too_many_write_operations" (the body's reason).
  std::optional<std::string> rateLimitReason;
  // 401 only: the AuthError tag, e.g. "expired_access_token", "invalid_access_token".
  std::optional<std::string> authErrorTag;
  // Free text of what went wrong, for logs. Never contains a token.
  std::string message;

  [[nodiscard]] bool isRateLimitError() const { return kind == Kind::kRateLimit; }
  [[nodiscard]] bool isAuthError() const { return kind == Kind::kAuth; }
  [[nodiscard]] bool isHttpError() const { return kind != Kind::kClient; }
  [[nodiscard]] bool isClientError() const { return kind == Kind::kClient; }

  // One-line form for logs, e.g.
  // DropboxRateLimitError[status=429, content="too_many_requests/..", backoff=2, id=...]
  [[nodiscard]] std::string description() const;

  // Builders used by the transport and by tests.
  static DBRequestError transport(int64_t urlErrorCode, std::string detail);
};

[[nodiscard]] std::string_view kindName(DBRequestError::Kind kind);

}  // namespace wdc::dbx
