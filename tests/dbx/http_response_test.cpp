// How answers become results, route errors or request errors: one table of statuses, bodies and
// headers, plus the rate-limit back-off order.
#include "dbx/http_response.h"

#include <gtest/gtest.h>

namespace wdc::dbx {
namespace {

HttpResponse answer(long status, std::string body, std::map<std::string, std::string> headers = {}) {
  HttpResponse response;
  response.status = status;
  response.body = std::move(body);
  response.headers = std::move(headers);
  return response;
}

using Kind = DBRequestError::Kind;

struct StatusCase {
  const char* name;
  HttpResponse response;
  Kind kind;
  std::optional<std::string> content;
};

TEST(DbxClassifier, StatusesMapToRequestErrorKinds) {
  const StatusCase cases[] = {
      {"400 text", answer(400, "Error in call to API function \"files/list_folder\": bad\n"),
       Kind::kBadInput, "Error in call to API function \"files/list_folder\": bad"},
      {"401 json", answer(401, R"({"error_summary": "expired_access_token/..", "error": {".tag": "expired_access_token"}})"),
       Kind::kAuth, "expired_access_token/.."},
      {"403", answer(403, R"({"error_summary": "no_permission/..", "error": {".tag": "no_permission"}})"),
       Kind::kAccess, "no_permission/.."},
      {"422", answer(422, "{}"), Kind::kPathRoot, "{}"},
      {"500 empty", answer(500, ""), Kind::kInternalServer, std::nullopt},
      {"503 text", answer(503, "busy"), Kind::kInternalServer, "busy"},
      {"302 redirect", answer(302, "", {{"location", "https://elsewhere.example/"}}), Kind::kHttp,
       std::nullopt},
      {"404", answer(404, "Unknown API function"), Kind::kHttp, "Unknown API function"},
      {"409 not json", answer(409, "conflict"), Kind::kHttp, "conflict"},
      {"409 without error", answer(409, R"({"error_summary": "x/.."})"), Kind::kHttp, "x/.."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto classified = classifyResponse(c.response, RouteStyle::kRpc);
    ASSERT_EQ(classified.kind, ClassifiedResponse::Kind::kRequestError);
    const auto& error = *classified.requestError;
    EXPECT_EQ(error.kind, c.kind);
    EXPECT_EQ(error.statusCode, static_cast<int>(c.response.status));
    EXPECT_EQ(error.errorContent, c.content);
    EXPECT_FALSE(error.nsError);
    EXPECT_FALSE(error.isRateLimitError());
  }
}

TEST(DbxClassifier, AuthErrorsNameTheirTagAndDeadRefreshTokensAreAuthErrors) {
  auto expired = requestErrorForStatus(
      answer(401, R"({"error_summary": "expired_access_token/..", "error": {".tag": "expired_access_token"}})"));
  EXPECT_EQ(expired.authErrorTag, "expired_access_token");
  auto grant = requestErrorForStatus(
      answer(400, R"({"error": "invalid_grant", "error_description": "refresh token is invalid"})"));
  EXPECT_EQ(grant.kind, Kind::kAuth);
  EXPECT_EQ(grant.authErrorTag, "invalid_grant");
}

TEST(DbxClassifier, RedirectsAreRefusedAndSaySo) {
  auto error = requestErrorForStatus(answer(307, "", {{"location", "https://evil.example/2/x"}}));
  EXPECT_EQ(error.kind, Kind::kHttp);
  EXPECT_NE(error.message.find("evil.example"), std::string::npos);
}

struct BackoffCase {
  const char* name;
  HttpResponse response;
  std::optional<double> backoff;
  std::string reason;
};

TEST(DbxClassifier, RateLimitBackoffPrefersBodyThenHeaderElseNone) {
  const BackoffCase cases[] = {
      {"body and header", answer(429, R"({"error_summary": "too_many_requests/..", "error": {"reason": {".tag": "too_many_requests"}, "retry_after": 300}})", {{"retry-after", "5"}}),
       300.0, "too_many_requests"},
      {"header only", answer(429, R"({"error": {"reason": {".tag": "too_many_write_operations"}}})", {{"retry-after", "2"}}),
       2.0, "too_many_write_operations"},
      {"body only", answer(429, R"({"error": {"reason": {".tag": "too_many_requests"}, "retry_after": 3}})"),
       3.0, "too_many_requests"},
      {"plain text with header", answer(429, "slow down", {{"retry-after", " 7 "}}), 7.0,
       "too_many_requests"},
      {"neither", answer(429, ""), std::nullopt, "too_many_requests"},
      {"garbage header", answer(429, "", {{"retry-after", "Wed, 21 Oct 2015 07:28:00 GMT"}}),
       std::nullopt, "too_many_requests"},
      {"negative body value falls to header", answer(429, R"({"error": {"retry_after": -4}})", {{"retry-after", "1"}}),
       1.0, "too_many_requests"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto classified = classifyResponse(c.response, RouteStyle::kRpc);
    ASSERT_TRUE(classified.requestError);
    EXPECT_TRUE(classified.requestError->isRateLimitError());
    EXPECT_EQ(classified.requestError->statusCode, 429);
    EXPECT_EQ(classified.requestError->backoff, c.backoff);
    EXPECT_EQ(classified.requestError->rateLimitReason, c.reason);
  }
}

TEST(DbxClassifier, SuccessCarriesTheResultFromBodyOrHeader) {
  auto rpc = classifyResponse(answer(200, R"({"cursor": "c"})"), RouteStyle::kRpc);
  ASSERT_EQ(rpc.kind, ClassifiedResponse::Kind::kResult);
  EXPECT_EQ(rpc.value["cursor"], "c");

  auto download = classifyResponse(
      answer(200, "raw bytes", {{"dropbox-api-result", R"({"name": "a"})"}}), RouteStyle::kDownload);
  ASSERT_EQ(download.kind, ClassifiedResponse::Kind::kResult);
  EXPECT_EQ(download.value["name"], "a");
}

TEST(DbxClassifier, MalformedSuccessAnswersAreRequestErrorsNotResults) {
  const std::pair<HttpResponse, RouteStyle> cases[] = {
      {answer(200, "<html>"), RouteStyle::kRpc},
      {answer(200, ""), RouteStyle::kUpload},
      {answer(200, "{\"cursor\": \"c\""), RouteStyle::kRpc},  // cut short
      {answer(200, "bytes"), RouteStyle::kDownload},         // no result header
      {answer(200, "bytes", {{"dropbox-api-result", "{not json"}}), RouteStyle::kDownload},
  };
  for (const auto& [response, style] : cases) {
    auto classified = classifyResponse(response, style);
    ASSERT_EQ(classified.kind, ClassifiedResponse::Kind::kRequestError) << response.body;
    ASSERT_TRUE(classified.requestError->nsError);
    EXPECT_EQ(classified.requestError->nsError->code(), kURLErrorCannotParseResponse);
    EXPECT_EQ(classified.requestError->nsError->domain(), kURLErrorDomain);
    EXPECT_EQ(classified.requestError->statusCode, 200);
  }
}

TEST(DbxClassifier, RouteErrorsComeFromTheEnvelope) {
  auto classified = classifyResponse(
      answer(409, R"({"error_summary": "path/not_found/..", "error": {".tag": "path", "path": {".tag": "not_found"}}})"),
      RouteStyle::kDownload);
  ASSERT_EQ(classified.kind, ClassifiedResponse::Kind::kRouteError);
  EXPECT_EQ(classified.value["path"][".tag"], "not_found");
  EXPECT_EQ(classified.errorSummary, "path/not_found/..");
}

TEST(DbxClassifier, TransportFailuresPassThroughWithTheirCode) {
  HttpResponse response;
  response.transportError = DBRequestError::transport(kURLErrorNetworkConnectionLost, "recv");
  auto classified = classifyResponse(response, RouteStyle::kRpc);
  ASSERT_TRUE(classified.requestError);
  EXPECT_EQ(classified.requestError->nsError->code(), -1005);
  EXPECT_FALSE(classified.requestError->statusCode);
  EXPECT_EQ(classified.requestError->nsError->localizedDescription(),
            "The network connection was lost.");
}

TEST(DbxRequestError, DescriptionNamesKindStatusAndBackoff) {
  auto error = requestErrorForStatus(answer(
      429, R"({"error_summary": "too_many_requests/..", "error": {"retry_after": 2}})",
      {{"x-dropbox-request-id", "abc"}}));
  const std::string text = error.description();
  EXPECT_EQ(text.rfind("DropboxRateLimitError[", 0), 0u) << text;
  EXPECT_NE(text.find("status=429"), std::string::npos) << text;
  EXPECT_NE(text.find("backoff=2"), std::string::npos) << text;
  EXPECT_NE(text.find("id=abc"), std::string::npos) << text;
}

}  // namespace
}  // namespace wdc::dbx
