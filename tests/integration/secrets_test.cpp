// Tokens and the app secret stay out of everything a host shows or files away: log lines at info
// level and above, and the error values operations hand back. Each case drives a real exchange
// (refresh, expired and refused tokens, linking, broken token stores) with the log at its most
// verbose, then looks for every secret in what came out.
#include <gmock/gmock.h>

#include <fstream>

#include "dbx/clients_manager.h"
#include "emulated_dropbox.h"
#include "webdavconnect/dropbox_client_config.h"

namespace wdc::testing_support {
namespace {

constexpr const char* kRefreshToken = "refresh-Secret-0042";
constexpr const char* kRefusedAccessToken = "refused-Secret-Access-17";
constexpr const char* kLinkedAccessToken = "linked-Secret-Access-23";
constexpr const char* kLinkedRefreshToken = "linked-Secret-Refresh-23";

class Secrets : public EmulatedDropbox {
 protected:
  std::vector<std::string> secrets() const {
    std::vector<std::string> all = {kAccessToken,       kRefreshToken,       WDC_DROPBOX_APP_SECRET,
                                     kRefusedAccessToken, kLinkedAccessToken, kLinkedRefreshToken};
    all.insert(all.end(), issued_.begin(), issued_.end());
    return all;
  }

  // Access tokens the emulator handed out, read back from the token store after a refresh.
  void noteIssuedTokens() {
    if (auto stored = dbx::loadTokenStore(tokenStorePath_, nullptr); stored && stored->oauth2) {
      issued_.push_back(stored->oauth2->accessToken);
    }
  }

  void expectNoSecretIn(const std::string& text, const std::string& where) const {
    for (const std::string& secret : secrets()) {
      EXPECT_EQ(text.find(secret), std::string::npos) << where << " holds " << secret << ": " << text;
    }
  }
  void expectNoSecretIn(const std::optional<Error>& error) const {
    ASSERT_TRUE(error);
    expectNoSecretIn(error->description(), "error description");
    expectNoSecretIn(error->localizedDescription(), "localized description");
    for (size_t i = 0; i < error->userInfo().size(); ++i) {
      const PlistValue& value = error->userInfo().values()[i];
      if (value.isString()) expectNoSecretIn(value.asString(), error->userInfo().keys()[i]);
    }
  }
  // Lines a host keeps by default (info and above). Debug may name what the host asked to see.
  void expectNoSecretInLog() const {
    ASSERT_FALSE(log_.entries().empty());
    for (const auto& entry : log_.entries()) {
      if (entry.level <= log::Level::kInfo) expectNoSecretIn(entry.message, "log line");
    }
  }

  // The host's own set-up, with the app credentials a refresh needs, over `store`.
  DropboxClientConfig hostConfig() const {
    DropboxClientConfig config;
    config.apiBaseUrl = emulator_->baseUrl();
    config.contentBaseUrl = emulator_->baseUrl();
    config.caFile = certificatePath_;
    config.tokenStorePath = tokenStorePath_;
    config.appKey = WDC_DROPBOX_APP_KEY;
    config.appSecret = WDC_DROPBOX_APP_SECRET;
    return config;
  }
  void setUpHost(const dbx::DBTokenStoreContents& store) {
    ASSERT_TRUE(dbx::saveTokenStore(tokenStorePath_, store));
    std::optional<Error> error;
    ASSERT_TRUE(setUpDropboxClient(hostConfig(), &error)) << error->description();
  }

