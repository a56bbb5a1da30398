// Injected server faults, expired tokens, untrusted certificates and closing: what each becomes
// for the handler.
#include "dbx/client_fixture.h"
#include "platform/env.h"
#include "platform/logger.h"

namespace wdc::dbx {
namespace {

using testing::DbxClientTest;
using emu::FaultKind;
using emu::FaultRule;
using emu::RetryAfterPlacement;

struct RateLimitCase {
  const char* name;
  FaultKind kind;
  std::optional<uint32_t> argument;
  RetryAfterPlacement placement;
  std::optional<double> backoff;
  const char* reason;
};

TEST_F(DbxClientTest, RateLimitsCarryReasonAndBackoffWhereverTheServerPutIt) {
  const RateLimitCase cases[] = {
      {"header and body", FaultKind::kTooManyRequests, 2, RetryAfterPlacement::kHeaderAndBody, 2.0,
       "too_many_requests"},
      {"header only", FaultKind::kTooManyRequests, 3, RetryAfterPlacement::kHeaderOnly, 3.0,
       "too_many_requests"},
      {"body only", FaultKind::kTooManyWriteOperations, 4, RetryAfterPlacement::kBodyOnly, 4.0,
       "too_many_write_operations"},
      {"none", FaultKind::kTooManyRequests, std::nullopt, RetryAfterPlacement::kNone, std::nullopt,
       "too_many_requests"},
  };
  emulator_.putFile("/a.txt", "x");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    emulator_.addFault(FaultRule{.route = "files/download", .kind = c.kind, .argument = c.argument,
                                 .placement = c.placement, .count = 1});
    auto answer = await(files().downloadData("/a.txt"));
    ASSERT_TRUE(answer.error);
    EXPECT_TRUE(answer.error->isRateLimitError());
    EXPECT_EQ(answer.error->statusCode, 429);
    EXPECT_EQ(answer.error->backoff, c.backoff);
    EXPECT_EQ(answer.error->rateLimitReason, c.reason);
    EXPECT_FALSE(answer.error->nsError);
  }
  // The scripted faults are used up: the next download goes through.
  EXPECT_TRUE(await(files().downloadData("/a.txt")).result);
}

TEST_F(DbxClientTest, ServerErrorsAndBrokenConnectionsBecomeRequestErrors) {
  emulator_.putFile("/a.txt", std::string(50'000, 'a'));
  struct Case {
    const char* name;
    FaultKind kind;
    std::optional<int> status;
    int64_t nsCode;
  };
  const Case cases[] = {
      {"500", FaultKind::kInternalError, 500, 0},
      {"503", FaultKind::kUnavailable, 503, 0},
      {"drop", FaultKind::kDrop, std::nullopt, kURLErrorNetworkConnectionLost},
      {"truncate", FaultKind::kTruncate, std::nullopt, kURLErrorNetworkConnectionLost},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    for (const char* route : {"files/download", "files/list_folder"}) {
      SCOPED_TRACE(route);
      // Standing faults: curl quietly retries a request once when a reused connection dies
      // before any answer, so a one-shot drop would go unseen.
      emulator_.clearFaults();
      emulator_.addFault(FaultRule{.route = route, .kind = c.kind});
      std::optional<DBRequestError> error;
      if (std::string_view(route) == "files/download") {
        const auto destination = dir_.path() / "a.txt";
        auto answer = await(files().downloadUrl("/a.txt", true, destination));
        error = answer.error;
        EXPECT_FALSE(std::filesystem::exists(destination));  // never a partial file
      } else {
        error = await(files().listFolder(DBFILESListFolderArg{})).error;
      }
      ASSERT_TRUE(error);
      EXPECT_EQ(error->statusCode, c.status) << error->description();
      if (c.nsCode != 0) {
        ASSERT_TRUE(error->nsError) << error->description();
        EXPECT_EQ(error->nsError->code(), c.nsCode) << error->description();
      } else {
        EXPECT_EQ(error->kind, DBRequestError::Kind::kInternalServer);
      }
    }
  }
  // The client recovers on a fresh connection.
  emulator_.clearFaults();
  auto after = await(files().downloadData("/a.txt"));
  ASSERT_TRUE(after.result);
  EXPECT_EQ(after.data.size(), 50'000u);
}

TEST_F(DbxClientTest, ExpiredTokenIsRefreshedOnceAndTheRequestResent) {
  log::CaptureLog capture;
  auto client = makeClient(DBOAuth2Token{"dbid:test", "T", "refresh-1", std::nullopt});
  emulator_.expireAccessTokens(/*includeConfigured=*/true);
  auto answer = await(client->usersRoutes().getCurrentAccount());
  ASSERT_TRUE(answer.result) << answer.error->description();
  EXPECT_EQ(emulator_.requestCount("oauth2/token"), 1u);
  EXPECT_EQ(emulator_.requestCount("users/get_current_account"), 2u);
  EXPECT_NE(client->currentToken().accessToken, "T");
  ASSERT_TRUE(client->currentToken().expiresAt);
  ASSERT_FALSE(capture.entries().empty());  // the refresh is logged, its tokens are not
  for (const auto& entry : capture.entries()) {
    EXPECT_EQ(entry.message.find("refresh-1"), std::string::npos) << entry.message;
    EXPECT_EQ(entry.message.find(client->currentToken().accessToken), std::string::npos)
        << entry.message;
  }

  // Without a refresh token the 401 reaches the handler as it is.
  auto plain = makeClient(DBOAuth2Token{"dbid:test", "T", std::nullopt, std::nullopt});
  auto refused = await(plain->usersRoutes().getCurrentAccount());
  ASSERT_TRUE(refused.error);
  EXPECT_EQ(refused.error->authErrorTag, "expired_access_token");
  EXPECT_EQ(emulator_.requestCount("oauth2/token"), 1u);
}

TEST_F(DbxClientTest, TokenNearItsExpiryIsRefreshedBeforeTheRequest) {
  const auto soon = Env::current().now() + std::chrono::seconds(30);
  auto client = makeClient(DBOAuth2Token{"dbid:test", "T", "refresh-1", soon});
  auto first = await(client->usersRoutes().getCurrentAccount());
  ASSERT_TRUE(first.result);
  auto second = await(client->usersRoutes().getCurrentAccount());
  ASSERT_TRUE(second.result);
  EXPECT_EQ(emulator_.requestCount("oauth2/token"), 1u);  // the new token lasts hours
  EXPECT_EQ(emulator_.requestCount("users/get_current_account"), 2u);
}

TEST_F(DbxClientTest, ARefusedRefreshLeavesTheOriginal401) {
  emulator_.addRefreshToken("the-only-good-one");
  auto client = makeClient(DBOAuth2Token{"dbid:test", "T", "revoked", std::nullopt});
  emulator_.expireAccessTokens(true);
  auto answer = await(client->usersRoutes().getCurrentAccount());
  ASSERT_TRUE(answer.error);
  EXPECT_EQ(answer.error->authErrorTag, "expired_access_token");
  EXPECT_EQ(emulator_.requestCount("users/get_current_account"), 1u);
}

TEST_F(DbxClientTest, AnswersPastTheSizeCapAreRefused) {
  emulator_.putFile("/big.bin", std::string(64 * 1024, 'b'));
  auto custom = config();
  custom.maxResponseBytes = 16 * 1024;
  custom.maxDownloadBytes = 32 * 1024;
  auto client = makeClient(DBOAuth2Token{"", "T", std::nullopt, std::nullopt}, custom);
  auto inMemory = await(client->filesRoutes().downloadData("/big.bin"));
  EXPECT_EQ(inMemory.nsCode(), kURLErrorDataLengthExceedsMaximum);
  const auto destination = dir_.path() / "big.bin";
  auto toFile = await(client->filesRoutes().downloadUrl("/big.bin", true, destination));
  EXPECT_EQ(toFile.nsCode(), kURLErrorDataLengthExceedsMaximum);
  for (const auto& entry : std::filesystem::directory_iterator(dir_.path())) {
    EXPECT_NE(entry.path().filename().string().rfind("big.bin", 0), 0u)  // no scratch left
        << entry.path();
  }
}

TEST_F(DbxClientTest, UntrustedCertificateIsRefused) {
  auto custom = config();
  custom.caFile.reset();
  auto client = makeClient(DBOAuth2Token{"", "T", std::nullopt, std::nullopt}, custom);
  auto answer = await(client->usersRoutes().getCurrentAccount());
  ASSERT_TRUE(answer.error);
  EXPECT_EQ(answer.nsCode(), kURLErrorServerCertificateUntrusted) << answer.error->description();
  EXPECT_EQ(emulator_.requestCount("users/get_current_account"), 0u);
}

TEST_F(DbxClientTest, ClosingCancelsRequestsInFlightAndRefusesNewOnes) {
  emulator_.addFault(FaultRule{.route = "files/list_folder", .kind = FaultKind::kLatency,
                               .argument = 3000});
  auto task = files().listFolder(DBFILESListFolderArg{});
  auto answered = std::make_shared<std::promise<int64_t>>();
  task.setResponseBlock(
      [answered](const DBFILESListFolderResult*, const DBFILESListFolderError*,
                 const DBRequestError* error) {
        answered->set_value(error && error->nsError ? error->nsError->code() : 0);
      },
      queue_);
  while (emulator_.requestCount("files/list_folder") == 0) std::this_thread::yield();
  client_->close();
  auto future = answered->get_future();
  ASSERT_EQ(future.wait_for(std::chrono::seconds(2)), std::future_status::ready);
  EXPECT_EQ(future.get(), kURLErrorCancelled);
  EXPECT_FALSE(client_->isAuthorized());

  auto later = await(client_->usersRoutes().getCurrentAccount());
  EXPECT_EQ(later.nsCode(), kURLErrorCancelled);
  emulator_.stop();  // the client's connections are gone, so this does not wait them out
}

TEST_F(DbxClientTest, CancelEndsOneRequest) {
  emulator_.addFault(FaultRule{.route = "files/list_folder", .kind = FaultKind::kLatency,
                               .argument = 3000});
  auto task = files().listFolder(DBFILESListFolderArg{});
  while (emulator_.requestCount("files/list_folder") == 0) std::this_thread::yield();
  task.cancel();
  auto answer = await(task);
  EXPECT_EQ(answer.nsCode(), kURLErrorCancelled);
  // Other requests are unaffected.
  EXPECT_TRUE(await(client_->usersRoutes().getCurrentAccount()).result);
}

}  // namespace
}  // namespace wdc::dbx
