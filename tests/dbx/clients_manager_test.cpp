// The process-wide manager: linking from the token store, unlinking, and the OAuth 1 migration.
#include "dbx/clients_manager.h"

#include "dbx/client_fixture.h"

namespace wdc::dbx {
namespace {

using testing::DbxClientTest;

class DbxClientsManagerTest : public DbxClientTest {
 protected:
  explicit DbxClientsManagerTest(emu::EmulatorOptions options = {.tls = true, .token = "T"})
      : DbxClientTest(std::move(options)) {}
  void SetUp() override {
    DbxClientTest::SetUp();
    managerConfig_ = config();
    managerConfig_.tokenStorePath = dir_.path() / "config" / "tokens.json";
  }
  void TearDown() override {
    DBClientsManager::resetClients();
    DbxClientTest::TearDown();
  }

  struct MigrationAnswer {
    bool shouldRetry;
    bool invalidAppKeyOrSecret;
    std::vector<std::array<std::string, 4>> unmigrated;
  };
  std::optional<MigrationAnswer> migrate(const std::string& key, const std::string& secret) {
    auto promise = std::make_shared<std::promise<MigrationAnswer>>();
    auto future = promise->get_future();
    const bool started = DBClientsManager::checkAndPerformV1TokenMigration(
        [promise](bool retry, bool invalid, const std::vector<std::array<std::string, 4>>& left) {
          promise->set_value({retry, invalid, left});
        },
        queue_, key, secret);
    if (!started) return std::nullopt;
    EXPECT_EQ(future.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    return future.get();
  }

  DBClientConfig managerConfig_;
};

TEST_F(DbxClientsManagerTest, LinksFromTheStoreAndUnlinks) {
  ASSERT_TRUE(DBClientsManager::setupWithConfig(managerConfig_));
  EXPECT_EQ(DBClientsManager::authorizedClient(), nullptr);

  ASSERT_TRUE(DBClientsManager::authorizeWithToken({"dbid:1", "T", std::nullopt, std::nullopt}));
  auto client = DBClientsManager::authorizedClient();
  ASSERT_NE(client, nullptr);
  EXPECT_TRUE(await(client->usersRoutes().getCurrentAccount()).result);

  // A fresh setup finds the stored token again.
  DBClientsManager::resetClients();
  EXPECT_FALSE(client->isAuthorized());
  ASSERT_TRUE(DBClientsManager::setupWithConfig(managerConfig_));
  ASSERT_NE(DBClientsManager::authorizedClient(), nullptr);
  EXPECT_EQ(DBClientsManager::authorizedClient()->uid(), "dbid:1");

  DBClientsManager::unlinkAndResetClients();
  EXPECT_EQ(DBClientsManager::authorizedClient(), nullptr);
  ASSERT_TRUE(DBClientsManager::setupWithConfig(managerConfig_));
  EXPECT_EQ(DBClientsManager::authorizedClient(), nullptr);
}

TEST_F(DbxClientsManagerTest, NothingToMigrateAnswersFalseAtOnce) {
  ASSERT_TRUE(DBClientsManager::setupWithConfig(managerConfig_));
  EXPECT_FALSE(migrate("key", "secret"));
  EXPECT_EQ(emulator_.requestCount("auth/token/from_oauth1"), 0u);
}

TEST_F(DbxClientsManagerTest, MigratesGoodTokensAndReportsTheRest) {
  emulator_.addOAuth1Token("good-token", "good-secret");
  DBTokenStoreContents contents;
  contents.oauth1 = {{"11", "good-token", "good-secret", "key"},
                     {"22", "stale-token", "stale-secret", "key"}};
  ASSERT_TRUE(saveTokenStore(managerConfig_.tokenStorePath, contents));
  ASSERT_TRUE(DBClientsManager::setupWithConfig(managerConfig_));

  auto answer = migrate("key", "secret");
  ASSERT_TRUE(answer);
  EXPECT_FALSE(answer->shouldRetry);
  EXPECT_FALSE(answer->invalidAppKeyOrSecret);
  ASSERT_EQ(answer->unmigrated.size(), 1u);
  EXPECT_EQ(answer->unmigrated[0],
            (std::array<std::string, 4>{"22", "stale-token", "stale-secret", "key"}));

  auto client = DBClientsManager::authorizedClient();
  ASSERT_NE(client, nullptr);
  EXPECT_EQ(client->uid(), "11");
  EXPECT_TRUE(await(client->usersRoutes().getCurrentAccount()).result);

  auto stored = loadTokenStore(managerConfig_.tokenStorePath);
  ASSERT_TRUE(stored && stored->oauth2);
  ASSERT_EQ(stored->oauth1.size(), 1u);  // only the unmigrated one stays
  EXPECT_EQ(stored->oauth1[0].accessToken, "stale-token");
}

TEST_F(DbxClientsManagerTest, UnreachableServerAdvisesARetry) {
  DBTokenStoreContents contents;
  contents.oauth1 = {{"11", "t", "s", "key"}};
  ASSERT_TRUE(saveTokenStore(managerConfig_.tokenStorePath, contents));
  emulator_.stop();
  ASSERT_TRUE(DBClientsManager::setupWithConfig(managerConfig_));
  auto answer = migrate("key", "secret");
  ASSERT_TRUE(answer);
  EXPECT_TRUE(answer->shouldRetry);
  EXPECT_EQ(answer->unmigrated.size(), 1u);
  EXPECT_EQ(DBClientsManager::authorizedClient(), nullptr);
}

class DbxMigrationCredentialsTest : public DbxClientsManagerTest {
 protected:
  DbxMigrationCredentialsTest()
      : DbxClientsManagerTest({.tls = true, .token = "T", .appKey = "key", .appSecret = "secret"}) {}
};

TEST_F(DbxMigrationCredentialsTest, RejectedAppSecretIsReportedAndNothingMigrates) {
  emulator_.addOAuth1Token("good-token", "good-secret");
  DBTokenStoreContents contents;
  contents.oauth1 = {{"11", "good-token", "good-secret", "key"}};
  ASSERT_TRUE(saveTokenStore(managerConfig_.tokenStorePath, contents));
  ASSERT_TRUE(DBClientsManager::setupWithConfig(managerConfig_));
  auto answer = migrate("key", "wrong");
  ASSERT_TRUE(answer);
  EXPECT_TRUE(answer->invalidAppKeyOrSecret);
  EXPECT_FALSE(answer->shouldRetry);
  EXPECT_EQ(answer->unmigrated.size(), 1u);
  EXPECT_EQ(DBClientsManager::authorizedClient(), nullptr);

  auto right = migrate("key", "secret");
  ASSERT_TRUE(right);
  EXPECT_FALSE(right->invalidAppKeyOrSecret);
  EXPECT_TRUE(right->unmigrated.empty());
  EXPECT_NE(DBClientsManager::authorizedClient(), nullptr);
}

}  // namespace
}  // namespace wdc::dbx
