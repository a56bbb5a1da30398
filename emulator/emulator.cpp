// The Emulator's public face and the request pipeline every route goes through: counting, fault
// injection, latency, authentication and argument decoding.
#include "emulator/emulator.h"

#include <algorithm>
#include <fstream>

#include "emulator/emulator_impl.h"
#include "emulator/listener.h"
#include "platform/env.h"
#include "webdavconnect/data_codecs.h"

namespace wdc::emu {
namespace {

constexpr RouteEntry kRoutes[] = {
    {"users/get_current_account", RouteStyle::kRpc, RouteAuth::kUser, true,
     handleGetCurrentAccount},
    {"oauth2/token", RouteStyle::kForm, RouteAuth::kNone, true, handleOAuth2Token},
    {"oauth2/authorize", RouteStyle::kPage, RouteAuth::kNone, true, handleOAuth2Authorize},
    {"files/list_folder/longpoll", RouteStyle::kRpc, RouteAuth::kNone, false,
     handleListFolderLongpoll},
    {"auth/token/from_oauth1", RouteStyle::kRpc, RouteAuth::kApp, false, handleTokenFromOAuth1},
    {"files/list_folder", RouteStyle::kRpc, RouteAuth::kUser, false, handleListFolder},
    {"files/list_folder/continue", RouteStyle::kRpc, RouteAuth::kUser, false,
     handleListFolderContinue},
    {"files/search", RouteStyle::kRpc, RouteAuth::kUser, false, handleSearch},
    {"files/search_v2", RouteStyle::kRpc, RouteAuth::kUser, false, handleSearchV2},
    {"files/search/continue_v2", RouteStyle::kRpc, RouteAuth::kUser, false, handleSearchContinueV2},
    {"files/create_folder_v2", RouteStyle::kRpc, RouteAuth::kUser, false, handleCreateFolder},
    {"files/upload", RouteStyle::kUpload, RouteAuth::kUser, false, handleUpload},
    {"files/upload_session/start", RouteStyle::kUpload, RouteAuth::kUser, false,
     handleUploadSessionStart},
    {"files/upload_session/append_v2", RouteStyle::kUpload, RouteAuth::kUser, false,
     handleUploadSessionAppend},
    {"files/upload_session/finish_batch", RouteStyle::kRpc, RouteAuth::kUser, false,
     handleFinishBatch},
    {"files/upload_session/finish_batch/check", RouteStyle::kRpc, RouteAuth::kUser, false,
     handleFinishBatchCheck},
    {"files/upload_session/finish_batch_v2", RouteStyle::kRpc, RouteAuth::kUser, false,
     handleFinishBatchV2},
    {"files/download", RouteStyle::kDownload, RouteAuth::kUser, false, handleDownload},
    {"files/download_zip", RouteStyle::kDownload, RouteAuth::kUser, false, handleDownloadZip},
    {"files/delete_v2", RouteStyle::kRpc, RouteAuth::kUser, false, handleDelete},
    {"files/delete_batch", RouteStyle::kRpc, RouteAuth::kUser, false, handleDeleteBatch},
    {"files/delete_batch/check", RouteStyle::kRpc, RouteAuth::kUser, false, handleDeleteBatchCheck},
};

bool isJsonType(std::string_view type) {
  return type == "application/json" || type == "application/json; charset=utf-8" ||
         type == "text/plain; charset=dropbox-cors-hack";
}

bool isOctetType(std::string_view type) {
  return type == "application/octet-stream" || type == "text/plain; charset=dropbox-cors-hack";
}

void replyRateLimit(Exchange& exchange, const FaultRule& rule) {
  const char* reason = rule.kind == FaultKind::kTooManyWriteOperations ? "too_many_write_operations"
                                                                       : "too_many_requests";
  Json error{{"reason", tag(reason)}};
  if (rule.argument && (rule.placement == RetryAfterPlacement::kHeaderAndBody ||
                        rule.placement == RetryAfterPlacement::kBodyOnly)) {
    error["retry_after"] = *rule.argument;
  }
  if (rule.argument && (rule.placement == RetryAfterPlacement::kHeaderAndBody ||
                        rule.placement == RetryAfterPlacement::kHeaderOnly)) {
    exchange.replyHeaders.emplace_back("Retry-After", std::to_string(*rule.argument));
  }
  if (rule.argument && rule.placement == RetryAfterPlacement::kHeaderOnly) {
    // The plain-text form: only the header says how long to wait.
    return exchange.replyText(429, reason);
  }
  exchange.replyJson(Json{{"error_summary", std::string(reason) + "/.."}, {"error", error}}, 429);
}

// Flips every bit of eight bytes spread over the body (all of a shorter one): the length and the
// headers stay, so only a check of the content itself can notice.
void corruptReplyBody(std::string& body) {
  if (body.empty()) return;
  const size_t step = std::max<size_t>(1, body.size() / 8);
  for (size_t i = step / 2; i < body.size(); i += step) body[i] = static_cast<char>(~body[i]);
}

}  // namespace

const RouteEntry* findRoute(std::string_view name) {
  for (const RouteEntry& route : kRoutes) {
    if (route.name == name) return &route;
  }
  return nullptr;
}

Emulator::Impl::Impl(EmulatorOptions emulatorOptions)
    : options(std::move(emulatorOptions)),
      faults(options.faultSeed),
      store(options.mirrorDirectory),
      accessTokenLifetime(options.accessTokenLifetime),
      batchCheckPolls(options.batchCheckPolls),
      zipMaxEntries(options.zipMaxEntries),
      zipMaxBytes(options.zipMaxBytes) {}

Emulator::Impl::~Impl() = default;

Env& Emulator::Impl::env() const { return options.env ? *options.env : Env::current(); }

TimePoint Emulator::Impl::now() const { return env().now(); }

void Emulator::Impl::pause(uint32_t ms) {
  if (ms == 0) return;
  std::unique_lock lock(pauseMutex);
  env().waitFor(pauseCv, lock, std::chrono::milliseconds(ms), [this] { return stopping.load(); });
}

std::string Emulator::Impl::newCursor(CursorState state) {
  // Opaque to clients; long enough to look like Dropbox's and never empty.
  const std::string cursor =
      "AAEmuCursor" + std::to_string(++cursorCounter) + "x" + std::to_string(state.sequence);
  cursors.insert_or_assign(cursor, std::move(state));
  return cursor;
}

std::string Emulator::Impl::newJobId() { return "dbjid:AAEmuJob" + std::to_string(++jobCounter); }

bool Emulator::Impl::checkUserAuth(Exchange& exchange) {
  const std::string& header = exchange.authorization;
  if (header.empty()) {
    exchange.replyBadInput(
        "Must provide HTTP header \"Authorization\" or URL parameter \"authorization\".");
    return false;
  }
  if (header.rfind("Bearer ", 0) != 0 || header.size() == 7) {
    exchange.replyBadInput("Invalid authorization value in HTTP header \"Authorization\": \"" +
                           header.substr(0, header.find(' ')) +
                           " ...\".  Expecting \"Bearer <oauth2-access-token>\".");
    return false;
  }
  const std::string_view token = std::string_view(header).substr(7);
  std::lock_guard lock(mutex);
  if (const auto issued = issuedTokens.find(token); issued != issuedTokens.end()) {
    if (env().uptime() >= issued->second) {
      exchange.replyAuthError("expired_access_token");
      return false;
    }
    return true;
  }
  if (migratedTokens.contains(token)) return true;
  if (!options.token.empty() && token != options.token) {
    exchange.replyAuthError("invalid_access_token");
    return false;
  }
  if (configuredTokenExpired) {
    exchange.replyAuthError("expired_access_token");
    return false;
  }
  return true;
}

bool Emulator::Impl::checkAppAuth(Exchange& exchange) {
  const std::string& header = exchange.authorization;
  if (header.rfind("Basic ", 0) != 0 || header.size() == 6) {
    exchange.replyBadInput(
        "Invalid authorization value in HTTP header \"Authorization\".  Expecting \"Basic "
        "<app_key:app_secret>\".");
    return false;
  }
  if (options.appKey.empty() && options.appSecret.empty()) return true;
  const Bytes decoded = base64Decoded(Bytes(header.begin() + 6, header.end()));
  if (std::string(decoded.begin(), decoded.end()) != options.appKey + ":" + options.appSecret) {
    exchange.replyAuthError("invalid_access_token");
    return false;
  }
  return true;
}

std::optional<FaultKind> Emulator::Impl::serve(Exchange& exchange) {
  const std::optional<FaultKind> transportFault = answer(exchange);
  if (departureObserver) departureObserver(exchange.route, env().uptime());
  return transportFault;
}

std::optional<FaultKind> Emulator::Impl::answer(Exchange& exchange) {
  const auto arrival = env().uptime();
  {
    std::lock_guard lock(mutex);
    ++counts[exchange.route];
    ++total;
  }
  const FaultDecision decision = faults.decide(exchange.route);
  if (arrivalObserver) {
    const bool rateLimited =
        decision.fault && (decision.fault->kind == FaultKind::kTooManyRequests ||
                           decision.fault->kind == FaultKind::kTooManyWriteOperations);
    arrivalObserver(exchange.route, rateLimited, arrival);
  }
  pause(options.latencyMs + decision.latencyMs);
  std::optional<FaultKind> transportFault;
  bool corruptBody = false;
  if (decision.fault) {
    const FaultRule& rule = *decision.fault;
    switch (rule.kind) {
      case FaultKind::kDrop:
        return FaultKind::kDrop;
      case FaultKind::kTruncate:
        transportFault = FaultKind::kTruncate;
        break;
      case FaultKind::kCorrupt:
        corruptBody = true;
        break;
      case FaultKind::kTooManyRequests:
      case FaultKind::kTooManyWriteOperations:
        replyRateLimit(exchange, rule);
        return std::nullopt;
      case FaultKind::kInternalError:
        exchange.replyText(500, "");
        return std::nullopt;
      case FaultKind::kUnavailable:
        exchange.replyText(503, "");
        return std::nullopt;
      case FaultKind::kReset:
        exchange.replyRouteError(tag("reset"));
        return std::nullopt;
      case FaultKind::kTooManyFiles:
        exchange.replyRouteError(tag("too_many_files"));
        return std::nullopt;
      case FaultKind::kLatency:
        break;
    }
  }

  const RouteEntry* route = findRoute(exchange.route);
  if (route == nullptr) {
    exchange.replyText(404, "Unknown API function: \"" + exchange.route + "\"");
    return transportFault;
  }
  if (exchange.method != "POST" &&
      !(exchange.method == "GET" &&
        (route->style == RouteStyle::kDownload || route->style == RouteStyle::kPage))) {
    exchange.replyText(405, "Method not allowed");
    return transportFault;
  }
  if (route->auth == RouteAuth::kUser && !checkUserAuth(exchange)) return transportFault;
  if (route->auth == RouteAuth::kApp && !checkAppAuth(exchange)) return transportFault;

  Json arg;
  switch (route->style) {
    case RouteStyle::kForm:
    case RouteStyle::kPage:
      break;
    case RouteStyle::kRpc: {
      const bool empty = exchange.body.empty();
      if (!(empty && route->voidArgument) &&
          !(exchange.contentType && isJsonType(*exchange.contentType))) {
        exchange.replyBadInput("Bad HTTP \"Content-Type\" header: \"" +
                               exchange.contentType.value_or("") +
                               "\".  Expecting one of \"application/json\", \"application/json; "
                               "charset=utf-8\", \"text/plain; charset=dropbox-cors-hack\".");
        return transportFault;
      }
      if (!empty) {
        std::optional<Json> parsed = parseJson(exchange.body);
        if (!parsed) {
          exchange.replyBadInput("request body: could not decode input as JSON");
          return transportFault;
        }
        arg = std::move(*parsed);
      }
      if (route->voidArgument && !arg.is_null()) {
        exchange.replyBadInput("request body: expected null, got value");
        return transportFault;
      }
      break;
    }
    case RouteStyle::kUpload:
    case RouteStyle::kDownload: {
      if (route->style == RouteStyle::kUpload &&
          !(exchange.contentType && isOctetType(*exchange.contentType))) {
        exchange.replyBadInput("Bad HTTP \"Content-Type\" header: \"" +
                               exchange.contentType.value_or("") +
                               "\".  Expecting one of \"application/octet-stream\", "
                               "\"text/plain; charset=dropbox-cors-hack\".");
        return transportFault;
      }
      if (!exchange.apiArg) {
        exchange.replyBadInput(
            "Must provide HTTP header \"Dropbox-API-Arg\" or URL parameter "
            "\"arg\".");
        return transportFault;
      }
      std::optional<Json> parsed = parseJson(*exchange.apiArg);
      if (!parsed) {
        exchange.replyBadInput("HTTP header \"Dropbox-API-Arg\": could not decode input as JSON");
        return transportFault;
      }
      arg = std::move(*parsed);
      break;
    }
  }
  route->handler(*this, exchange, arg);
  if (corruptBody && exchange.status == 200) corruptReplyBody(exchange.replyBody);
  return transportFault;
}

// --- Emulator ---------------------------------------------------------------------------------

Emulator::Emulator(EmulatorOptions options) : impl_(std::make_unique<Impl>(std::move(options))) {
  impl_->listener = std::make_unique<Listener>(*impl_);
}

Emulator::~Emulator() { stop(); }

bool Emulator::start(std::string* error) {
  impl_->stopping = false;
  // After a stop, come back on the same port so clients configured with baseUrl() reconnect.
  const uint16_t port = impl_->options.port != 0 ? impl_->options.port : impl_->listener->port();
  if (impl_->listener->start(impl_->options.tls, port, error)) return true;
  return port != 0 && impl_->options.port == 0 &&
         impl_->listener->start(impl_->options.tls, 0, error);
}

void Emulator::stop() {
  {
    std::lock_guard lock(impl_->pauseMutex);
    impl_->stopping = true;
  }
  impl_->pauseCv.notify_all();
  impl_->listener->stop();
}

bool Emulator::running() const { return impl_->listener->running(); }

uint16_t Emulator::port() const { return impl_->listener->port(); }

std::string Emulator::baseUrl() const {
  return (impl_->options.tls ? "https://" : "http://") + hostAndPort();
}

std::string Emulator::hostAndPort() const { return "127.0.0.1:" + std::to_string(port()); }

std::string Emulator::certificatePem() const { return impl_->listener->certificatePem(); }

bool Emulator::writeCertificate(const std::filesystem::path& path, std::string* error) const {
  const std::string pem = certificatePem();
  if (pem.empty()) {
    if (error) *error = "the emulator has no certificate (TLS off or not started)";
    return false;
  }
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << pem;
  out.close();
  if (!out) {
    if (error) *error = "cannot write " + path.string();
    return false;
  }
  return true;
}

void Emulator::addFault(FaultRule rule) { impl_->faults.add(std::move(rule)); }

void Emulator::clearFaults() { impl_->faults.clear(); }

void Emulator::invalidateCursors() {
  std::lock_guard lock(impl_->mutex);
  impl_->cursors.clear();
}

void Emulator::setArrivalObserver(ArrivalObserver observer) {
  impl_->arrivalObserver = std::move(observer);
}

void Emulator::setDepartureObserver(DepartureObserver observer) {
  impl_->departureObserver = std::move(observer);
}

std::map<std::string, uint64_t> Emulator::injectedFaultCounts() const {
  return impl_->faults.appliedCounts();
}

uint64_t Emulator::requestCount(std::string_view route) const {
  std::lock_guard lock(impl_->mutex);
  if (route == "*") return impl_->total;
  const auto it = impl_->counts.find(route);
  return it == impl_->counts.end() ? 0 : it->second;
}

void Emulator::resetRequestCounts() {
  std::lock_guard lock(impl_->mutex);
  impl_->counts.clear();
  impl_->total = 0;
}

namespace {
EntryInfo toInfo(const StoredEntry& entry) {
  return EntryInfo{entry.pathDisplay,
                   entry.isFolder,
                   entry.id,
                   entry.rev,
                   entry.contentHash,
                   entry.size(),
                   entry.clientModified,
                   entry.serverModified};
}
}  // namespace

std::optional<EntryInfo> Emulator::putFile(std::string_view path, std::string_view contents,
                                           std::optional<TimePoint> clientModified) {
  std::lock_guard lock(impl_->mutex);
  const WriteOutcome outcome =
      impl_->store.writeFile(path, std::make_shared<const std::string>(contents), clientModified,
                             WriteMode{WriteMode::kOverwrite, {}, false, false}, impl_->now());
  if (outcome.entry == nullptr) return std::nullopt;
  return toInfo(*outcome.entry);
}

bool Emulator::createFolder(std::string_view path) {
  std::lock_guard lock(impl_->mutex);
  if (const StoredEntry* existing = impl_->store.find(path)) return existing->isFolder;
  return impl_->store.createFolder(path, false, impl_->now()).entry != nullptr;
}

void Emulator::omitClientModifiedInListings(std::string_view path) {
  std::lock_guard lock(impl_->mutex);
  impl_->listedWithoutClientModified.insert(Store::lowerPath(path));
}

bool Emulator::removePath(std::string_view path) {
  std::lock_guard lock(impl_->mutex);
  return impl_->store.remove(path).has_value();
}

std::optional<std::string> Emulator::readFile(std::string_view path) const {
  std::lock_guard lock(impl_->mutex);
  const StoredEntry* entry = impl_->store.find(path);
  if (entry == nullptr || entry->isFolder) return std::nullopt;
  return *entry->contents;
}

std::optional<EntryInfo> Emulator::lookup(std::string_view path) const {
  std::lock_guard lock(impl_->mutex);
  const StoredEntry* entry = impl_->store.find(path);
  if (entry == nullptr) return std::nullopt;
  return toInfo(*entry);
}

std::vector<std::string> Emulator::listPaths() const {
  std::lock_guard lock(impl_->mutex);
  std::vector<std::string> paths;
  for (const StoredEntry* entry : impl_->store.all()) paths.push_back(entry->pathDisplay);
  return paths;
}

void Emulator::setAccessTokenLifetime(std::chrono::seconds lifetime) {
  std::lock_guard lock(impl_->mutex);
  impl_->accessTokenLifetime = lifetime;
}

void Emulator::setBatchCheckPolls(uint32_t polls) {
  std::lock_guard lock(impl_->mutex);
  impl_->batchCheckPolls = polls;
}

void Emulator::setDownloadZipLimits(uint64_t maxEntries, uint64_t maxBytes) {
  std::lock_guard lock(impl_->mutex);
  impl_->zipMaxEntries = maxEntries;
  impl_->zipMaxBytes = maxBytes;
}

void Emulator::expireAccessTokens(bool includeConfigured) {
  std::lock_guard lock(impl_->mutex);
  const auto now = impl_->env().uptime();
  for (auto& [token, expiry] : impl_->issuedTokens) expiry = std::min(expiry, now);
  if (includeConfigured) impl_->configuredTokenExpired = true;
}

void Emulator::addRefreshToken(std::string refreshToken) {
  std::lock_guard lock(impl_->mutex);
  impl_->refreshTokens.insert(std::move(refreshToken));
}

void Emulator::addOAuth1Token(std::string token, std::string secret) {
  std::lock_guard lock(impl_->mutex);
  impl_->oauth1Tokens.insert_or_assign(std::move(token), std::move(secret));
}

uint64_t Emulator::issuedAccessTokenCount() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->tokenCounter;
}

}  // namespace wdc::emu
