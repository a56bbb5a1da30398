#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <map>

#include "dbx/http_response.h"
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

// A 429 is decoded, mapped and turned into a wait exactly as the server asked, however absurd the
// number: the hint and the cooldown keep it, and the sleep it becomes is the longest one the clock
// can hold, not a count that wrapped into the past.
TEST_F(ErrorMapping, AnAbsurdRetryAfterBecomesTheLongestWaitWithoutWrapping) {
  dbx::HttpResponse answer;
  answer.status = 429;
  answer.body = R"({"error_summary": "too_many_requests/..", )"
                R"("error": {"reason": {".tag": "too_many_requests"}, "retry_after": 1e30}})";
  const dbx::DBRequestError limited = dbx::requestErrorForStatus(answer);
  ASSERT_EQ(limited.backoff, 1e30);
  const auto mapped = WebDAVConnect::getErrorFromRequestError(&limited);
  ASSERT_TRUE(mapped);
  EXPECT_EQ(*mapped->userInfo().find(kRetryAfterSecondsKey), PlistValue(1e30));
  const double remaining = WebDAVConnect::dropboxCooldownRemainingSeconds();
  EXPECT_GT(remaining, 9e29);
  EXPECT_TRUE(std::isfinite(remaining));

  // What the retry loop does with it: the delay, and the sleep that delay becomes.
  const double delay = WebDAVConnect::rateLimitRetryDelayForAttempt(
      1, WebDAVConnect::serverBackoffSecondsFromError(mapped));
  EXPECT_EQ(delay, 1e30);
  const auto before = env_.uptime();
  env_.sleepFor(fromSeconds(delay));
  EXPECT_EQ(env_.sleeps().back(), std::chrono::nanoseconds::max());
  EXPECT_EQ(env_.uptime(), std::chrono::nanoseconds::max());
  EXPECT_GT(env_.uptime(), before);
  // Still in force: even the latest instant the clock can show is short of 1e30 s.
  EXPECT_GT(WebDAVConnect::dropboxCooldownRemainingSeconds(), 9e29);
}

// Numbers the decoder cannot hold as finite seconds are no back-off at all: the stored hint is 0
// and the cooldown the two-second minimum.
TEST_F(ErrorMapping, InfiniteOrUnreadableRetryAftersCountAsNone) {
  struct Case {
    const char* name;
    std::string body;
    std::map<std::string, std::string> headers;
  };
  const Case cases[] = {
      {"inf header", "", {{"retry-after", "inf"}}},
      {"overflowing header", "", {{"retry-after", "1e400"}}},
      {"long header", "", {{"retry-after", std::string(400, '9')}}},
      {"overflowing body", R"({"error": {"retry_after": 1e400}})", {}},
      {"NaN text in body", R"({"error": {"retry_after": "NaN"}})", {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    WebDAVConnect::resetDropboxRateLimitStateForTesting();
    dbx::HttpResponse answer;
    answer.status = 429;
    answer.body = c.body;
    answer.headers = c.headers;
    const dbx::DBRequestError limited = dbx::requestErrorForStatus(answer);
    EXPECT_FALSE(limited.backoff.has_value());
    const auto mapped = WebDAVConnect::getErrorFromRequestError(&limited);
    ASSERT_TRUE(mapped);
    EXPECT_EQ(*mapped->userInfo().find(kRetryAfterSecondsKey), PlistValue(0));
    EXPECT_DOUBLE_EQ(WebDAVConnect::dropboxCooldownRemainingSeconds(), 2.0);
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
