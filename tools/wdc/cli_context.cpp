#include "tools/wdc/cli_context.h"

#include <cstdlib>
#include <filesystem>

#include "dbx/clients_manager.h"
#include "platform/logger.h"
#include "webdavconnect/operation_queue.h"

namespace wdc::cli {

std::string failureText(const std::string& what, const std::optional<Error>& error) {
  if (!error) return what;
  return what + ": " + error->localizedDescription();
}

void applyLogLevel(const std::string& level) {
  if (level == "off") {
    log::setConsoleOutput(false);
    return;
  }
  static const std::pair<const char*, log::Level> kLevels[] = {
      {"error", log::Level::kError}, {"warning", log::Level::kWarning},
      {"info", log::Level::kInfo},   {"debug", log::Level::kDebug},
      {"verbose", log::Level::kVerbose}};
  for (const auto& [name, value] : kLevels) {
    if (level == name) {
      log::setConsoleOutput(true);
      log::setLevel(value);
      return;
    }
  }
  throw CommandFailure("--log-level must be one of off, error, warning, info, debug, verbose", 2);
}

dbx::DBClientConfig clientConfig(const GlobalOptions& options) {
  dbx::DBClientConfig config;
  config.apiBaseUrl = options.apiUrl;
  config.contentBaseUrl = options.contentUrl;
  if (!options.notifyUrl.empty()) {
    config.notifyBaseUrl = options.notifyUrl;
  } else if (options.apiUrl != GlobalOptions{}.apiUrl) {
    config.notifyBaseUrl = options.apiUrl;
  }
  // Absolute, because some commands change the current directory (the lock upload needs it).
  if (!options.caFile.empty()) config.caFile = std::filesystem::absolute(options.caFile);
  if (!options.tokenStore.empty()) {
    config.tokenStorePath = std::filesystem::absolute(options.tokenStore);
  }
  // A failing server should end a command within seconds, not minutes.
  config.connectTimeout = std::chrono::seconds(5);
  config.idleTimeout = std::chrono::seconds(options.longWaits ? 130 : 30);
  return config;
}

std::shared_ptr<WebDAVConnect> openStore(const GlobalOptions& options) {
  applyLogLevel(options.logLevel);
  std::string token = options.token;
  if (token.empty()) {
    if (const char* fromEnvironment = std::getenv("WDC_TOKEN")) token = fromEnvironment;
  }
  std::optional<Error> error;
  dbx::DBClientConfig config = clientConfig(options);
  if (token.empty()) {
    // A token linked by `wdc link` refreshes as the app it was issued to, without a secret.
    auto stored = dbx::loadTokenStore(dbx::resolvedTokenStorePath(config));
    if (stored && stored->oauth2AppKey) config.appKey = *stored->oauth2AppKey;
  }
  const bool storeRead = dbx::DBClientsManager::setupWithConfig(config, &error);
  if (!token.empty()) {
    // A token given on the command line or in the environment is used, never stored.
    dbx::DBOAuth2Token given;
    given.accessToken = token;
    dbx::DBClientsManager::useTokenForProcess(std::move(given));
  } else if (!storeRead) {
    throw CommandFailure(failureText("cannot read the token store", error));
  }
  if (!dbx::DBClientsManager::authorizedClient()) {
    throw CommandFailure("no account is linked: run `wdc link`, or pass --token or WDC_TOKEN");
  }
  auto connection = WebDAVConnect::initWithConnectionType(kConnectionTypeDropbox, std::nullopt,
                                                          std::nullopt);
  connection->queueToUse = std::make_shared<SerialQueue>("wdc.answers");
  return connection;
}

}  // namespace wdc::cli
