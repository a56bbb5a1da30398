// Token handling: an access token close to its expiry is refreshed before the request goes out;
// a 401 expired_access_token triggers one refresh and one resend. Concurrent requests share a
// single refresh: later ones wait for the one in flight.
#include "dbx/client_core.h"

#include <curl/curl.h>

#include <fmt/format.h>

#include "dbx/content_hash.h"
#include "platform/env.h"
#include "platform/logger.h"

namespace wdc::dbx::detail {
namespace {

std::string formEscape(std::string_view text) {
  std::string out;
  for (unsigned char c : text) {
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
        c == '.' || c == '_' || c == '~') {
      out += static_cast<char>(c);
    } else {
      out += fmt::format("%{:02X}", c);
    }
  }
  return out;
}

std::string base64(std::string_view text) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  size_t i = 0;
  for (; i + 2 < text.size(); i += 3) {
    uint32_t n = (uint8_t(text[i]) << 16) | (uint8_t(text[i + 1]) << 8) | uint8_t(text[i + 2]);
    out += kAlphabet[(n >> 18) & 63];
    out += kAlphabet[(n >> 12) & 63];
    out += kAlphabet[(n >> 6) & 63];
    out += kAlphabet[n & 63];
  }
  if (i + 1 == text.size()) {
    uint32_t n = uint8_t(text[i]) << 16;
    out += kAlphabet[(n >> 18) & 63];
    out += kAlphabet[(n >> 12) & 63];
    out += "==";
  } else if (i + 2 == text.size()) {
    uint32_t n = (uint8_t(text[i]) << 16) | (uint8_t(text[i + 1]) << 8);
    out += kAlphabet[(n >> 18) & 63];
    out += kAlphabet[(n >> 12) & 63];
    out += kAlphabet[(n >> 6) & 63];
    out += '=';
  }
  return out;
}

RawOutcome failed(DBRequestError error) {
  RawOutcome raw;
  raw.classified.kind = ClassifiedResponse::Kind::kRequestError;
  raw.classified.requestError = std::move(error);
  return raw;
}

bool isExpiredTokenAnswer(const RawOutcome& raw) {
  const auto& error = raw.classified.requestError;
  return raw.classified.kind == ClassifiedResponse::Kind::kRequestError && error &&
         error->kind == DBRequestError::Kind::kAuth &&
         error->authErrorTag == std::optional<std::string>("expired_access_token");
}

}  // namespace

void checkContentHash(RawOutcome& raw, const std::string& route) {
  if (raw.classified.kind != ClassifiedResponse::Kind::kResult) return;
  const auto& value = raw.classified.value;
  if (!value.is_object()) return;
  const auto stated = value.find("content_hash");
  if (stated == value.end() || !stated->is_string()) return;
  const std::optional<std::string> actual =
      raw.bodyFile ? contentHashOfFile(*raw.bodyFile) : contentHashOf(raw.body);
  const std::string expected = stated->get<std::string>();  // a copy: classified is replaced below
  if (actual == expected) return;
  std::error_code ignored;
  if (raw.bodyFile) std::filesystem::remove(*raw.bodyFile, ignored);
  raw.body.clear();
  raw.bodyFile.reset();
  raw.classified = ClassifiedResponse{};
  raw.classified.kind = ClassifiedResponse::Kind::kRequestError;
  raw.classified.requestError = DBRequestError::transport(
      kURLErrorNetworkConnectionLost,
      fmt::format("{}: content hash mismatch (expected {}, got {})", route, expected,
                  actual.value_or("unreadable body")));
}

std::shared_ptr<OperationQueue> inlineQueue() {
  static auto queue = std::make_shared<InlineQueue>();
  return queue;
}

bool placeDownload(const std::filesystem::path& scratch, const std::filesystem::path& destination,
                   std::error_code& error) {
  std::filesystem::rename(scratch, destination, error);
  return !error;
}

ClientCore::ClientCore(DBClientConfig config, DBOAuth2Token token,
                       std::optional<std::filesystem::path> tokenStore)
    : config_(std::move(config)),
      tokenStore_(std::move(tokenStore)),
      transport_(config_),
      token_(std::move(token)) {}

ClientCore::~ClientCore() { close(); }

void ClientCore::close() { transport_.close(); }
bool ClientCore::isClosed() const { return transport_.isClosed(); }

bool ClientCore::isAuthorized() const {
  std::lock_guard lock(mutex_);
  return !token_.accessToken.empty() && !transport_.isClosed();
}

