#include "emulated_dropbox.h"

#include "dbx/clients_manager.h"

namespace wdc::testing_support {

EmulatedDropbox::EmulatedDropbox() {
  WebDAVConnect::resetDropboxRateLimitStateForTesting();
  tokenStorePath_ = env_.temporaryDirectory() / "tokens.json";
  certificatePath_ = env_.temporaryDirectory() / "emulator.pem";
  emulator_ = std::make_unique<emu::Emulator>(emu::EmulatorOptions{
      .tls = true, .token = kAccessToken, .appKey = WDC_DROPBOX_APP_KEY,
      .appSecret = WDC_DROPBOX_APP_SECRET});
  std::string reason;
  if (!emulator_->start(&reason)) ADD_FAILURE() << "emulator did not start: " << reason;
  if (!emulator_->writeCertificate(certificatePath_, &reason)) ADD_FAILURE() << reason;
}

EmulatedDropbox::~EmulatedDropbox() {
  dbx::DBClientsManager::resetClients();
  emulator_->stop();
  WebDAVConnect::resetDropboxRateLimitStateForTesting();
}

void EmulatedDropbox::setUpClients(const dbx::DBTokenStoreContents& store) {
  ASSERT_TRUE(dbx::saveTokenStore(tokenStorePath_, store));
  dbx::DBClientConfig config;
  config.apiBaseUrl = emulator_->baseUrl();
  config.contentBaseUrl = emulator_->baseUrl();
  config.caFile = certificatePath_;
  config.tokenStorePath = tokenStorePath_;
  config.connectTimeout = std::chrono::milliseconds(2000);
  config.idleTimeout = std::chrono::milliseconds(5000);
  std::optional<Error> error;
  ASSERT_TRUE(dbx::DBClientsManager::setupWithConfig(config, &error))
      << (error ? error->description() : "");
}

dbx::DBTokenStoreContents EmulatedDropbox::accessTokenOnly() {
  dbx::DBTokenStoreContents store;
  store.oauth2 = dbx::DBOAuth2Token{.uid = "dbid:test", .accessToken = kAccessToken, .refreshToken = {}, .expiresAt = {}};
  return store;
}

std::shared_ptr<WebDAVConnect> EmulatedDropbox::newConnection() {
  auto connection =
      WebDAVConnect::initWithConnectionType(kConnectionTypeDropbox, std::nullopt, std::nullopt);
  connection->queueToUse = std::make_shared<SerialQueue>("test.dropbox.answers");
  return connection;
}

void EmulatedDropbox::failNext(const std::string& route, emu::FaultKind kind, uint64_t count,
                               std::optional<uint32_t> argument,
                               emu::RetryAfterPlacement placement) {
  emulator_->addFault(emu::FaultRule{.route = route, .kind = kind, .argument = argument,
                                     .placement = placement, .count = count});
}

std::vector<double> EmulatedDropbox::sleptSeconds() const {
  std::vector<double> seconds;
  for (auto slept : env_.sleeps()) seconds.push_back(std::chrono::duration<double>(slept).count());
  return seconds;
}

}  // namespace wdc::testing_support
