// The public face of the clients manager: the host's configuration mapped onto DBClientConfig,
// whose defaults stay the single source for every field the host leaves absent.
#include "webdavconnect/dropbox_client_config.h"

#include "dbx/clients_manager.h"

namespace wdc {

bool setUpDropboxClient(const DropboxClientConfig& config, ErrorOut error) {
  dbx::DBClientConfig client;
  client.appKey = WDC_DROPBOX_APP_KEY;
  client.appSecret = WDC_DROPBOX_APP_SECRET;
  if (config.apiBaseUrl) client.apiBaseUrl = *config.apiBaseUrl;
  if (config.contentBaseUrl) client.contentBaseUrl = *config.contentBaseUrl;
  if (config.caFile) client.caFile = *config.caFile;
  if (config.tokenStorePath) client.tokenStorePath = *config.tokenStorePath;
  if (config.appKey) client.appKey = *config.appKey;
  if (config.appSecret) client.appSecret = *config.appSecret;
  if (config.connectTimeout) client.connectTimeout = *config.connectTimeout;
  if (config.idleTimeout) client.idleTimeout = *config.idleTimeout;
  return dbx::DBClientsManager::setupWithConfig(std::move(client), error);
}

bool linkDropboxAccount(const DropboxAccountToken& token, ErrorOut error) {
  return dbx::DBClientsManager::authorizeWithToken(
      dbx::DBOAuth2Token{.uid = {},
                         .accessToken = token.accessToken,
                         .refreshToken = token.refreshToken,
                         .expiresAt = token.expiresAt},
      error);
}

void unlinkDropboxAccount() { dbx::DBClientsManager::unlinkAndResetClients(); }

bool isDropboxAccountLinked() { return dbx::DBClientsManager::authorizedClient() != nullptr; }

}  // namespace wdc
