// The file that keeps a linked account's credentials between runs: the OAuth 2 tokens the client
// uses (a refresh token and the current short-lived access token with its expiry) and any OAuth 1
// tokens an older host version left behind, waiting for migration. The file is JSON, written
// with mode 0600 through a temporary file and a rename, so a crash never leaves half a file.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "dbx/metadata.h"
#include "webdavconnect/error.h"

namespace wdc::dbx {

struct DBOAuth2Token {
  std::string uid;  // account id; may be empty when unknown
  std::string accessToken;
  // Absent for long-lived tokens (from a migration); such tokens are never refreshed.
  std::optional<std::string> refreshToken;
  // When the access token stops working; absent when unknown.
  std::optional<DBTimestamp> expiresAt;
};

struct DBOAuth1Token {
  std::string uid;
  std::string accessToken;
  std::string accessTokenSecret;
  std::string appKey;  // the app key the token was stored with
};

struct DBTokenStoreContents {
  std::optional<DBOAuth2Token> oauth2;
  std::vector<DBOAuth1Token> oauth1;
  // The app `oauth2` was issued to, when a tool linked it with an app key of its own (the code
  // flow with PKCE); its refreshes must use that key and no secret.
  std::optional<std::string> oauth2AppKey;
};

// Reads `path`. A missing file is an empty store; an unreadable or malformed one gives absent and
// an error (domain "WebDAVConnect").
[[nodiscard]] std::optional<DBTokenStoreContents> loadTokenStore(const std::filesystem::path& path,
                                                                 ErrorOut error = nullptr);
// Replaces `path` (creating its folder) with `contents`, mode 0600. False and an error on failure.
[[nodiscard]] bool saveTokenStore(const std::filesystem::path& path,
                                  const DBTokenStoreContents& contents, ErrorOut error = nullptr);

}  // namespace wdc::dbx
