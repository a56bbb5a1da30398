#include "webdavconnect/error.h"

#include <gtest/gtest.h>

namespace wdc {
namespace {

TEST(Error, LocalizedDescriptionComesFromUserInfoOrTheGenericText) {
  Error described = Error::withDescription("Kavo", 500, "Failed to upload");
  EXPECT_EQ(described.localizedDescription(), "Failed to upload");
  Error bare("Dropbox", 404);
  EXPECT_EQ(bare.localizedDescription(), "The operation couldn\u2019t be completed. (Dropbox error 404.)");
  Error wrongType("Dropbox", 1, PlistDictionary{{"NSLocalizedDescription", 5}});
  EXPECT_EQ(wrongType.localizedDescription(),
            "The operation couldn\u2019t be completed. (Dropbox error 1.)");
}

TEST(Error, DescriptionNamesDomainCodeAndUserInfo) {
  Error error("Dropbox", 429,
              PlistDictionary{{"NSLocalizedDescription", "Too many"},
                              {"WebDAVDropboxRetryAfterSeconds", 12}});
  EXPECT_EQ(error.description(),
            "Error Domain=Dropbox Code=429 \"Too many\" UserInfo={NSLocalizedDescription=Too many, "
            "WebDAVDropboxRetryAfterSeconds=12}");
}

TEST(Error, SetErrorWritesOnlyWhenAsked) {
  setError(nullptr, Error("Dropbox", 1));  // must not crash
  std::optional<Error> out;
  setError(&out, Error("Dropbox", -1001));
  ASSERT_TRUE(out);
  EXPECT_EQ(out->domain(), "Dropbox");
  EXPECT_EQ(out->code(), -1001);
}

TEST(Error, CorruptionCarriesWhatAndWhere) {
  Error e = Error::corruption("bad object reference 17", "offset 0x2c");
  EXPECT_EQ(e.domain(), "WebDAVConnect");
  EXPECT_EQ(e.localizedDescription(), "bad object reference 17 (offset 0x2c)");
}

}  // namespace
}  // namespace wdc
