// How a host points the library's Dropbox client at a server and links an account. The client is
// process-wide: every WebDAVConnect of type 3 uses it. A host calls setUpDropboxClient once at
// start, before its first Dropbox operation; a stored account is linked from then on. To link a
// new account, the host runs the OAuth 2 flow itself and hands its outcome to
// linkDropboxAccount.
#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>

#include "webdavconnect/error.h"

namespace wdc {

struct DropboxClientConfig {
  // Scheme, host and optional port, no trailing slash. Absent: https://api.dropboxapi.com and
  // https://content.dropboxapi.com.
  std::optional<std::string> apiBaseUrl;
  std::optional<std::string> contentBaseUrl;
  // Certificate authorities (PEM) to trust besides the system's, e.g. a test server's
  // self-signed certificate. Absent: the system's only. Verification is always on.
  std::optional<std::filesystem::path> caFile;
  // File holding the linked account's tokens (mode 0600). Absent:
  // $XDG_CONFIG_HOME (else ~/.config)/webdavconnect/dropbox-tokens.json.
  std::optional<std::filesystem::path> tokenStorePath;
  // App credentials used to refresh short-lived access tokens. Absent: the ones the library was
  // built with (CMake WDC_DROPBOX_APP_KEY / WDC_DROPBOX_APP_SECRET).
  std::optional<std::string> appKey;
  std::optional<std::string> appSecret;
  // Absent: 30 s to connect; a request fails as timed out (-1001) after 60 s without progress.
  std::optional<std::chrono::milliseconds> connectTimeout;
  std::optional<std::chrono::milliseconds> idleTimeout;
};

// The outcome of the host's OAuth 2 flow.
struct DropboxAccountToken {
  std::string accessToken;
  // When present, the access token is refreshed shortly before `expiresAt` and once after the
  // server says it expired. Absent: a long-lived token, used as it is.
  std::optional<std::string> refreshToken;
  std::optional<std::chrono::system_clock::time_point> expiresAt;
};

// Applies `config` and reads the token store; an account stored there is linked at once.
// Replaces any earlier client. False with `error` set when the store exists but cannot be read
// (the client is then configured but no account is linked). Any thread; do not call while a
// Dropbox operation is running.
bool setUpDropboxClient(const DropboxClientConfig& config, ErrorOut error = nullptr);

// Stores `token` in the token store and links its account; Dropbox operations that start
// afterwards use it. False with `error` set when the store cannot be written. Any thread.
bool linkDropboxAccount(const DropboxAccountToken& token, ErrorOut error = nullptr);

// Forgets the linked account: closes the client and removes its token from the store. Dropbox
// operations then fail at once with "Dropbox" 401. Any thread.
void unlinkDropboxAccount();

// Whether an account is linked. Any thread.
bool isDropboxAccountLinked();

}  // namespace wdc
