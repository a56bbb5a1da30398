#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "dbx/request_error.h"
#include "platform/logger.h"
#include "platform/virtual_env.h"
#include "webdavconnect/webdav_connect.h"

namespace wdc {
namespace {

using namespace std::chrono_literals;

dbx::DBRequestError httpError(int status, std::optional<std::string> content) {
  dbx::DBRequestError e;
  e.kind = dbx::DBRequestError::Kind::kHttp;
  e.statusCode = status;
  e.errorContent = std::move(content);
  e.message = "http failure";
  return e;
}

dbx::DBRequestError rateLimit(std::optional<double> backoff) {
  dbx::DBRequestError e = httpError(429, "too_many_requests/..");
  e.kind = dbx::DBRequestError::Kind::kRateLimit;
  e.backoff = backoff;
  return e;
}

class ErrorMapping : public testing::Test {
 protected:
  void SetUp() override { WebDAVConnect::resetDropboxRateLimitStateForTesting(); }
  void TearDown() override { WebDAVConnect::resetDropboxRateLimitStateForTesting(); }

  VirtualEnv env_;
  ScopedEnv use_{env_};
  log::CaptureLog log_;
};

TEST_F(ErrorMapping, DomainAndCodeComeFromTheSystemErrorOrTheStatus) {
  auto transport = dbx::DBRequestError::transport(dbx::kURLErrorCannotConnectToHost, "refused");
  auto mapped = WebDAVConnect::getErrorFromRequestError(&transport);
  ASSERT_TRUE(mapped);
  EXPECT_EQ(mapped->domain(), kURLErrorDomain);
  EXPECT_EQ(mapped->code(), -1004);
  // Without server text the system error's description is the message.
  EXPECT_EQ(mapped->userInfo().find(kErrorContentKey)->asString(),
            transport.nsError->localizedDescription());

  auto conflict = httpError(409, "path/not_found/.");
  mapped = WebDAVConnect::getErrorFromRequestError(&conflict);
  ASSERT_TRUE(mapped);
  EXPECT_EQ(mapped->domain(), kDropboxErrorDomain);
  EXPECT_EQ(mapped->code(), 409);
  EXPECT_EQ(mapped->userInfo().find(kErrorContentKey)->asString(), "path/not_found/.");
  EXPECT_EQ(mapped->userInfo().find(kRetryAfterSecondsKey), nullptr);

  auto noStatus = httpError(0, std::nullopt);
  noStatus.statusCode.reset();
  mapped = WebDAVConnect::getErrorFromRequestError(&noStatus);
  EXPECT_EQ(mapped->code(), 0);
  // No server text and no system error: the request error's own description.
  EXPECT_EQ(mapped->userInfo().find(kErrorContentKey)->asString(), noStatus.description());

  EXPECT_FALSE(WebDAVConnect::getErrorFromRequestError(nullptr).has_value());
  EXPECT_THAT(log_.messages(log::Level::kError), testing::SizeIs(3));  // none for the absent one
  EXPECT_THAT(log_.messages(log::Level::kError)[1],
              testing::StartsWith("[DROPBOX] Got Async Error: "));
  EXPECT_THAT(log_.messages(log::Level::kError)[1], testing::EndsWith(" => (null)"));
}

TEST_F(ErrorMapping, RateLimitsStoreTheServerHintAndOpenAtLeastTwoSecondsOfCooldown) {
  struct Case {
    std::optional<double> backoff;
    PlistValue stored;
    double cooldown;
  };
  const Case cases[] = {{30.0, PlistValue(30), 30.0}, {1.5, PlistValue(1.5), 2.0},
                        {std::nullopt, PlistValue(0), 2.0}, {0.0, PlistValue(0), 2.0}};
  for (const auto& c : cases) {
    WebDAVConnect::resetDropboxRateLimitStateForTesting();
    auto limited = rateLimit(c.backoff);
    auto mapped = WebDAVConnect::getErrorFromRequestError(&limited);
    ASSERT_TRUE(mapped);
    EXPECT_EQ(mapped->code(), 429);
    ASSERT_NE(mapped->userInfo().find(kRetryAfterSecondsKey), nullptr);
    EXPECT_EQ(*mapped->userInfo().find(kRetryAfterSecondsKey), c.stored);
    EXPECT_DOUBLE_EQ(WebDAVConnect::serverBackoffSecondsFromError(mapped),
                     c.backoff.value_or(0.0));
    EXPECT_DOUBLE_EQ(WebDAVConnect::dropboxCooldownRemainingSeconds(), c.cooldown);
  }
}

TEST_F(ErrorMapping, ConnectionRecordsTheLastAnswerUntilTheNextOne) {
  WebDAVConnect connection(3, std::nullopt, std::nullopt);
  std::optional<Error> out;
  // A new connection has neither flag nor error: nothing to report.
  EXPECT_FALSE(connection.checkIfRequestFailed(&out));
  EXPECT_FALSE(out);

  auto notFound = httpError(404, std::nullopt);
  notFound.errorContent.reset();
  connection.setAsyncErrorIfRequired(&notFound);
  EXPECT_TRUE(connection.checkIfRequestFailed(&out));
  ASSERT_TRUE(out);
  EXPECT_EQ(out->domain(), kDropboxErrorDomain);
  EXPECT_EQ(out->code(), 404);
  // Checked again without a new answer: the same failure, also without an out-parameter.
  EXPECT_TRUE(connection.checkIfRequestFailed(nullptr));
  EXPECT_THAT(log_.messages(log::Level::kError),
              testing::Contains(testing::StartsWith("[DROPBOX] Request failed: Error Domain=Dropbox Code=404")).Times(2));

  connection.setAsyncErrorIfRequired(nullptr);
  std::optional<Error> untouched = Error("keep", 1);
  EXPECT_FALSE(connection.checkIfRequestFailed(&untouched));
  EXPECT_EQ(untouched->domain(), "keep");
}

}  // namespace
}  // namespace wdc
