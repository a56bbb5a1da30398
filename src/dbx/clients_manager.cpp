// Process-wide client state. The migration runs on a client of its own (app-authenticated, no
// user token), one token after another, and reports once on the caller's queue.
#include "dbx/clients_manager.h"

#include <mutex>

#include <fmt/format.h>

#include "dbx/client_core.h"
#include "dbx/json_codec.h"
#include "platform/logger.h"

namespace wdc::dbx {
namespace {

struct ManagerState {
  std::mutex mutex;
  DBClientConfig config;
  bool configured = false;
  std::shared_ptr<DBUserClient> client;
};

ManagerState& state() {
  static auto* instance = new ManagerState();  // never destroyed: used until exit
  return *instance;
}

// Closes `client` outside the manager's lock (closing joins its I/O thread).
void closeClient(std::shared_ptr<DBUserClient> client) {
  if (client) client->close();
}

struct Migration {
  std::shared_ptr<detail::ClientCore> core;
  std::vector<DBOAuth1Token> tokens;
  std::size_t next = 0;
  std::string credentials;
  std::string appKey;
  std::filesystem::path storePath;
  DBClientConfig config;
  bool shouldRetry = false;
  bool invalidAppKeyOrSecret = false;
  std::vector<std::array<std::string, 4>> unmigrated;
  std::vector<DBOAuth1Token> migrated;
  std::optional<DBOAuth2Token> obtained;
  DBTokenMigrationResponseBlock block;
  std::shared_ptr<OperationQueue> queue;
};

void finishMigration(const std::shared_ptr<Migration>& m) {
  // Update the store: migrated OAuth 1 tokens leave it, the first new OAuth 2 token joins it
  // unless an account is already linked.
  auto contents = loadTokenStore(m->storePath).value_or(DBTokenStoreContents{});
  std::erase_if(contents.oauth1, [&](const DBOAuth1Token& token) {
    for (const auto& done : m->migrated) {
      if (done.accessToken == token.accessToken && done.accessTokenSecret == token.accessTokenSecret) {
        return true;
      }
    }
    return false;
  });
  bool authorize = false;
  if (m->obtained && !contents.oauth2) {
    contents.oauth2 = m->obtained;
    authorize = true;
  }
  if (!saveTokenStore(m->storePath, contents)) {
    log::warning("dbx: token store could not be updated after the token migration");
  }
  auto run = [m, authorize] {
    // Off the I/O thread now: the migration client can be closed here.
    m->core->close();
    if (authorize) {
      std::shared_ptr<DBUserClient> previous;
      {
        auto& s = state();
        std::lock_guard lock(s.mutex);
        previous = std::move(s.client);
        s.client = DBUserClient::create(s.config, *m->obtained, resolvedTokenStorePath(s.config));
      }
      closeClient(std::move(previous));
    }
    m->block(m->shouldRetry, m->invalidAppKeyOrSecret, m->unmigrated);
  };
  if (m->queue) {
    m->queue->addOperation(std::move(run));
  } else {
    mainQueue().addOperation(std::move(run));
  }
}

void migrateNext(const std::shared_ptr<Migration>& m) {
  if (m->next >= m->tokens.size()) {
    finishMigration(m);
    return;
  }
  const DBOAuth1Token& token = m->tokens[m->next];
  detail::RouteCall call;
  call.route = "auth/token/from_oauth1";
  call.auth = detail::RouteAuth::kApp;
  call.appCredentials = m->credentials;
  call.argument = json::Json{{"oauth1_token", token.accessToken},
                             {"oauth1_token_secret", token.accessTokenSecret}}
                      .dump(-1, ' ', false, json::Json::error_handler_t::replace);
  m->core->send(std::move(call), std::make_shared<detail::CallHandle>(),
                [m](detail::RawOutcome raw) {
                  const DBOAuth1Token& current = m->tokens[m->next];
                  std::optional<std::string> oauth2;
                  if (raw.classified.kind == ClassifiedResponse::Kind::kResult) {
                    const auto& v = raw.classified.value;
                    auto it = v.is_object() ? v.find("oauth2_token") : v.end();
                    if (v.is_object() && it != v.end() && it->is_string() &&
                        !it->get_ref<const std::string&>().empty()) {
                      oauth2 = it->get<std::string>();
                    }
                  } else if (raw.classified.kind == ClassifiedResponse::Kind::kRequestError) {
                    const auto& error = *raw.classified.requestError;
                    if (error.kind == DBRequestError::Kind::kBadInput ||
                        error.kind == DBRequestError::Kind::kAuth) {
                      m->invalidAppKeyOrSecret = true;
                    } else if (error.kind == DBRequestError::Kind::kClient ||
                               error.kind == DBRequestError::Kind::kRateLimit ||
                               error.kind == DBRequestError::Kind::kInternalServer) {
                      m->shouldRetry = true;
                    }
                  }
                  if (oauth2) {
                    m->migrated.push_back(current);
                    if (!m->obtained) m->obtained = DBOAuth2Token{current.uid, *oauth2, {}, {}};
                  } else {
                    m->unmigrated.push_back({current.uid, current.accessToken,
                                             current.accessTokenSecret, current.appKey});
                  }
                  ++m->next;
                  migrateNext(m);
                });
}

}  // namespace

bool DBClientsManager::setupWithConfig(DBClientConfig config, ErrorOut error) {
  auto& s = state();
  std::shared_ptr<DBUserClient> previous;
  bool ok = true;
  {
    std::lock_guard lock(s.mutex);
    s.config = std::move(config);
    s.configured = true;
    previous = std::move(s.client);
    const auto path = resolvedTokenStorePath(s.config);
    auto contents = loadTokenStore(path, error);
    if (!contents) {
      ok = false;
    } else if (contents->oauth2 && !contents->oauth2->accessToken.empty()) {
      s.client = DBUserClient::create(s.config, *contents->oauth2, path);
    }
  }
  closeClient(std::move(previous));
  return ok;
}

std::shared_ptr<DBUserClient> DBClientsManager::authorizedClient() {
  auto& s = state();
  std::lock_guard lock(s.mutex);
  return s.client;
}

bool DBClientsManager::authorizeWithToken(DBOAuth2Token token, ErrorOut error) {
  auto& s = state();
  std::shared_ptr<DBUserClient> previous;
  {
    std::lock_guard lock(s.mutex);
    const auto path = resolvedTokenStorePath(s.config);
    auto contents = loadTokenStore(path).value_or(DBTokenStoreContents{});
    contents.oauth2 = token;
    if (!saveTokenStore(path, contents, error)) return false;
    previous = std::move(s.client);
    s.client = DBUserClient::create(s.config, std::move(token), path);
  }
  closeClient(std::move(previous));
  return true;
}

void DBClientsManager::useTokenForProcess(DBOAuth2Token token) {
  auto& s = state();
  std::shared_ptr<DBUserClient> previous;
  {
    std::lock_guard lock(s.mutex);
    previous = std::move(s.client);
    // No store path: a refresh (only possible with a refresh token) is kept in memory only.
    s.client = DBUserClient::create(s.config, std::move(token), std::nullopt);
  }
  closeClient(std::move(previous));
}

void DBClientsManager::unlinkAndResetClients() {
  auto& s = state();
  std::shared_ptr<DBUserClient> previous;
  {
    std::lock_guard lock(s.mutex);
    previous = std::move(s.client);
    const auto path = resolvedTokenStorePath(s.config);
    if (auto contents = loadTokenStore(path); contents && contents->oauth2) {
      contents->oauth2.reset();
      if (!saveTokenStore(path, *contents)) {
        log::warning("dbx: token store could not be updated while unlinking");
      }
    }
  }
  closeClient(std::move(previous));
}

void DBClientsManager::resetClients() {
  auto& s = state();
  std::shared_ptr<DBUserClient> previous;
  {
    std::lock_guard lock(s.mutex);
    previous = std::move(s.client);
  }
  closeClient(std::move(previous));
}

bool DBClientsManager::checkAndPerformV1TokenMigration(DBTokenMigrationResponseBlock responseBlock,
                                                       std::shared_ptr<OperationQueue> queue,
                                                       const std::string& appKey,
                                                       const std::string& appSecret) {
  auto m = std::make_shared<Migration>();
  {
    auto& s = state();
    std::lock_guard lock(s.mutex);
    m->config = s.config;
  }
  m->storePath = resolvedTokenStorePath(m->config);
  auto contents = loadTokenStore(m->storePath);
  if (!contents || contents->oauth1.empty()) return false;
  m->tokens = contents->oauth1;
  m->credentials = appKey + ":" + appSecret;
  m->appKey = appKey;
  m->block = responseBlock ? std::move(responseBlock)
                           : DBTokenMigrationResponseBlock([](bool, bool, const auto&) {});
  m->queue = std::move(queue);
  m->core = std::make_shared<detail::ClientCore>(m->config, DBOAuth2Token{}, std::nullopt);
  log::debug(fmt::format("dbx: migrating {} OAuth 1 token(s)", m->tokens.size()));
  migrateNext(m);
  return true;
}

DBClientConfig DBClientsManager::config() {
  auto& s = state();
  std::lock_guard lock(s.mutex);
  return s.config;
}

}  // namespace wdc::dbx
