#include <gtest/gtest.h>

#include "webdavconnect/webdav_connect.h"

namespace wdc {
namespace {

TEST(ResolvedDropboxFolderPath, RootIsEmptyAndEveryOtherPathIsAbsolute) {
  EXPECT_EQ(WebDAVConnect::getResolvedDropboxFolderPath(std::nullopt), "");
  EXPECT_EQ(WebDAVConnect::getResolvedDropboxFolderPath(""), "");
  EXPECT_EQ(WebDAVConnect::getResolvedDropboxFolderPath("/"), "/");
  EXPECT_EQ(WebDAVConnect::getResolvedDropboxFolderPath("//"), "/");
  for (const char* path : {"a", "/a", "a/", "//a//"}) {
    EXPECT_EQ(WebDAVConnect::getResolvedDropboxFolderPath(path), "/a") << path;
  }
  EXPECT_EQ(WebDAVConnect::getResolvedDropboxFolderPath("Tasks//Sub/"), "/Tasks/Sub");
}

}  // namespace
}  // namespace wdc
