// The synchronous retry loop driven by a scripted backend: every attempt's outcome is chosen by
// the test, so the whole schedule of attempts, sleeps and log lines is asserted, not slept.
#include "core/retry_loop.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <thread>

#include "dbx/request_error.h"
#include "platform/logger.h"
#include "platform/virtual_env.h"

namespace wdc {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

class RetryLoop : public testing::Test {
 protected:
  void SetUp() override { WebDAVConnect::resetDropboxRateLimitStateForTesting(); }
  void TearDown() override { WebDAVConnect::resetDropboxRateLimitStateForTesting(); }

  // Each scripted outcome is an error (a failed attempt) or nullopt (success).
  bool run(std::deque<std::optional<Error>> script, ErrorOut out) {
    RetryMessages messages{
        [](const Error& e) { return fmt::format("[DROPBOX] GET ERROR: {}", describeError(e)); },
        [](const Error& e, int64_t n) {
          return fmt::format("[DROPBOX] ERROR, WILL RETRY [{}] getContents: {}", n,
                             describeError(e));
        },
        "getContents"};
    return runSynchronousRetryLoop(*connection_, messages, out, [&](ErrorOut error) {
      ++attempts_;
      auto next = script.empty() ? std::optional<Error>() : script.front();
      if (!script.empty()) script.pop_front();
      if (!next) return true;
      setError(error, *next);
      return false;
    });
  }

  static Error serverError(int64_t code, double retryAfter = -1) {
    PlistDictionary info{{"NSLocalizedDescription", fmt::format("status {}", code)}};
    if (retryAfter >= 0) info.set("WebDAVDropboxRetryAfterSeconds", retryAfter);
    return Error("Dropbox", code, info);
  }

  VirtualEnv env_;
  ScopedEnv use_{env_};
  std::shared_ptr<WebDAVConnect> connection_ =
      WebDAVConnect::initWithConnectionType(kConnectionTypeDropbox, "user", "secret");
  // Read by the test thread while a caller thread may still be attempting.
  std::atomic<int> attempts_{0};
};

TEST_F(RetryLoop, SuccessAtOnceLeavesTheErrorUntouched) {
  std::optional<Error> error;
  EXPECT_TRUE(run({std::nullopt}, &error));
  EXPECT_EQ(attempts_, 1);
  EXPECT_FALSE(error);
  EXPECT_TRUE(env_.sleeps().empty());
}

TEST_F(RetryLoop, TenServerErrorsMakeTenAttemptsAndNineHalfSecondSleeps) {
  log::CaptureLog capture;
  std::optional<Error> error;
  EXPECT_FALSE(run(std::deque<std::optional<Error>>(10, serverError(500)), &error));
  EXPECT_EQ(attempts_, 10);
  EXPECT_EQ(env_.sleeps(), std::vector<std::chrono::nanoseconds>(9, 500ms));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), 500);
  auto failures = capture.messages(log::Level::kError);
  ASSERT_EQ(failures.size(), 10u);
  EXPECT_EQ(failures[0], "[DROPBOX] GET ERROR: " + serverError(500).description());
  auto retries = capture.messages(log::Level::kDebug);
  ASSERT_EQ(retries.size(), 9u);
  EXPECT_EQ(retries[0], "[DROPBOX] ERROR, WILL RETRY [1] getContents: " + serverError(500).description());
  EXPECT_THAT(retries[8], testing::StartsWith("[DROPBOX] ERROR, WILL RETRY [9] getContents"));
}

