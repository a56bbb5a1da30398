// What the transport hands back for one HTTP exchange, and the rules that sort it into a route
// result, a route error or a request error. Kept apart from curl so the rules can be tested and
// fuzzed on plain bytes.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "dbx/json_codec.h"
#include "dbx/request_error.h"

namespace wdc::dbx {

// The endpoint styles of the API: where the argument goes and where the result comes back.
enum class RouteStyle { kRpc, kUpload, kDownload };

struct HttpResponse {
  // 0 when no answer arrived.
  long status = 0;
  // Header names in lower case; a repeated header keeps its last value.
  std::map<std::string, std::string> headers;
  // The body, unless a download went to a file.
  std::string body;
  // A download's body when it went to a file: written to this scratch path (success answers only).
  std::optional<std::filesystem::path> bodyFile;
  // Set when the exchange failed below HTTP (the URL-loading code and curl's text).
  std::optional<DBRequestError> transportError;

  [[nodiscard]] const std::string* header(std::string_view lowerCaseName) const;
};

// One exchange, sorted.
struct ClassifiedResponse {
  enum class Kind { kResult, kRouteError, kRequestError };
  Kind kind = Kind::kRequestError;
  // kResult: the result value (RPC/upload body, or the Dropbox-API-Result header of a download).
  // kRouteError: the "error" member of a 409 envelope.
  json::Json value;
  // kRequestError only.
  std::optional<DBRequestError> requestError;
  // The envelope's error_summary of a 409, to describe a route error that fails to decode.
  std::optional<std::string> errorSummary;
};

// Sorts `response` by status:
// - transport failure: its request error;
// - 2xx: the result JSON (a malformed or missing one is a kURLErrorCannotParseResponse error);
// - 409: the route error value of the JSON envelope (a malformed envelope is an HTTP error);
// - 400 bad input, 401 auth (with the AuthError tag), 403 access, 422 path root, 429 rate limit
//   (reason, and back-off: body retry_after first, then Retry-After, else none), 5xx internal
//   server error, anything else (redirects included) an HTTP error.
[[nodiscard]] ClassifiedResponse classifyResponse(const HttpResponse& response, RouteStyle style);

// The request error for a non-2xx, non-409 answer (exposed for tests).
[[nodiscard]] DBRequestError requestErrorForStatus(const HttpResponse& response);

// A Retry-After header value in seconds: a non-negative decimal number; absent otherwise
// (HTTP dates are not honoured: Dropbox sends seconds).
[[nodiscard]] std::optional<double> parseRetryAfter(std::string_view text);

}  // namespace wdc::dbx
