// The emulator as a server: listening, TLS, authentication, the request pipeline's 400 texts, and
// stopping quickly with keep-alive connections open.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "emulator/emulator.h"
#include "emulator/http_client.h"

namespace wdc::emu {
namespace {

using testing::HttpClient;
using Json = nlohmann::json;

class ServerTest : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    ASSERT_TRUE(emulator_.start(&error_)) << error_;
    client_ = std::make_unique<HttpClient>(emulator_.baseUrl(), emulator_.certificatePem());
  }
  Emulator emulator_{EmulatorOptions{.tls = GetParam(), .token = "T"}};
  std::string error_;
  std::unique_ptr<HttpClient> client_;
};

TEST_P(ServerTest, AnswersCurrentAccountWithBothVoidForms) {
  EXPECT_EQ(emulator_.baseUrl().rfind(GetParam() ? "https://127.0.0.1:" : "http://127.0.0.1:", 0),
            0u);
  // What the Python SDK sends, then what the JavaScript and Objective-C SDKs send.
  const auto withNull = client_->rpc("users/get_current_account", "null");
  const std::string empty;
  const auto withEmpty =
      client_->post("users/get_current_account", {"Authorization: Bearer T"}, &empty);
  for (const auto& reply : {withNull, withEmpty}) {
    ASSERT_EQ(reply.curlCode, 0);
    EXPECT_EQ(reply.status, 200) << reply.body;
    EXPECT_EQ(reply.contentType(), "application/json");
    EXPECT_FALSE(reply.header("x-dropbox-request-id").empty());
    const Json account = Json::parse(reply.body);
    EXPECT_EQ(account["account_id"].get<std::string>().size(), 40u);
    EXPECT_EQ(account["name"]["display_name"], "Emu Lator");
  }
  EXPECT_EQ(emulator_.requestCount("users/get_current_account"), 2u);
  EXPECT_EQ(emulator_.requestCount("*"), 2u);
}

TEST_P(ServerTest, BodilessPostWithoutContentLengthIsAnsweredAtOnce) {
  const auto reply =
      client_->post("users/get_current_account", {"Authorization: Bearer T"}, nullptr);
  EXPECT_EQ(reply.curlCode, 0);
  EXPECT_EQ(reply.status, 200) << reply.body;
}

TEST_P(ServerTest, ChecksTheBearerToken) {
  const auto wrong = client_->rpc("users/get_current_account", "null", "other");
  EXPECT_EQ(wrong.status, 401);
  EXPECT_EQ(wrong.contentType(), "application/json");
  EXPECT_EQ(Json::parse(wrong.body)["error"][".tag"], "invalid_access_token");

  const std::string body = "null";
  const auto missing =
      client_->post("users/get_current_account", {"Content-Type: application/json"}, &body);
  EXPECT_EQ(missing.status, 400);
  EXPECT_NE(missing.body.find("Must provide HTTP header \"Authorization\""), std::string::npos);
}

TEST_P(ServerTest, StopsQuicklyWithKeepAliveConnectionsOpen) {
  HttpClient second(emulator_.baseUrl(), emulator_.certificatePem());
  ASSERT_EQ(client_->rpc("users/get_current_account", "null").status, 200);
  ASSERT_EQ(second.rpc("users/get_current_account", "null").status, 200);
  const auto before = std::chrono::steady_clock::now();
  emulator_.stop();
  // The keep-alive timeout is 5 s; stopping must not wait for it.
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(2));
  EXPECT_FALSE(emulator_.running());
  // The store survives and the emulator comes back on the same port.
  const uint16_t port = emulator_.port();
  ASSERT_TRUE(emulator_.start(&error_)) << error_;
  EXPECT_EQ(emulator_.port(), port);
  EXPECT_EQ(client_->rpc("users/get_current_account", "null").status, 200);
}

INSTANTIATE_TEST_SUITE_P(HttpAndTls, ServerTest, ::testing::Values(false, true),
                         [](const auto& param) { return param.param ? "Tls" : "Http"; });

}  // namespace
}  // namespace wdc::emu