TEST_F(RetryLoop, SevenRateLimitsEndAfterTheSeventhAttemptWithGrowingWaits) {
  log::CaptureLog capture;
  env_.scriptRandom({0, 250, 500, 750, 1000, 0});
  std::optional<Error> error;
  EXPECT_FALSE(run(std::deque<std::optional<Error>>(7, serverError(429)), &error));
  EXPECT_EQ(attempts_, 7);
  EXPECT_THAT(env_.sleeps(), ElementsAre(2000ms, 4250ms, 8500ms, 16750ms, 31000ms, 30000ms));
  EXPECT_THAT(capture.messages(log::Level::kWarning),
              ElementsAre("[DROPBOX] Rate limited, will retry getContents in 2.0s [attempt 1]",
                          "[DROPBOX] Rate limited, will retry getContents in 4.2s [attempt 2]",
                          "[DROPBOX] Rate limited, will retry getContents in 8.5s [attempt 3]",
                          "[DROPBOX] Rate limited, will retry getContents in 16.8s [attempt 4]",
                          "[DROPBOX] Rate limited, will retry getContents in 31.0s [attempt 5]",
                          "[DROPBOX] Rate limited, will retry getContents in 30.0s [attempt 6]"));
  EXPECT_EQ(capture.messages(log::Level::kError).size(), 7u);
}

TEST_F(RetryLoop, LongerServerRetryAfterWinsAndOpensTheSharedCooldown) {
  std::optional<Error> error;
  std::deque<std::optional<Error>> script{serverError(429, 45), std::nullopt};
  // The cooldown is observed from the backend call of the second attempt.
  EXPECT_TRUE(run(script, &error));
  EXPECT_THAT(env_.sleeps(), ElementsAre(45s));
  EXPECT_FALSE(error);  // cleared before the retry, untouched by the success
}

TEST_F(RetryLoop, RateLimitCooldownPausesAnotherConnection) {
  auto other = WebDAVConnect::initWithConnectionType(kConnectionTypeDropbox, std::nullopt, std::nullopt);
  WebDAVConnect::noteDropboxRateLimitWithSuggestedDelay(3);
  auto start = env_.uptime();
  std::optional<Error> error;
  RetryMessages messages{[](const Error&) { return std::string("f"); },
                         [](const Error&, int64_t) { return std::string("r"); }, "x"};
  std::chrono::nanoseconds startedAt{};
  EXPECT_TRUE(runSynchronousRetryLoop(*other, messages, &error, [&](ErrorOut) {
    startedAt = env_.uptime();
    return true;
  }));
  EXPECT_GE(startedAt - start, 3s);
}

TEST_F(RetryLoop, NonRetryableErrorStopsAfterOneAttempt) {
  log::CaptureLog capture;
  std::optional<Error> error;
  EXPECT_FALSE(run({serverError(409), std::nullopt}, &error));
  EXPECT_EQ(attempts_, 1);
  EXPECT_EQ(error->code(), 409);
  EXPECT_EQ(capture.messages(log::Level::kError).size(), 1u);
  EXPECT_TRUE(env_.sleeps().empty());
}

TEST_F(RetryLoop, WithoutAnErrorOutParameterTheFirstFailureIsFinal) {
  log::CaptureLog capture;
  EXPECT_FALSE(run({serverError(500), std::nullopt}, nullptr));
  EXPECT_EQ(attempts_, 1);
  EXPECT_TRUE(capture.entries().empty());
}

TEST_F(RetryLoop, TransportTimeoutIsRetriedThenSucceeds) {
  std::optional<Error> error;
  Error timeout = Error::withDescription("NSURLErrorDomain", -1001, "The request timed out.");
  EXPECT_TRUE(run({timeout, timeout, std::nullopt}, &error));
  EXPECT_EQ(attempts_, 3);
  EXPECT_THAT(env_.sleeps(), ElementsAre(500ms, 500ms));
}

TEST_F(RetryLoop, CodeZeroEndsAtOnceWhenTheOperationSaysSo) {
  log::CaptureLog capture;
  RetryMessages messages{[](const Error&) { return std::string("[DROPBOX] ERROR with sync lock"); },
                         [](const Error&, int64_t) { return std::string("retry"); }, "getLock",
                         /*endsAtOnceOnCodeZero=*/true};
  std::optional<Error> error;
  int calls = 0;
  EXPECT_FALSE(runSynchronousRetryLoop(*connection_, messages, &error, [&](ErrorOut e) {
    ++calls;
    setError(e, Error("Dropbox", 0));
    return false;
  }));
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(capture.entries().empty());
}

