#include "dbx/oauth_code_flow.h"

#include <nettle/sha2.h>
#include <sys/random.h>

#include <array>
#include <memory>

#include <fmt/format.h>

#include "dbx/http_response.h"
#include "dbx/json_codec.h"
#include "dbx/transport.h"
#include "platform/env.h"
#include "platform/semaphore.h"

namespace wdc::dbx {
namespace {

constexpr char kUnreserved[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~";

std::string base64Url(const uint8_t* data, size_t size) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
  std::string out;
  uint32_t bits = 0;
  int count = 0;
  for (size_t i = 0; i < size; ++i) {
    bits = (bits << 8) | data[i];
    count += 8;
    while (count >= 6) {
      count -= 6;
      out += kAlphabet[(bits >> count) & 0x3f];
    }
  }
  if (count > 0) out += kAlphabet[(bits << (6 - count)) & 0x3f];
  return out;
}

std::string formEscape(std::string_view text) {
  std::string out;
  for (unsigned char c : text) {
    if (std::string_view(kUnreserved).find(static_cast<char>(c)) != std::string_view::npos) {
      out += static_cast<char>(c);
    } else {
      out += fmt::format("%{:02X}", c);
    }
  }
  return out;
}

Error linkError(int64_t code, std::string description) {
  return Error::withDescription(std::string(kDropboxErrorDomain), code, std::move(description));
}

}  // namespace

std::string pkceChallengeFor(const std::string& verifier) {
  sha256_ctx context;
  sha256_init(&context);
  sha256_update(&context, verifier.size(), reinterpret_cast<const uint8_t*>(verifier.data()));
  std::array<uint8_t, SHA256_DIGEST_SIZE> digest{};
  sha256_digest(&context, digest.size(), digest.data());
  return base64Url(digest.data(), digest.size());
}

DBPkcePair makePkcePair() {
  // A secret, so it comes from the kernel's CSPRNG, not from the Env's test-scriptable draws.
  std::array<uint8_t, 64> random{};
  size_t filled = 0;
  while (filled < random.size()) {
    const ssize_t got = getrandom(random.data() + filled, random.size() - filled, 0);
    if (got > 0) filled += static_cast<size_t>(got);
  }
  DBPkcePair pair;
  constexpr size_t kAlphabetSize = sizeof kUnreserved - 1;  // 66
  for (uint8_t byte : random) pair.verifier += kUnreserved[byte % kAlphabetSize];
  pair.challenge = pkceChallengeFor(pair.verifier);
  return pair;
}

std::string authorizeUrl(const std::string& authorizeBaseUrl, const std::string& appKey,
                         const std::string& challenge) {
  return authorizeBaseUrl + "/oauth2/authorize?client_id=" + formEscape(appKey) +
         "&response_type=code&code_challenge=" + formEscape(challenge) +
         "&code_challenge_method=S256&token_access_type=offline";
}

std::optional<DBOAuth2Token> exchangeAuthorizationCode(const DBClientConfig& config,
                                                       const std::string& appKey,
                                                       const std::string& code,
                                                       const std::string& verifier,
                                                       ErrorOut error) {
  HttpRequest request;
  request.url = config.apiBaseUrl + "/oauth2/token";
  request.label = "oauth2/token";
  request.headers.emplace_back("Content-Type: application/x-www-form-urlencoded");
  request.body = "grant_type=authorization_code&code=" + formEscape(code) +
                 "&code_verifier=" + formEscape(verifier) + "&client_id=" + formEscape(appKey);
  request.maxResponseBytes = 1 << 20;

  auto transport = std::make_shared<Transport>(config);
  auto answered = std::make_shared<CountingSemaphore>(0);
  auto response = std::make_shared<HttpResponse>();
  transport->submit(std::move(request), [answered, response](HttpResponse answer) {
    *response = std::move(answer);
    answered->signal();
  });
  answered->wait();
  transport->close();

  if (response->transportError) {
    const DBRequestError& failed = *response->transportError;
    setError(error, failed.nsError ? *failed.nsError
                                   : linkError(0, "the token exchange failed: " +
                                                      failed.description()));
    return std::nullopt;
  }
  auto body = json::parse(response->body);
  const bool isObject = body && body->is_object();
  if (response->status != 200) {
    std::string reason = "HTTP " + std::to_string(response->status);
    if (isObject && body->contains("error_description") &&
        (*body)["error_description"].is_string()) {
      reason = (*body)["error_description"].get<std::string>();
    } else if (isObject && body->contains("error") && (*body)["error"].is_string()) {
      reason = (*body)["error"].get<std::string>();
    }
    setError(error, linkError(response->status, "the code was refused: " + reason));
    return std::nullopt;
  }
  auto text = [&](const char* key) -> std::optional<std::string> {
    if (!isObject) return std::nullopt;
    auto it = body->find(key);
    if (it == body->end() || !it->is_string() || it->get_ref<const std::string&>().empty()) {
      return std::nullopt;
    }
    return it->get<std::string>();
  };
  DBOAuth2Token token;
  auto access = text("access_token");
  auto refresh = text("refresh_token");
  if (!access || !refresh) {
    setError(error, linkError(500, "the token answer lacks an access or refresh token"));
    return std::nullopt;
  }
  token.accessToken = *access;
  token.refreshToken = *refresh;
  token.uid = text("account_id").value_or(text("uid").value_or(""));
  if (auto expires = body->find("expires_in");
      expires != body->end() && expires->is_number_integer() && expires->get<int64_t>() >= 0) {
    token.expiresAt = Env::current().now() + std::chrono::seconds(expires->get<int64_t>());
  }
  return token;
}

}  // namespace wdc::dbx