  std::vector<std::string> issued_;
};

dbx::DBTokenStoreContents refreshable(const std::string& access) {
  dbx::DBTokenStoreContents store;
  store.oauth2 = dbx::DBOAuth2Token{
      .uid = "dbid:test", .accessToken = access, .refreshToken = kRefreshToken, .expiresAt = {}};
  return store;
}

TEST_F(Secrets, ARefreshAndTheRequestsAroundItNameNoToken) {
  setUpHost(refreshable(kAccessToken));
  emulator_->expireAccessTokens(/*includeConfigured=*/true);
  auto connection = newConnection();
  std::optional<Error> error;
  ASSERT_TRUE(connection->getAccountUsername(&error));
  EXPECT_EQ(emulator_->requestCount("oauth2/token"), 1u);
  noteIssuedTokens();
  ASSERT_EQ(issued_.size(), 1u);
  EXPECT_NE(issued_.front(), kAccessToken);
  expectNoSecretInLog();
}

TEST_F(Secrets, ExpiredAndRefusedTokensFailWithoutNamingThemselves) {
  // Expired, with nothing to refresh it with.
  setUpHost(accessTokenOnly());
  emulator_->expireAccessTokens(/*includeConfigured=*/true);
  std::optional<Error> expired;
  EXPECT_FALSE(newConnection()->getAccountUsername(&expired));
  ASSERT_TRUE(expired);
  EXPECT_EQ(expired->code(), 401);
  expectNoSecretIn(expired);

  // Refused outright.
  setUpHost(refreshable(kRefusedAccessToken));
  std::optional<Error> refused;
  EXPECT_FALSE(newConnection()->getAccountUsername(&refused));
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->code(), 401);
  expectNoSecretIn(refused);

  // Expired, and the server refuses the refresh too: the original 401 comes back.
  emulator_->addRefreshToken("the-only-valid-refresh-token");
  setUpHost(refreshable(kAccessToken));
  std::optional<Error> refreshRefused;
  EXPECT_FALSE(newConnection()->getAccountUsername(&refreshRefused));
  ASSERT_TRUE(refreshRefused);
  EXPECT_EQ(refreshRefused->code(), 401);
  EXPECT_GE(emulator_->requestCount("oauth2/token"), 1u);
  expectNoSecretIn(refreshRefused);
  expectNoSecretInLog();
}

TEST_F(Secrets, LinkingAndBrokenTokenStoresNameNoToken) {
  DropboxClientConfig config = hostConfig();
  const DropboxAccountToken linked{kLinkedAccessToken, kLinkedRefreshToken, std::nullopt};

  // A store that cannot be written: its folder is a file.
  const auto blocker = env_.temporaryDirectory() / "not-a-folder";
  std::ofstream(blocker) << "x";
  config.tokenStorePath = blocker / "tokens.json";
  ASSERT_TRUE(setUpDropboxClient(config));
  std::optional<Error> unwritable;
  EXPECT_FALSE(linkDropboxAccount(linked, &unwritable));
  expectNoSecretIn(unwritable);

  // Stores that cannot be read back, each holding secrets around the damage.
  const auto store = env_.temporaryDirectory() / "damaged.json";
  config.tokenStorePath = store;
  for (const std::string& damaged :
       {std::string(R"({"version": 1, "oauth2": {"access_token": ")") + kLinkedAccessToken +
            R"(", "refresh_token": ")" + kLinkedRefreshToken + "\", }",
        std::string(R"({"version": 1, "oauth2": {"access_token": 7, "refresh_token": ")") +
            kLinkedRefreshToken + "\"}}",
        std::string(R"({"oauth1": [{"token": ")") + kLinkedAccessToken + R"(", "secret": 5}]})"}) {
    SCOPED_TRACE(damaged);
    std::ofstream(store, std::ios::trunc) << damaged;
    std::optional<Error> unreadable;
    EXPECT_FALSE(setUpDropboxClient(config, &unreadable));
    expectNoSecretIn(unreadable);
  }

  // A link that works, and an operation through it.
  std::filesystem::remove(store);
  ASSERT_TRUE(setUpDropboxClient(config));
  std::optional<Error> error;
  ASSERT_TRUE(linkDropboxAccount(linked, &error));
  std::optional<Error> refusedLinked;  // the emulator knows only its own token
  EXPECT_FALSE(newConnection()->getAccountUsername(&refusedLinked));
  expectNoSecretIn(refusedLinked);
  expectNoSecretInLog();
}

}  // namespace
}  // namespace wdc::testing_support
