// The process-wide owner of the Dropbox client: its configuration, the token store, and the one
// authorized client every Dropbox operation takes at the moment it starts. Also moves OAuth 1
// tokens left by older host versions to OAuth 2 (auth/token/from_oauth1).
#pragma once

#include <array>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "dbx/client_config.h"
#include "dbx/token_store.h"
#include "dbx/user_client.h"
#include "webdavconnect/error.h"
#include "webdavconnect/operation_queue.h"

namespace wdc::dbx {

// Migration outcome: whether trying again later could help (transport failures, 429, 5xx),
// whether the server refused the app key or secret, and the tokens that were not migrated, each
// as {Dropbox user id, OAuth 1 access token, OAuth 1 access token secret, stored app key}.
using DBTokenMigrationResponseBlock =
    std::function<void(bool shouldRetry, bool invalidAppKeyOrSecret,
                       const std::vector<std::array<std::string, 4>>& unsuccessfullyMigratedTokens)>;

// All members are static and thread-safe.
class DBClientsManager {
 public:
  DBClientsManager() = delete;

  // Sets the configuration and reads the token store; a stored OAuth 2 token makes an authorized
  // client at once. Replaces (and closes) any earlier client. False and an error when the store
  // exists but cannot be read; the manager is then configured but unlinked.
  static bool setupWithConfig(DBClientConfig config, ErrorOut error = nullptr);

  // The authorized client, or null when no account is linked (or setup was never called).
  [[nodiscard]] static std::shared_ptr<DBUserClient> authorizedClient();

  // Links an account: stores `token` (mode 0600) and makes it the authorized client, closing any
  // earlier one. The host performs the OAuth flow; this is where its outcome lands.
  static bool authorizeWithToken(DBOAuth2Token token, ErrorOut error = nullptr);

  // Makes `token` the authorized client for this process only: the token store is not touched.
  static void useTokenForProcess(DBOAuth2Token token);

  // Forgets the linked account: closes the client (its connections are gone when this returns)
  // and removes the OAuth 2 token from the store. OAuth 1 tokens stay.
  static void unlinkAndResetClients();
  // Closes and drops the client without touching the store; setupWithConfig brings it back.
  static void resetClients();

  // Answers at once whether the store holds OAuth 1 tokens and a migration was started. If so,
  // each token is exchanged with `appKey`/`appSecret` (app-authenticated), the first OAuth 2 token
  // obtained is stored and authorized, migrated OAuth 1 tokens leave the store, and
  // `responseBlock` runs once on `queue` (main queue when null) with the outcome. If not, the
  // block is never called.
  static bool checkAndPerformV1TokenMigration(DBTokenMigrationResponseBlock responseBlock,
                                              std::shared_ptr<OperationQueue> queue,
                                              const std::string& appKey,
                                              const std::string& appSecret);

  // The configuration in force (defaults before setup).
  [[nodiscard]] static DBClientConfig config();
};

}  // namespace wdc::dbx