TEST_F(RetryLoop, OtherConnectionTypesKeepTheCallerPollingUntilDropboxIsSelected) {
  connection_->connectionType = 1;
  std::atomic<bool> done{false};
  std::thread caller([&] {
    std::optional<Error> error;
    done = run({std::nullopt}, &error);
  });
  std::this_thread::sleep_for(30ms);
  EXPECT_FALSE(done);
  EXPECT_EQ(attempts_, 0);
  std::atomic_ref<uint64_t>(connection_->connectionType).store(kConnectionTypeDropbox);
  caller.join();
  EXPECT_TRUE(done);
  EXPECT_EQ(attempts_, 1);
}

TEST_F(RetryLoop, PollingForTheConnectionTypeWaitsThroughTheEnvInsteadOfSpinning) {
  connection_->connectionType = 1;
  const auto virtualStart = env_.uptime();
  std::atomic<bool> done{false};
  std::thread caller([&] { done = run({std::nullopt}, nullptr); });
  const auto realStart = std::chrono::steady_clock::now();
  std::this_thread::sleep_for(200ms);
  std::atomic_ref<uint64_t>(connection_->connectionType).store(kConnectionTypeDropbox);
  caller.join();
  const auto realElapsed = std::chrono::steady_clock::now() - realStart;
  EXPECT_TRUE(done);
  // Each look at the type is a short timed wait in the Env: virtual time moved on by one
  // interval per look, and there were only a handful of looks while real time passed (a spinning
  // caller makes thousands and moves no clock at all).
  const auto waited = env_.uptime() - virtualStart;
  EXPECT_GE(waited, 20ms);
  EXPECT_LE(waited, realElapsed + 20ms);
  EXPECT_TRUE(env_.sleeps().empty());
}

// A VirtualEnv that runs a hook when the code under test starts to sleep, so a test can act
// "while" the loop waits: another connection, another thread moving the cooldown.
class HookedEnv final : public Env {
 public:
  std::function<void()> onFirstSleep;

  std::chrono::system_clock::time_point now() override { return base_.now(); }
  std::chrono::nanoseconds uptime() override { return base_.uptime(); }
  void sleepFor(std::chrono::nanoseconds duration) override {
    if (auto hook = std::exchange(onFirstSleep, nullptr)) hook();
    base_.sleepFor(duration);
  }
  uint32_t uniformRandom(uint32_t upperInclusive) override {
    return base_.uniformRandom(upperInclusive);
  }
  void scheduleAfter(std::chrono::nanoseconds delay, std::function<void()> task) override {
    base_.scheduleAfter(delay, std::move(task));
  }
  bool waitFor(std::condition_variable& cv, std::unique_lock<std::mutex>& lock,
               std::chrono::nanoseconds timeout, const std::function<bool()>& ready) override {
    return base_.waitFor(cv, lock, timeout, ready);
  }
  std::filesystem::path temporaryDirectory() override { return base_.temporaryDirectory(); }
  std::string newUUID() override { return base_.newUUID(); }
  std::vector<std::chrono::nanoseconds> sleeps() const { return base_.sleeps(); }

 private:
  VirtualEnv base_;
};

class RetryLoopWhileWaiting : public RetryLoop {
 protected:
  HookedEnv hooked_;
  ScopedEnv useHooked_{hooked_};
};

TEST_F(RetryLoopWhileWaiting, ARateLimitedRetryMakesASecondConnectionWaitItOut) {
  // The scripted 429 opens no cooldown by itself: only the loop's own note can.
  auto other = WebDAVConnect::initWithConnectionType(kConnectionTypeDropbox, std::nullopt, std::nullopt);
  std::chrono::nanoseconds otherStartedAt{};
  std::chrono::nanoseconds waitStartedAt{};
  hooked_.onFirstSleep = [&] {
    waitStartedAt = hooked_.uptime();
    RetryMessages quiet{[](const Error&) { return std::string(); },
                        [](const Error&, int64_t) { return std::string(); }, "other"};
    std::optional<Error> error;
    runSynchronousRetryLoop(*other, quiet, &error, [&](ErrorOut) {
      otherStartedAt = hooked_.uptime();
      return true;
    });
  };
  std::optional<Error> error;
  EXPECT_TRUE(run({serverError(429, 5), std::nullopt}, &error));
  EXPECT_EQ(otherStartedAt - waitStartedAt, 5s);
  // The other connection's cooldown wait in one-second slices, then this loop's own 5 s.
  EXPECT_THAT(hooked_.sleeps(), ElementsAre(1s, 1s, 1s, 1s, 1s, 5s));
}

