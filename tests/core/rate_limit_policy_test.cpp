#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "platform/logger.h"
#include "platform/virtual_env.h"
#include "webdavconnect/webdav_connect.h"

namespace wdc {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

class RateLimitPolicy : public testing::Test {
 protected:
  void SetUp() override { WebDAVConnect::resetDropboxRateLimitStateForTesting(); }
  void TearDown() override { WebDAVConnect::resetDropboxRateLimitStateForTesting(); }

  VirtualEnv env_;
  ScopedEnv use_{env_};
};

struct RetryCase {
  int64_t code;
  const char* description;
  int64_t rateLimitAttempts;
  bool retryable;
};

TEST_F(RateLimitPolicy, ClassifiesCodesInOrder) {
  const RetryCase cases[] = {
      {500, "", 0, true},   {502, "", 0, true},   {503, "", 0, true},
      {501, "", 0, false},  {504, "", 0, false},  {1001, "", 0, true},
      {429, "", 5, true},   {429, "", 6, false},
      {429, "The request timed out.", 6, false},  // the attempt budget is final
      {501, "The request timed out.", 0, true},   // the description rule
      {404, "x The request timed out y", 0, true},
      {404, "the request timed out", 0, false},   // case-sensitive
      {-1012, "", 0, true}, {-1009, "", 0, true}, {-1005, "", 0, true},
      {-1004, "", 0, true}, {-1003, "", 0, true}, {-1001, "", 0, true},
      {-1002, "", 0, false}, {-1006, "", 0, false}, {-1011, "", 0, false},
      {-1013, "", 0, false}, {-1000, "", 0, false}, {401, "", 0, false},
      {0, "", 0, false},    {428, "", 0, false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(WebDAVConnect::isRetryableWebDAVErrorCode(c.code, c.description, c.rateLimitAttempts),
              c.retryable)
        << "code " << c.code << " description '" << c.description << "' attempts "
        << c.rateLimitAttempts;
  }
}

TEST_F(RateLimitPolicy, DelayFollowsTheTablePlusJitter) {
  struct DelayCase {
    int64_t attempt;
    uint32_t jitterDraw;
    double backoff;
    double expected;
  };
  const DelayCase cases[] = {
      {0, 0, 0, 2.0},     {1, 1000, 0, 3.0},  {2, 500, 0, 4.5},   {3, 1, 0, 8.001},
      {4, 0, 0, 16.0},    {5, 0, 0, 30.0},    {6, 999, 0, 30.999}, {9, 1000, 0, 31.0},
      {1, 0, 45, 45.0},   {1, 1000, 2.5, 3.0}, {-3, 0, -10, 2.0},
  };
  for (const auto& c : cases) {
    env_.scriptRandom({c.jitterDraw});
    EXPECT_DOUBLE_EQ(WebDAVConnect::rateLimitRetryDelayForAttempt(c.attempt, c.backoff),
                     c.expected)
        << "attempt " << c.attempt;
  }
  // Every draw is unbiased over 0...1000 inclusive.
  for (uint32_t bound : env_.randomBounds()) EXPECT_EQ(bound, 1000u);
}

TEST_F(RateLimitPolicy, RealJitterStaysWithinOneSecond) {
  ScopedEnv real(Env::real());
  for (int i = 0; i < 200; ++i) {
    double delay = WebDAVConnect::rateLimitRetryDelayForAttempt(9, 0);
    ASSERT_GE(delay, 30.0);
    ASSERT_LE(delay, 31.0);
  }
}

TEST_F(RateLimitPolicy, ServerBackoffComesFromTheUserInfoHint) {
  auto withHint = [](PlistValue hint) {
    return std::optional<Error>(
        Error("Dropbox", 429, PlistDictionary{{"WebDAVDropboxRetryAfterSeconds", hint}}));
  };
  EXPECT_EQ(WebDAVConnect::serverBackoffSecondsFromError(withHint(12)), 12.0);
  EXPECT_EQ(WebDAVConnect::serverBackoffSecondsFromError(withHint(2.5)), 2.5);
  EXPECT_EQ(WebDAVConnect::serverBackoffSecondsFromError(withHint(-4)), 0.0);
  EXPECT_EQ(WebDAVConnect::serverBackoffSecondsFromError(withHint("12")), 0.0);
  EXPECT_EQ(WebDAVConnect::serverBackoffSecondsFromError(Error("Dropbox", 429)), 0.0);
  EXPECT_EQ(WebDAVConnect::serverBackoffSecondsFromError(std::nullopt), 0.0);
}

TEST_F(RateLimitPolicy, CooldownOnlyMovesLater) {
  WebDAVConnect::noteDropboxRateLimitWithSuggestedDelay(10);
  WebDAVConnect::noteDropboxRateLimitWithSuggestedDelay(2);
  WebDAVConnect::noteDropboxRateLimitWithSuggestedDelay(-5);
  EXPECT_DOUBLE_EQ(WebDAVConnect::dropboxCooldownRemainingSeconds(), 10.0);
  env_.advance(4s);
  EXPECT_DOUBLE_EQ(WebDAVConnect::dropboxCooldownRemainingSeconds(), 6.0);
  env_.advance(6s);
  EXPECT_EQ(WebDAVConnect::dropboxCooldownRemainingSeconds(), 0.0);
}

TEST_F(RateLimitPolicy, WaitReturnsAtOnceWithoutCooldown) {
  WebDAVConnect::waitForDropboxCooldown();
  EXPECT_TRUE(env_.sleeps().empty());
}

TEST_F(RateLimitPolicy, WaitSleepsInSlicesOfAtMostOneSecond) {
  WebDAVConnect::noteDropboxRateLimitWithSuggestedDelay(2.5);
  WebDAVConnect::waitForDropboxCooldown();
  EXPECT_THAT(env_.sleeps(), ElementsAre(1s, 1s, 500ms));
  EXPECT_EQ(WebDAVConnect::dropboxCooldownRemainingSeconds(), 0.0);
}

TEST_F(RateLimitPolicy, ResetClearsTheCooldown) {
  WebDAVConnect::noteDropboxRateLimitWithSuggestedDelay(30);
  WebDAVConnect::resetDropboxRateLimitStateForTesting();
  EXPECT_EQ(WebDAVConnect::dropboxCooldownRemainingSeconds(), 0.0);
}

TEST_F(RateLimitPolicy, FifthDownloadSlotWaitsThenTimesOutAfter120Seconds) {
  log::CaptureLog capture;
  for (int i = 0; i < 4; ++i) ASSERT_TRUE(WebDAVConnect::acquireDropboxDownloadSlot());
  auto before = env_.uptime();
  EXPECT_FALSE(WebDAVConnect::acquireDropboxDownloadSlot());
  EXPECT_EQ(env_.uptime() - before, 120s);
  EXPECT_THAT(capture.messages(log::Level::kWarning),
              ElementsAre("[DROPBOX] Download slot wait timed out after 120s; proceeding without "
                          "the cap"));
  for (int i = 0; i < 4; ++i) WebDAVConnect::releaseDropboxDownloadSlot();
}

TEST_F(RateLimitPolicy, FifthDownloadSlotIsHandedOverOnRelease) {
  env_.setRealGrace(10000ms);
  for (int i = 0; i < 4; ++i) ASSERT_TRUE(WebDAVConnect::acquireDropboxDownloadSlot());
  std::atomic<bool> got{false};
  std::thread fifth([&] { got = WebDAVConnect::acquireDropboxDownloadSlot(); });
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(got);
  WebDAVConnect::releaseDropboxDownloadSlot();
  fifth.join();
  EXPECT_TRUE(got);
  for (int i = 0; i < 4; ++i) WebDAVConnect::releaseDropboxDownloadSlot();
}

TEST_F(RateLimitPolicy, RetryQueueIsOneSerialQueue) {
  EXPECT_EQ(&WebDAVConnect::dropboxRetryQueue(), &WebDAVConnect::dropboxRetryQueue());
  std::vector<int> order;
  for (int i = 0; i < 5; ++i) WebDAVConnect::dropboxRetryQueue().addOperation([&, i] { order.push_back(i); });
  WebDAVConnect::dropboxRetryQueue().waitUntilAllOperationsAreFinished();
  EXPECT_THAT(order, ElementsAre(0, 1, 2, 3, 4));
}

}  // namespace
}  // namespace wdc
