#include <gtest/gtest.h>

#include "webdavconnect/webdav_connect.h"
#include "webdavconnect/zip_snapshot.h"

namespace wdc {
namespace {

TEST(WebDAVConnectConstruction, KeepsOnlyTheConnectionType) {
  auto connection = WebDAVConnect::initWithConnectionType(3, "login", "password");
  EXPECT_EQ(connection->connectionType, 3u);
  EXPECT_FALSE(connection->dropboxDeltaCursor);
  EXPECT_FALSE(connection->shouldResetLocalData);
  EXPECT_FALSE(connection->queueToUse);
}

TEST(WebDAVBackend, EveryOperationAnswersEmptyAndLeavesTheErrorAlone) {
  auto c = WebDAVConnect::initWithConnectionType(2, std::nullopt, std::nullopt);
  const Error sentinel("sentinel", 7);
  std::optional<Error> e = sentinel;
  EXPECT_FALSE(c->getWebDAVAccountUsername());
  EXPECT_FALSE(c->getCurrentWebDAVLockFile());
  EXPECT_FALSE(c->lockDirectoryWebDAV(&e));
  EXPECT_FALSE(c->unlockDirectoryWebDAV(&e));
  EXPECT_FALSE(c->getHashFromWebDAV("/a"));
  EXPECT_FALSE(c->getDeltaFileListFromWebDAV("/a", "cursor", "tod", true));
  EXPECT_FALSE(c->getFileListFromWebDAV("/a", Date{0}, std::vector<std::string>{"tod"}));
  EXPECT_FALSE(c->getContentsForWebDAVFile("/a", &e));
  EXPECT_FALSE(c->doesWebDAVFolderExist(&e));
  EXPECT_FALSE(c->createNewWebDAVFolder(&e));
  EXPECT_FALSE(c->deleteWebDAVFolder(&e));
  EXPECT_FALSE(c->uploadArbitraryFileToWebDAV(PlistValue("x"), "/a", &e));
  EXPECT_FALSE(c->deleteArbitraryFileFromWebDAV("/a", &e));
  EXPECT_FALSE(c->downloadArbitraryFileFromWebDAV("/a", &e));
  EXPECT_FALSE(c->uploadFileWithObjectToWebDAV("/a", "device", &e));
  EXPECT_FALSE(c->deleteFileAtPathFromWebDAV("/a", &e));
  EXPECT_EQ(e, sentinel);
}

TEST(Connection, RemoveAllResourcesEmptiesTheSharedSnapshotCacheButKeepsTheCursor) {
  auto& cache = WebDAVDropboxZipSnapshot::sharedSnapshot();
  ASSERT_TRUE(cache.markFolder("/Tasks/", 25));
  auto c = WebDAVConnect::initWithConnectionType(kConnectionTypeDropbox, std::nullopt, std::nullopt);
  c->dropboxDeltaCursor = "cursor-1";
  c->removeAllResources();
  EXPECT_FALSE(cache.isFolderPending("tasks"));
  EXPECT_EQ(c->dropboxDeltaCursor, "cursor-1");
}

}  // namespace
}  // namespace wdc
