// The account operations end to end: WebDAVConnect -> retry loop -> Dropbox backend -> client ->
// TLS -> emulator, with failures injected by the emulator.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include <thread>

#include "dbx/clients_manager.h"
#include "emulated_dropbox.h"

namespace wdc::testing_support {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::SizeIs;
using testing::StartsWith;

auto Near(double seconds) { return testing::DoubleNear(seconds, 1e-6); }

constexpr const char* kRoute = "users/get_current_account";

class Account : public EmulatedDropbox {
 protected:
  void SetUp() override { setUpClients(accessTokenOnly()); }
};

TEST_F(Account, NameComesBackAtOnceAndTheErrorIsUntouched) {
  auto connection = newConnection();
  std::optional<Error> error;
  auto name = connection->getAccountUsername(&error);
  ASSERT_TRUE(name);
  EXPECT_FALSE(name->empty());
  EXPECT_FALSE(error);
  EXPECT_EQ(emulator_->requestCount(kRoute), 1u);
  EXPECT_TRUE(env_.sleeps().empty());
  EXPECT_TRUE(log_.contains(log::Level::kDebug, "[DROPBOX] getDropboxAccountUsername"));
}

TEST_F(Account, TenServerErrorsMakeTenAttemptsWithNineHalfSecondPauses) {
  failNext(kRoute, emu::FaultKind::kInternalError, 10);
  auto connection = newConnection();
  std::optional<Error> error;
  EXPECT_FALSE(connection->getAccountUsername(&error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), "Dropbox");
  EXPECT_EQ(error->code(), 500);
  EXPECT_EQ(emulator_->requestCount(kRoute), 10u);
  EXPECT_THAT(sleptSeconds(), AllOf(SizeIs(9), Each(0.5)));
  EXPECT_THAT(log_.messages(log::Level::kError),
              Contains(StartsWith("[DROPBOX] ERROR getting username: Error Domain=Dropbox Code=500"))
                  .Times(10));
  EXPECT_THAT(log_.messages(log::Level::kDebug),
              Contains(StartsWith("[DROPBOX] ERROR, WILL RETRY getAccount: ")).Times(9));
}

TEST_F(Account, SevenRateLimitsBackOffOnTheScheduleThenGiveUp) {
  // No Retry-After anywhere: the schedule alone decides, with the scripted jitter on top.
  failNext(kRoute, emu::FaultKind::kTooManyRequests, 7, std::nullopt,
           emu::RetryAfterPlacement::kNone);
  env_.scriptRandom({300, 0, 1000, 500, 999, 1});
  auto connection = newConnection();
  std::optional<Error> error;
  EXPECT_FALSE(connection->getAccountUsername(&error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), 429);
  EXPECT_EQ(*error->userInfo().find(kRetryAfterSecondsKey), PlistValue(0));
  EXPECT_EQ(emulator_->requestCount(kRoute), 7u);
  EXPECT_THAT(sleptSeconds(), ElementsAre(Near(2.3), Near(4.0), Near(9.0), Near(16.5), Near(30.999),
                                          Near(30.001)));
  EXPECT_THAT(log_.messages(log::Level::kWarning),
              ElementsAre("[DROPBOX] Rate limited, will retry getAccount in 2.3s [attempt 1]",
                          "[DROPBOX] Rate limited, will retry getAccount in 4.0s [attempt 2]",
                          "[DROPBOX] Rate limited, will retry getAccount in 9.0s [attempt 3]",
                          "[DROPBOX] Rate limited, will retry getAccount in 16.5s [attempt 4]",
                          "[DROPBOX] Rate limited, will retry getAccount in 31.0s [attempt 5]",
                          "[DROPBOX] Rate limited, will retry getAccount in 30.0s [attempt 6]"));
}

TEST_F(Account, ALongerRetryAfterFromTheServerWins) {
  failNext(kRoute, emu::FaultKind::kTooManyRequests, 2, 45);
  auto connection = newConnection();
  std::optional<Error> error;
  auto name = connection->getAccountUsername(&error);
  EXPECT_TRUE(name);
  EXPECT_FALSE(error);
  EXPECT_THAT(sleptSeconds(), ElementsAre(Near(45.0), Near(45.0)));
  EXPECT_EQ(emulator_->requestCount(kRoute), 3u);
}

TEST_F(Account, RetryAfterInTheHeaderAloneIsHonoured) {
  failNext(kRoute, emu::FaultKind::kTooManyRequests, 1, 40, emu::RetryAfterPlacement::kHeaderOnly);
  auto connection = newConnection();
  std::optional<Error> error;
  EXPECT_TRUE(connection->getAccountUsername(&error));
  EXPECT_THAT(sleptSeconds(), ElementsAre(Near(40.0)));
}

TEST_F(Account, ARateLimitWithoutRetryAfterStillPausesOtherConnections) {
  failNext(kRoute, emu::FaultKind::kTooManyRequests, 1, std::nullopt,
           emu::RetryAfterPlacement::kNone);
  auto first = newConnection();
  std::optional<Error> error;
  // Without an out-parameter the loop makes one attempt: the cooldown the answer opened stays.
  EXPECT_FALSE(first->getAccountUsername(nullptr));
  EXPECT_EQ(emulator_->requestCount(kRoute), 1u);
  EXPECT_DOUBLE_EQ(WebDAVConnect::dropboxCooldownRemainingSeconds(), 2.0);

  auto second = newConnection();
  EXPECT_TRUE(second->getAccountUsername(&error));
  // The second connection waited the 2 s out (in steps of at most 1 s) before its request.
  EXPECT_THAT(sleptSeconds(), ElementsAre(Near(1.0), Near(1.0)));
  EXPECT_EQ(emulator_->requestCount(kRoute), 2u);
}

TEST_F(Account, AuthenticationFailuresAreNotRetried) {
  dbx::DBClientsManager::authorizeWithToken(
      dbx::DBOAuth2Token{.uid = "dbid:test", .accessToken = "not-the-token", .refreshToken = {}, .expiresAt = {}});
  auto connection = newConnection();
  std::optional<Error> error;
  EXPECT_FALSE(connection->getAccountUsername(&error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), 401);
  EXPECT_EQ(emulator_->requestCount(kRoute), 1u);
  EXPECT_TRUE(env_.sleeps().empty());
}

TEST_F(Account, DroppedAndTruncatedAnswersAreRetriedAsTransportFailures) {
  failNext(kRoute, emu::FaultKind::kDrop, 1);
  failNext(kRoute, emu::FaultKind::kTruncate, 1);
  auto connection = newConnection();
  std::optional<Error> error;
  EXPECT_TRUE(connection->getAccountUsername(&error));
  EXPECT_FALSE(error);
  EXPECT_EQ(emulator_->requestCount(kRoute), 3u);
  EXPECT_THAT(sleptSeconds(), ElementsAre(Near(0.5), Near(0.5)));
}

TEST_F(Account, AnUnreachableServerIsCannotConnectAndRetriedTenTimes) {
  emulator_->stop();
  auto connection = newConnection();
  std::optional<Error> error;
  EXPECT_FALSE(connection->getAccountUsername(&error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), kURLErrorDomain);
  EXPECT_EQ(error->code(), -1004);
  EXPECT_THAT(sleptSeconds(), AllOf(SizeIs(9), Each(0.5)));
}

TEST_F(Account, WithoutALinkedAccountTheOperationFailsInsteadOfWaitingForever) {
  dbx::DBClientsManager::unlinkAndResetClients();
  auto connection = newConnection();
  std::optional<Error> error;
  EXPECT_FALSE(connection->getDropboxAccountUsername(&error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), 401);
  EXPECT_EQ(emulator_->requestCount(kRoute), 0u);
}

TEST_F(Account, OtherConnectionTypesKeepTheCallerPollingUntilTypeThree) {
  auto connection = newConnection();
  connection->connectionType = 1;
  std::optional<std::string> name;
  std::thread caller([&] { name = connection->getAccountUsername(nullptr); });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(emulator_->requestCount(kRoute), 0u);
  std::atomic_ref<uint64_t>(connection->connectionType).store(kConnectionTypeDropbox);
  caller.join();
  EXPECT_TRUE(name);
  EXPECT_EQ(emulator_->requestCount(kRoute), 1u);
}

class TokenMigration : public EmulatedDropbox {
 protected:
  static dbx::DBTokenStoreContents oauth1Only(std::vector<dbx::DBOAuth1Token> tokens) {
    dbx::DBTokenStoreContents store;
    store.oauth1 = std::move(tokens);
    return store;
  }
};

TEST_F(TokenMigration, NothingStoredAnswersFalseAtOnce) {
  setUpClients(accessTokenOnly());
  auto connection = newConnection();
  EXPECT_FALSE(connection->migrateDropboxV1TokensToV2WithQueue());
  EXPECT_EQ(emulator_->requestCount("auth/token/from_oauth1"), 0u);
  EXPECT_EQ(log_.messages(log::Level::kDebug),
            std::vector<std::string>{"[DROPBOX] migrateDropboxV1TokensToV2WithQueue:..."});
}

TEST_F(TokenMigration, MigratedTokensLinkTheAccountWithoutAWarning) {
  emulator_->addOAuth1Token("v1token", "v1secret");
  setUpClients(oauth1Only({{"dbid:old", "v1token", "v1secret", WDC_DROPBOX_APP_KEY}}));
  auto connection = newConnection();
  EXPECT_TRUE(connection->migrateDropboxV1TokensToV2WithQueue());
  EXPECT_EQ(emulator_->requestCount("auth/token/from_oauth1"), 1u);
  EXPECT_TRUE(log_.messages(log::Level::kWarning).empty());
  EXPECT_TRUE(log_.messages(log::Level::kError).empty());
  // The migrated token now serves requests.
  EXPECT_TRUE(connection->getAccountUsername(nullptr));
}

TEST_F(TokenMigration, UnmigratedTokensAreListedAtDebugLevel) {
  setUpClients(oauth1Only({{"dbid:old", "unknown", "pair", "oldkey"}}));
  auto connection = newConnection();
  EXPECT_TRUE(connection->migrateDropboxV1TokensToV2WithQueue());
  EXPECT_THAT(log_.messages(log::Level::kWarning),
              ElementsAre("[DROPBOX] The following tokens were unsucessfully migrated:"));
  EXPECT_THAT(log_.messages(log::Level::kDebug),
              Contains("[DROPBOX] DropboxUserID: dbid:old, AccessToken: unknown, "
                       "AccessTokenSecret: pair, StoredAppKey: oldkey"));
}

}  // namespace
}  // namespace wdc::testing_support
