#include "dbx/token_store.h"

#include <sys/stat.h>

#include <fstream>

#include <gtest/gtest.h>

#include "support/test_util.h"

namespace wdc::dbx {
namespace {

TEST(DbxTokenStore, RoundTripsBothTokenKindsWithOwnerOnlyMode) {
  test::TempDir dir;
  const auto path = dir.path() / "nested" / "tokens.json";
  DBTokenStoreContents contents;
  contents.oauth2 = DBOAuth2Token{"dbid:1", "sl.access", "refresh", parseTimestamp("2030-01-02T03:04:05Z")};
  contents.oauth1.push_back({"42", "tok", "sec", "appkey"});
  std::optional<Error> error;
  ASSERT_TRUE(saveTokenStore(path, contents, &error));
  EXPECT_NO_WDC_ERROR(error);

  struct stat info {};
  ASSERT_EQ(::stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);

  auto loaded = loadTokenStore(path, &error);
  ASSERT_TRUE(loaded);
  ASSERT_TRUE(loaded->oauth2);
  EXPECT_EQ(loaded->oauth2->accessToken, "sl.access");
  EXPECT_EQ(loaded->oauth2->refreshToken, "refresh");
  EXPECT_EQ(formatTimestamp(*loaded->oauth2->expiresAt), "2030-01-02T03:04:05Z");
  ASSERT_EQ(loaded->oauth1.size(), 1u);
  EXPECT_EQ(loaded->oauth1[0].accessTokenSecret, "sec");
  EXPECT_EQ(loaded->oauth1[0].appKey, "appkey");
}

TEST(DbxTokenStore, MissingFileIsEmptyCorruptFileIsAnError) {
  test::TempDir dir;
  auto empty = loadTokenStore(dir.path() / "none.json");
  ASSERT_TRUE(empty);
  EXPECT_FALSE(empty->oauth2);
  EXPECT_TRUE(empty->oauth1.empty());

  for (const char* text : {"{", R"({"oauth2": {"refresh_token": "r"}})", R"({"oauth1": [{"token": 1}]})",
                           // an expiry in year 2300, past what the clock holds
                           R"({"oauth2": {"access_token": "a", "expires_at": 10413792000}})",
                           R"({"oauth2": {"access_token": "a", "expires_at": -9223372036854775807}})"}) {
    std::ofstream(dir.path() / "bad.json") << text;
    std::optional<Error> error;
    EXPECT_FALSE(loadTokenStore(dir.path() / "bad.json", &error)) << text;
    EXPECT_TRUE(error) << text;
  }
}

}  // namespace
}  // namespace wdc::dbx