DBOAuth2Token ClientCore::token() const {
  std::lock_guard lock(mutex_);
  return token_;
}

HttpRequest ClientCore::buildRequest(const RouteCall& call, const std::string& accessToken) const {
  HttpRequest request;
  const std::string& base = call.host == RouteHost::kApi       ? config_.apiBaseUrl
                            : call.host == RouteHost::kContent ? config_.contentBaseUrl
                                                               : config_.notifyBaseUrl;
  request.url = base + "/2/" + call.route;
  request.label = call.route;
  if (call.auth == RouteAuth::kUser) {
    request.headers.push_back("Authorization: Bearer " + accessToken);
  } else if (call.auth == RouteAuth::kApp) {
    request.headers.push_back("Authorization: Basic " + base64(call.appCredentials));
  }
  switch (call.style) {
    case RouteStyle::kRpc:
      if (!call.argument.empty()) {
        request.headers.emplace_back("Content-Type: application/json");
        request.body = call.argument;
      }
      request.maxResponseBytes = config_.maxResponseBytes;
      break;
    case RouteStyle::kUpload:
      request.headers.emplace_back("Content-Type: application/octet-stream");
      request.headers.push_back("Dropbox-API-Arg: " + call.argument);
      request.body = call.uploadBody;
      request.maxResponseBytes = config_.maxResponseBytes;
      request.uploadProgress = call.uploadProgress;
      break;
    case RouteStyle::kDownload:
      request.headers.push_back("Dropbox-API-Arg: " + call.argument);
      request.maxResponseBytes = call.destination ? config_.maxDownloadBytes
                                                  : config_.maxResponseBytes;
      break;
  }
  return request;
}

void ClientCore::send(RouteCall call, std::shared_ptr<CallHandle> handle,
                      std::function<void(RawOutcome)> done) {
  if (call.destination && !call.overwrite && std::filesystem::exists(*call.destination)) {
    done(failed(DBRequestError::transport(
        kURLErrorCannotCreateFile, call.route + ": destination exists and overwrite is off")));
    return;
  }
  bool refreshFirst = false;
  if (call.auth == RouteAuth::kUser) {
    std::lock_guard lock(mutex_);
    refreshFirst = token_.refreshToken && token_.expiresAt &&
                   Env::current().now() + config_.refreshMargin >= *token_.expiresAt;
  }
  if (!refreshFirst) {
    sendWithToken(std::move(call), std::move(handle), std::move(done), /*mayRefresh=*/true);
    return;
  }
  auto self = shared_from_this();
  refreshToken([self, call = std::move(call), handle, done = std::move(done)](
                   std::optional<DBRequestError> error) mutable {
    if (error) {
      done(failed(std::move(*error)));
      return;
    }
    self->sendWithToken(std::move(call), std::move(handle), std::move(done), true);
  });
}

void ClientCore::sendWithToken(RouteCall call, std::shared_ptr<CallHandle> handle,
                               std::function<void(RawOutcome)> done, bool mayRefresh) {
  std::string accessToken;
  {
    std::lock_guard lock(mutex_);
    accessToken = token_.accessToken;
  }
  HttpRequest request = buildRequest(call, accessToken);
  if (call.destination) {
    // The answer lands beside its destination and is renamed over it only when complete.
    request.bodyFile = call.destination->string() +
                       fmt::format(".part-{}", scratchCounter_.fetch_add(1));
  }
  const RouteStyle style = call.style;
  const bool canRefresh = mayRefresh && call.auth == RouteAuth::kUser;
  auto self = shared_from_this();
  auto completion = [self, style, canRefresh, call = std::move(call), handle,
                     done = std::move(done)](HttpResponse response) mutable {
    RawOutcome raw;
    raw.classified = classifyResponse(response, style);
    raw.body = std::move(response.body);
    raw.bodyFile = std::move(response.bodyFile);
    if (call.verifyContentHash) checkContentHash(raw, call.route);
    bool hasRefreshToken;
    {
      std::lock_guard lock(self->mutex_);
      hasRefreshToken = self->token_.refreshToken.has_value();
    }
    if (canRefresh && hasRefreshToken && isExpiredTokenAnswer(raw)) {
      log::debug(fmt::format("dbx: {} answered expired_access_token; refreshing", call.route));
      self->refreshToken([self, call = std::move(call), handle, done = std::move(done),
                          raw = std::move(raw)](std::optional<DBRequestError> error) mutable {
        if (error) {
          done(std::move(raw));  // the original 401 is the more useful answer
          return;
        }
        self->sendWithToken(std::move(call), std::move(handle), std::move(done), false);
      });
      return;
    }
    done(std::move(raw));
  };
  bool cancelledBefore;
  {
    std::lock_guard lock(handle->mutex);
    cancelledBefore = handle->cancelled;
  }
  if (cancelledBefore) {
    HttpResponse cancelled;
    cancelled.transportError =
        DBRequestError::transport(kURLErrorCancelled, request.label + ": cancelled");
    completion(std::move(cancelled));
    return;
  }
  const uint64_t id = transport_.submit(std::move(request), std::move(completion));
  bool cancelledMeanwhile;
  {
    std::lock_guard lock(handle->mutex);
    handle->transferId = id;
    cancelledMeanwhile = handle->cancelled;
  }
  if (cancelledMeanwhile) transport_.cancel(id);
}

