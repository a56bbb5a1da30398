// The library's one error value: a domain, a signed 64-bit code and a user-information dictionary
// of payload values. Operations hand it back through an optional `ErrorOut` out-parameter that is
// written only on failure; asynchronous operations pass it to their completion.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "webdavconnect/plist_value.h"

namespace wdc {

// Domains in use.
inline constexpr std::string_view kDropboxErrorDomain = "Dropbox";
inline constexpr std::string_view kDropboxSyncErrorDomain = "Dropbox Sync";
inline constexpr std::string_view kKavoErrorDomain = "Kavo";
inline constexpr std::string_view kKavoWebDAVErrorDomain = "KavoWebDAV";
// Errors of this library's own parsers and codecs (bad payload bytes, bad archives).
inline constexpr std::string_view kWebDAVConnectErrorDomain = "WebDAVConnect";
// Transport failures carry the URL-loading codes (-1001 timed out, -1004 cannot connect, ...).
inline constexpr std::string_view kURLErrorDomain = "NSURLErrorDomain";

// User-information keys.
inline constexpr std::string_view kLocalizedDescriptionKey = "NSLocalizedDescription";
inline constexpr std::string_view kErrorContentKey = "errorContent";
inline constexpr std::string_view kRetryAfterSecondsKey = "WebDAVDropboxRetryAfterSeconds";

// A value type. Thread-compatible.
class Error {
 public:
  Error(std::string domain, int64_t code, PlistDictionary userInfo = {});
  // An error whose user information holds only a localized description.
  static Error withDescription(std::string domain, int64_t code, std::string localizedDescription);
  // A corrupt or unreadable input in this library's own domain, code 400: `what` says what was
  // wrong and `where` where ("bad object reference 17", "at offset 0x2c").
  static Error corruption(std::string_view what, std::string_view where = {});

  [[nodiscard]] const std::string& domain() const { return domain_; }
  [[nodiscard]] int64_t code() const { return code_; }
  [[nodiscard]] const PlistDictionary& userInfo() const { return userInfo_; }
  [[nodiscard]] PlistDictionary& userInfo() { return userInfo_; }

  // The user-information "NSLocalizedDescription" when it is a string, else the platform's
  // generic text: "The operation couldn’t be completed. (<domain> error <code>.)".
  [[nodiscard]] std::string localizedDescription() const;
  // A readable one-line form for logs:
  // Error Domain=<domain> Code=<code> "<localized description>" UserInfo={key=value, ...}
  [[nodiscard]] std::string description() const;

  bool operator==(const Error& other) const = default;

 private:
  std::string domain_;
  int64_t code_;
  PlistDictionary userInfo_;
};

// Error out-parameters are `std::optional<Error>*`: null when the caller does not want the
// error; an empty optional is "no error" (some operations clear it on purpose).
using ErrorOut = std::optional<Error>*;

// Stores `error` in `*out` when `out` is non-null. The one way operations report failure.
inline void setError(ErrorOut out, const Error& error) {
  if (out != nullptr) *out = error;
}

}  // namespace wdc
