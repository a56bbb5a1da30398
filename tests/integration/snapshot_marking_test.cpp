// Which folders a listing marks for a folder snapshot, read back from the process-wide cache.
// No network: the entries are built here the way the client decodes them.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "dbx/metadata.h"
#include "webdavconnect/webdav_connect.h"
#include "webdavconnect/zip_snapshot.h"

namespace wdc {
namespace {

using Entries = std::vector<std::shared_ptr<const dbx::DBFILESMetadata>>;

class SnapshotMarking : public ::testing::Test {
 protected:
  void SetUp() override { snapshot().reset(); }
  void TearDown() override { snapshot().reset(); }

  static WebDAVDropboxZipSnapshot& snapshot() { return WebDAVDropboxZipSnapshot::sharedSnapshot(); }

  static bool unmarked(const std::string& folder) {
    return !snapshot().isFolderPending(folder) && !snapshot().isFolderReady(folder) &&
           !snapshot().isFolderFailed(folder);
  }

  template <typename Kind>
  static void add(Entries& entries, const std::string& folder, int count,
                  const std::string& stem = "o_a_k_c_p_p_i_") {
    for (int i = 0; i < count; ++i) {
      auto entry = std::make_shared<Kind>();
      entry->pathLower = folder + "/" + stem + std::to_string(i) + "_d_x.tod";
      entries.push_back(std::move(entry));
    }
  }
};

TEST_F(SnapshotMarking, ThirtyTodAndTenColMarkOnlyTod) {
  Entries entries;
  add<dbx::DBFILESFileMetadata>(entries, "/tod", 30);
  add<dbx::DBFILESFileMetadata>(entries, "/col", 10);
  WebDAVConnect::markDropboxZipSnapshotFoldersFromEntries(entries);
  EXPECT_TRUE(snapshot().isFolderPending("tod"));
  EXPECT_TRUE(unmarked("col"));
}

TEST_F(SnapshotMarking, OnlyFileEntriesCount) {
  Entries entries;
  add<dbx::DBFILESFileMetadata>(entries, "/cal", 24);
  add<dbx::DBFILESFolderMetadata>(entries, "/cal", 10, "folder_");
  add<dbx::DBFILESDeletedMetadata>(entries, "/cal", 10, "gone_");
  WebDAVConnect::markDropboxZipSnapshotFoldersFromEntries(entries);
  EXPECT_TRUE(unmarked("cal"));

  add<dbx::DBFILESFileMetadata>(entries, "/cal", 1, "last_");
  WebDAVConnect::markDropboxZipSnapshotFoldersFromEntries(entries);
  EXPECT_TRUE(snapshot().isFolderPending("cal"));
}

TEST_F(SnapshotMarking, TheBareFolderNameCountsWhateverLiesAboveIt) {
  Entries entries;
  add<dbx::DBFILESFileMetadata>(entries, "/a/loc", 13);
  add<dbx::DBFILESFileMetadata>(entries, "/b/c/LOC", 12);
  WebDAVConnect::markDropboxZipSnapshotFoldersFromEntries(entries);
  EXPECT_TRUE(snapshot().isFolderPending("loc"));
  EXPECT_TRUE(unmarked("a/loc"));
}

TEST_F(SnapshotMarking, OtherFoldersTheRootAndPathlessEntriesAreNeverMarked) {
  Entries entries;
  add<dbx::DBFILESFileMetadata>(entries, "/attachments", 100);
  add<dbx::DBFILESFileMetadata>(entries, "/tod/sub", 40);
  add<dbx::DBFILESFileMetadata>(entries, "", 40);  // files in the root
  for (int i = 0; i < 40; ++i) entries.push_back(std::make_shared<dbx::DBFILESFileMetadata>());
  WebDAVConnect::markDropboxZipSnapshotFoldersFromEntries(entries);
  for (const char* folder : {"attachments", "sub", "tod", "/", ""}) {
    EXPECT_TRUE(unmarked(folder)) << folder;
  }
}

TEST_F(SnapshotMarking, EverySnapshotFolderCanBeMarked) {
  Entries entries;
  for (const char* folder : {"/tod", "/col", "/cal", "/cat", "/cag", "/loc"}) {
    add<dbx::DBFILESFileMetadata>(entries, folder, 25);
  }
  WebDAVConnect::markDropboxZipSnapshotFoldersFromEntries(entries);
  for (const char* folder : {"tod", "col", "cal", "cat", "cag", "loc"}) {
    EXPECT_TRUE(snapshot().isFolderPending(folder)) << folder;
  }
}

}  // namespace
}  // namespace wdc