TEST_F(RetryLoopWhileWaiting, ACooldownExtendedByAnotherThreadDuringTheWaitIsWaitedOutToo) {
  WebDAVConnect::noteDropboxRateLimitWithSuggestedDelay(3);
  hooked_.onFirstSleep = [] {
    std::thread([] { WebDAVConnect::noteDropboxRateLimitWithSuggestedDelay(5); }).join();
  };
  std::optional<Error> error;
  EXPECT_TRUE(run({std::nullopt}, &error));
  // Without the extension the wait would have been 1, 1, 1.
  EXPECT_THAT(hooked_.sleeps(), ElementsAre(1s, 1s, 1s, 1s, 1s));
}

TEST_F(RetryLoop, RateLimitsAndServerErrorsShareOneCapOfTenAttempts) {
  std::deque<std::optional<Error>> script;
  for (int i = 0; i < 6; ++i) {
    script.push_back(serverError(429));
    script.push_back(serverError(500));
  }
  std::optional<Error> error;
  EXPECT_FALSE(run(script, &error));
  EXPECT_EQ(attempts_, 10);
  EXPECT_EQ(error->code(), 500);
  EXPECT_THAT(env_.sleeps(), ElementsAre(2s, 500ms, 4s, 500ms, 8s, 500ms, 16s, 500ms, 30s));
}

TEST_F(RetryLoop, EachLogLineHasItsOwnDelivery) {
  log::CaptureLog capture;
  std::optional<Error> error;
  EXPECT_TRUE(run({serverError(500), serverError(429), std::nullopt}, &error));
  std::vector<std::pair<log::Level, log::Delivery>> deliveries;
  for (const auto& entry : capture.entries()) deliveries.emplace_back(entry.level, entry.delivery);
  // Failures are written before the loop goes on; retry and rate-limit notes go to the log
  // thread.
  EXPECT_THAT(deliveries, testing::UnorderedElementsAre(
                              std::pair(log::Level::kError, log::Delivery::kSync),
                              std::pair(log::Level::kDebug, log::Delivery::kAsync),
                              std::pair(log::Level::kError, log::Delivery::kSync),
                              std::pair(log::Level::kWarning, log::Delivery::kAsync)));
}

TEST_F(RetryLoop, EachAttemptStartsWithTheOutcomeCleared) {
  dbx::DBRequestError serverFailure;
  serverFailure.kind = dbx::DBRequestError::Kind::kInternalServer;
  serverFailure.statusCode = 500;
  std::vector<bool> staleFailureSeen;
  std::vector<bool> staleErrorSeen;
  std::optional<Error> error;
  RetryMessages messages{[](const Error& e) { return describeError(e); },
                         [](const Error& e, int64_t) { return describeError(e); }, "x"};
  EXPECT_TRUE(runSynchronousRetryLoop(*connection_, messages, &error, [&](ErrorOut attemptError) {
    staleFailureSeen.push_back(connection_->checkIfRequestFailed(nullptr));
    staleErrorSeen.push_back(attemptError->has_value());
    if (staleFailureSeen.size() == 3) return true;
    // What a failed backend call leaves behind: the connection's outcome and the caller's error.
    connection_->setAsyncErrorIfRequired(&serverFailure);
    return !connection_->checkIfRequestFailed(attemptError);
  }));
  EXPECT_THAT(staleFailureSeen, ElementsAre(false, false, false));
  EXPECT_THAT(staleErrorSeen, ElementsAre(false, false, false));
  EXPECT_FALSE(error);
}

}  // namespace
}  // namespace wdc
