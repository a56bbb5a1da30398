// A TLS emulator on a free port and a client that trusts its certificate, plus `await`, which
// registers a handler on a test queue and waits (bounded) for the answer.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <optional>

#include "dbx/user_client.h"
#include "emulator/emulator.h"
#include "support/test_util.h"
#include "webdavconnect/operation_queue.h"

namespace wdc::dbx::testing {

template <typename Result, typename RouteError>
struct Answer {
  std::optional<Result> result;
  std::optional<RouteError> routeError;
  std::optional<DBRequestError> error;
  std::string data;                   // downloads into memory
  std::filesystem::path destination;  // downloads to a file

  // The underlying URL-loading code, 0 when there is none.
  [[nodiscard]] int64_t nsCode() const {
    return error && error->nsError ? error->nsError->code() : 0;
  }
};

class DbxClientTest : public ::testing::Test {
 protected:
  explicit DbxClientTest(emu::EmulatorOptions options = {.tls = true, .token = "T"})
      : emulator_(std::move(options)) {}

  void SetUp() override {
    std::string error;
    ASSERT_TRUE(emulator_.start(&error)) << error;
    ASSERT_TRUE(emulator_.writeCertificate(caFile(), &error)) << error;
    client_ = makeClient(DBOAuth2Token{"dbid:test", "T", std::nullopt, std::nullopt});
  }
  void TearDown() override {
    if (client_) client_->close();
  }

  std::filesystem::path caFile() const { return dir_.path() / "emulator.pem"; }

  DBClientConfig config() const {
    DBClientConfig config;
    config.apiBaseUrl = emulator_.baseUrl();
    config.contentBaseUrl = emulator_.baseUrl();
    config.notifyBaseUrl = emulator_.baseUrl();
    config.caFile = caFile();
    config.connectTimeout = std::chrono::milliseconds(5000);
    config.idleTimeout = std::chrono::milliseconds(10000);
    config.appKey = "key";
    config.appSecret = "secret";
    return config;
  }

  std::shared_ptr<DBUserClient> makeClient(DBOAuth2Token token,
                                           std::optional<DBClientConfig> custom = std::nullopt) {
    return DBUserClient::create(custom.value_or(config()), std::move(token));
  }

  DBFILESUserAuthRoutes& files() { return client_->filesRoutes(); }

  template <typename Result, typename RouteError, typename... Extra>
  Answer<Result, RouteError> await(DBTask<Result, RouteError, Extra...> task) {
    auto promise = std::make_shared<std::promise<Answer<Result, RouteError>>>();
    auto future = promise->get_future();
    task.setResponseBlock(
        [promise](const Result* result, const RouteError* routeError,
                  const DBRequestError* error, const Extra&... extra) {
          Answer<Result, RouteError> answer;
          if (result) answer.result = *result;
          if (routeError) answer.routeError = *routeError;
          if (error) answer.error = *error;
          (record(answer, extra), ...);
          promise->set_value(std::move(answer));
        },
        queue_);
    if (future.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
      ADD_FAILURE() << "no answer within 30 s";
      return {};
    }
    return future.get();
  }

  template <typename Answer>
  static void record(Answer& answer, const std::string& data) {
    answer.data = data;
  }
  template <typename Answer>
  static void record(Answer& answer, const std::filesystem::path& destination) {
    answer.destination = destination;
  }

  test::TempDir dir_;
  emu::Emulator emulator_;
  std::shared_ptr<SerialQueue> queue_ = std::make_shared<SerialQueue>("dbx-test");
  std::shared_ptr<DBUserClient> client_;
};

}  // namespace wdc::dbx::testing
