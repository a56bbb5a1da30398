// Linking an account with the OAuth 2 authorization-code flow with PKCE (RFC 7636), as a tool or
// a host without a secret does it: show the user the authorize URL, take the code they paste
// back, and exchange it (with the verifier) for a refresh token and a short-lived access token.
#pragma once

#include <optional>
#include <string>

#include "dbx/client_config.h"
#include "dbx/token_store.h"
#include "webdavconnect/error.h"

namespace wdc::dbx {

struct DBPkcePair {
  std::string verifier;   // 64 characters from the unreserved set, from the system's CSPRNG
  std::string challenge;  // base64url(SHA-256(verifier)) without padding
};

[[nodiscard]] DBPkcePair makePkcePair();

// The SHA-256 code challenge of `verifier` (exposed for tests and the emulator's check).
[[nodiscard]] std::string pkceChallengeFor(const std::string& verifier);

// <authorizeBaseUrl>/oauth2/authorize with the code flow's query (offline access: a refresh
// token comes back).
[[nodiscard]] std::string authorizeUrl(const std::string& authorizeBaseUrl,
                                       const std::string& appKey, const std::string& challenge);

// POSTs the code to <config.apiBaseUrl>/oauth2/token and waits for the answer. Its refreshes
// must use `appKey` without a secret (keep it as DBTokenStoreContents::oauth2AppKey). Absent with `error` set (the server's error description,
// or the transport failure) when the exchange fails.
[[nodiscard]] std::optional<DBOAuth2Token> exchangeAuthorizationCode(
    const DBClientConfig& config, const std::string& appKey, const std::string& code,
    const std::string& verifier, ErrorOut error = nullptr);

}  // namespace wdc::dbx
