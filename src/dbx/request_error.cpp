#include "dbx/request_error.h"

#include <fmt/format.h>

namespace wdc::dbx {

std::string_view kindName(DBRequestError::Kind kind) {
  switch (kind) {
    case DBRequestError::Kind::kHttp: return "HttpError";
    case DBRequestError::Kind::kBadInput: return "BadInputError";
    case DBRequestError::Kind::kAuth: return "AuthError";
    case DBRequestError::Kind::kAccess: return "AccessError";
    case DBRequestError::Kind::kPathRoot: return "PathRootError";
    case DBRequestError::Kind::kRateLimit: return "RateLimitError";
    case DBRequestError::Kind::kInternalServer: return "InternalServerError";
    case DBRequestError::Kind::kClient: return "ClientError";
  }
  return "ClientError";
}

std::string DBRequestError::description() const {
  std::string out = fmt::format("Dropbox{}[", kindName(kind));
  const char* separator = "";
  auto add = [&](std::string_view text) {
    out += separator;
    out += text;
    separator = ", ";
  };
  if (statusCode) add(fmt::format("status={}", *statusCode));
  if (errorContent) add(fmt::format("content=\"{}\"", *errorContent));
  if (authErrorTag) add(fmt::format("auth={}", *authErrorTag));
  if (rateLimitReason) add(fmt::format("reason={}", *rateLimitReason));
  if (backoff) add(fmt::format("backoff={}", *backoff));
  if (nsError) add(fmt::format("nsError={} {}", nsError->code(), nsError->localizedDescription()));
  if (!message.empty()) add(fmt::format("message=\"{}\"", message));
  if (requestId) add(fmt::format("id={}", *requestId));
  out += ']';
  return out;
}

namespace {

std::string_view urlErrorText(int64_t code) {
  switch (code) {
    case kURLErrorCancelled: return "cancelled";
    case kURLErrorTimedOut: return "The request timed out.";
    case kURLErrorUnsupportedURL: return "unsupported URL";
    case kURLErrorCannotFindHost: return "A server with the specified hostname could not be found.";
    case kURLErrorCannotConnectToHost: return "Could not connect to the server.";
    case kURLErrorNetworkConnectionLost: return "The network connection was lost.";
    case kURLErrorNotConnectedToInternet: return "The Internet connection appears to be offline.";
    case kURLErrorBadServerResponse: return "The server returned an unexpected answer.";
    case kURLErrorCannotDecodeContentData: return "The answer's content could not be decoded.";
    case kURLErrorCannotParseResponse: return "The server's answer could not be parsed.";
    case kURLErrorFileDoesNotExist: return "The file does not exist.";
    case kURLErrorDataLengthExceedsMaximum: return "The answer exceeds the maximum allowed size.";
    case kURLErrorSecureConnectionFailed: return "A TLS error has occurred and a secure connection to the server cannot be made.";
    case kURLErrorServerCertificateUntrusted: return "The certificate for this server is invalid.";
    case kURLErrorCannotCreateFile: return "The destination file could not be created.";
    case kURLErrorCannotWriteToFile: return "The destination file could not be written.";
    default: return "The operation could not be completed.";
  }
}

}  // namespace

DBRequestError DBRequestError::transport(int64_t urlErrorCode, std::string detail) {
  DBRequestError error;
  error.kind = Kind::kClient;
  error.nsError = Error::withDescription(std::string(kURLErrorDomain), urlErrorCode,
                                         std::string(urlErrorText(urlErrorCode)));
  error.message = std::move(detail);
  return error;
}

}  // namespace wdc::dbx
