#include <gtest/gtest.h>

#include "webdavconnect/file_contents.h"
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
  auto file = std::make_shared<WebDAVFileMetaData>();
  auto contents = std::make_shared<WebDAVFileContents>();
  EXPECT_FALSE(c->getWebDAVAccountUsername(&e));
  EXPECT_FALSE(c->getCurrentWebDAVLockFile(&e));
  EXPECT_FALSE(c->lockDirectoryWebDAV("owner", &e));
  EXPECT_FALSE(c->unlockDirectoryWebDAV("owner_1.000000", &e));
  EXPECT_FALSE(c->getHashFromWebDAV(&e, "/a"));
  EXPECT_FALSE(c->getDeltaFileListFromWebDAV(&e, "/a", "cursor", "tod", true));
  EXPECT_FALSE(c->getFileListFromWebDAV(&e, "/a", Date{0}, std::vector<std::string>{"tod"}));
  EXPECT_FALSE(c->getContentsForWebDAVFile(file, "/a", &e));
  EXPECT_FALSE(c->doesWebDAVFolderExist("/a", &e));
  EXPECT_FALSE(c->createNewWebDAVFolder("/a", &e));
  EXPECT_FALSE(c->deleteWebDAVFolder("/a", &e));
  EXPECT_FALSE(c->uploadArbitraryFileToWebDAV("n", PlistValue("x"), "/a", &e));
  EXPECT_FALSE(c->deleteArbitraryFileFromWebDAV("n", "/a", &e));
  EXPECT_FALSE(c->downloadArbitraryFileFromWebDAV("n", "/a", &e));
  EXPECT_FALSE(c->uploadFileWithObjectToWebDAV(contents, "/a", "device", &e));
  EXPECT_FALSE(c->deleteFileAtPathFromWebDAV(file, "/a", &e));
  EXPECT_EQ(e, sentinel);
}

// A host written against the Dropbox operations compiles against the other backends: the same
// argument lists are accepted by each (checked at compile time).
template <typename... Args>
concept SameCallsOnEveryBackend = requires(WebDAVConnect& c, Args... args) {
  c.lockDirectoryDropbox(args...);
  c.lockDirectoryWebDAV(args...);
  c.lockDirectoryLocal(args...);
};
static_assert(SameCallsOnEveryBackend<std::string, ErrorOut>);
static_assert(requires(WebDAVConnect & c, ErrorOut e, std::optional<std::string> s,
                       std::shared_ptr<WebDAVFileMetaData> f) {
  c.getCurrentDropboxLockFile(e), c.getCurrentWebDAVLockFile(e), c.getCurrentLocalLockFile(e);
  c.getDropboxAccountUsername(e), c.getWebDAVAccountUsername(e), c.getLocalAccountUsername(e);
  c.unlockDirectoryDropbox(std::string(), e), c.unlockDirectoryWebDAV(std::string(), e),
      c.unlockDirectoryLocal(std::string(), e);
  c.deleteArbitraryFileFromDropbox(s, s, e), c.deleteArbitraryFileFromWebDAV(s, s, e),
      c.deleteArbitraryFileFromLocal(s, s, e);
  c.deleteFileAtPathFromDropbox(f, s, e), c.deleteFileAtPathFromWebDAV(f, s, e),
      c.deleteFileAtPathFromLocal(f, s, e);
  c.createNewDropboxFolder(s, e), c.createNewWebDAVFolder(s, e), c.createNewLocalFolder(s, e);
  c.deleteDropboxFolder(s, e), c.deleteWebDAVFolder(s, e), c.deleteLocalFolder(s, e);
  c.doesDropboxFolderExist(s, e), c.doesWebDAVFolderExist(s, e), c.doesLocalFolderExist(s, e);
  c.getFileListFromWebDAV(e, s, std::optional<Date>(), std::optional<std::vector<std::string>>()),
      c.getFileListFromLocal(e, s, std::optional<Date>(),
                             std::optional<std::vector<std::string>>());
});

TEST(Connection, RemoveAllResourcesEmptiesTheSharedSnapshotCacheButKeepsTheCursor) {
  auto& cache = WebDAVDropboxZipSnapshot::sharedSnapshot();
  ASSERT_TRUE(cache.markFolder("/Tasks/", 25));
  auto c =
      WebDAVConnect::initWithConnectionType(kConnectionTypeDropbox, std::nullopt, std::nullopt);
  c->dropboxDeltaCursor = "cursor-1";
  c->removeAllResources();
  EXPECT_FALSE(cache.isFolderPending("tasks"));
  EXPECT_EQ(c->dropboxDeltaCursor, "cursor-1");
}

}  // namespace
}  // namespace wdc