void ClientCore::cancel(const std::shared_ptr<CallHandle>& handle) {
  uint64_t id;
  {
    std::lock_guard lock(handle->mutex);
    handle->cancelled = true;
    id = handle->transferId;
  }
  if (id != 0) transport_.cancel(id);
}

void ClientCore::refreshToken(std::function<void(std::optional<DBRequestError>)> then) {
  std::string refresh;
  {
    std::lock_guard lock(mutex_);
    refreshWaiters_.push_back(std::move(then));
    if (refreshing_) return;
    refreshing_ = true;
    refresh = token_.refreshToken.value_or("");
  }
  HttpRequest request;
  request.url = config_.apiBaseUrl + "/oauth2/token";
  request.label = "oauth2/token";
  request.headers.emplace_back("Content-Type: application/x-www-form-urlencoded");
  request.body = "grant_type=refresh_token&refresh_token=" + formEscape(refresh) +
                 "&client_id=" + formEscape(config_.appKey);
  if (!config_.appSecret.empty()) request.body += "&client_secret=" + formEscape(config_.appSecret);
  request.maxResponseBytes = config_.maxResponseBytes;
  auto self = shared_from_this();
  transport_.submit(std::move(request), [self](HttpResponse response) {
    std::optional<DBRequestError> error;
    ClassifiedResponse c = classifyResponse(response, RouteStyle::kRpc);
    std::optional<DBOAuth2Token> updated;
    if (c.kind == ClassifiedResponse::Kind::kResult) {
      const auto& v = c.value;
      auto access = v.is_object() ? v.find("access_token") : v.end();
      auto expires = v.is_object() ? v.find("expires_in") : v.end();
      std::optional<DBTimestamp> expiresAt;
      bool expiryFits = true;
      if (expires != v.end() && expires->is_number_integer() && expires->get<int64_t>() >= 0) {
        expiresAt = timestampAfter(Env::current().now(),
                                   std::chrono::seconds(expires->get<int64_t>()));
        expiryFits = expiresAt.has_value();
      }
      if (!expiryFits) {
        error = DBRequestError::transport(kURLErrorCannotParseResponse,
                                          "oauth2/token: expires_in out of range");
      } else if (v.is_object() && access != v.end() && access->is_string() &&
                 !access->get_ref<const std::string&>().empty()) {
        std::lock_guard lock(self->mutex_);
        self->token_.accessToken = access->get<std::string>();
        self->token_.expiresAt = expiresAt;
        updated = self->token_;
      } else {
        error = DBRequestError::transport(kURLErrorCannotParseResponse,
                                          "oauth2/token: answer without access_token");
      }
    } else if (c.kind == ClassifiedResponse::Kind::kRequestError) {
      error = c.requestError;
    } else {
      error = requestErrorForStatus(response);
    }
    if (updated && self->tokenStore_) {
      // Keep whatever else the store holds (OAuth 1 tokens awaiting migration).
      auto contents = loadTokenStore(*self->tokenStore_).value_or(DBTokenStoreContents{});
      contents.oauth2 = *updated;
      if (!saveTokenStore(*self->tokenStore_, contents)) {
        log::warning("dbx: refreshed access token could not be written to the token store");
      }
    }
    if (error) log::warning("dbx: access token refresh failed: " + error->description());
    std::vector<std::function<void(std::optional<DBRequestError>)>> waiters;
    {
      std::lock_guard lock(self->mutex_);
      waiters.swap(self->refreshWaiters_);
      self->refreshing_ = false;
    }
    for (auto& waiter : waiters) waiter(error);
  });
}

}  // namespace wdc::dbx::detail
