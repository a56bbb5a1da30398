// The delta listing end to end: WebDAVConnect -> retry loop -> listing -> client -> TLS ->
// emulator. What a fetch caches, what cache-only calls answer without the network, which
// entries become records and how, and which folders get marked for a snapshot.
#include "delta_listing_test.h"

#include <fmt/format.h>

namespace wdc::testing_support {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

bool unmarked(const std::string& folder) {
  auto& cache = WebDAVDropboxZipSnapshot::sharedSnapshot();
  return !cache.isFolderPending(folder) && !cache.isFolderReady(folder) &&
         !cache.isFolderFailed(folder);
}

TEST_F(DeltaListing, AFetchListsOneFolderAndMarksOnlyRecordFoldersWithEnoughFiles) {
  putRecords("tod", "tod", 30);
  putRecords("col", "col", 10);
  putRecords("attachments", "tod", 40);
  auto records = fetch("tod", "tod");
  ASSERT_TRUE(records) << error_->description();
  EXPECT_THAT(*records, SizeIs(30));
  EXPECT_EQ(namesOf(records).front(), recordName("u0000", "tod"));
  EXPECT_TRUE(snapshot().isFolderPending("tod"));
  EXPECT_TRUE(unmarked("col"));
  EXPECT_TRUE(unmarked("attachments"));
  EXPECT_EQ(emulator_->requestCount(kList), 1u);
  EXPECT_EQ(emulator_->requestCount(kContinue), 0u);
  EXPECT_EQ(emulator_->requestCount("files/download_zip"), 0u);
  ASSERT_TRUE(connection_->dropboxDeltaCursor);
  EXPECT_FALSE(connection_->shouldResetLocalData);
}

TEST_F(DeltaListing, FoldersAndDeletionsDoNotCountTowardsASnapshot) {
  putRecords("cat", "cat", 5, "a");
  ASSERT_TRUE(fetch("cat", "cat"));
  const auto cursor = connection_->dropboxDeltaCursor;
  for (int i = 0; i < 5; ++i)
    emulator_->removePath(fmt::format("/cat/{}", recordName(fmt::format("a{:04d}", i), "cat")));
  putRecords("cat", "cat", 20, "b");
  for (int i = 0; i < 5; ++i) emulator_->createFolder(fmt::format("/cat/folder{}", i));

  // 30 changes in /cat, of which 20 are files.
  auto records = fetch("cat", "cat", cursor);
  ASSERT_TRUE(records);
  EXPECT_THAT(*records, SizeIs(25));  // 5 deleted records and 20 new ones
  EXPECT_TRUE(unmarked("cat"));

  putRecords("cat", "cat", 5, "c");
  ASSERT_TRUE(fetch("cat", "cat", cursor));
  EXPECT_TRUE(snapshot().isFolderPending("cat"));
}

TEST_F(DeltaListing, PagesOfAThousandCoverEveryEntryInTheServersOrder) {
  putRecords("tod", "tod", 2500);
  auto records = fetch("tod", "tod");
  ASSERT_TRUE(records);
  ASSERT_THAT(*records, SizeIs(2500));
  for (int i = 0; i < 2500; ++i) {
    ASSERT_EQ(*(*records)[i]->FilePath, recordName(fmt::format("u{:04d}", i), "tod")) << i;
  }
  EXPECT_EQ(emulator_->requestCount(kList), 1u);
  EXPECT_EQ(emulator_->requestCount(kContinue), 2u);
  EXPECT_THAT(listingLines(log::Level::kDebug),
              Contains("[DROPBOX] Delta returned changed entries: 1000").Times(2));
}

TEST_F(DeltaListing, ACursorBringsOnlyWhatChangedInTheServersOrder) {
  putRecords("tod", "tod", 3);
  put("/tod/" + recordName("zz", "tod"));
  ASSERT_TRUE(fetch("tod", "tod"));
  const auto cursor = connection_->dropboxDeltaCursor;
  ASSERT_TRUE(cursor);

  ASSERT_TRUE(emulator_->removePath("/tod/" + recordName("zz", "tod")));
  put("/tod/" + recordName("aa", "tod"));
  emulator_->resetRequestCounts();
  auto records = fetch("tod", "tod", cursor);
  ASSERT_TRUE(records);
  // The server reports deletions first: the order is its own, not the names'.
  EXPECT_THAT(namesOf(records), ElementsAre(recordName("zz", "tod"), recordName("aa", "tod")));
  EXPECT_TRUE((*records)[0]->DeletedFromDropbox);
  EXPECT_FALSE((*records)[1]->DeletedFromDropbox);
  EXPECT_EQ(emulator_->requestCount(kList), 0u);
  EXPECT_EQ(emulator_->requestCount(kContinue), 1u);
  EXPECT_NE(connection_->dropboxDeltaCursor, cursor);
}

TEST_F(DeltaListing, CacheOnlyCallsMakeNoRequestAtAll) {
  putRecords("tod", "tod", 30);
  putRecords("col", "col", 10);
  put("/tod/" + recordName("other", "col"));
  ASSERT_TRUE(fetch("tod", "tod"));
  emulator_->resetRequestCounts();

  EXPECT_THAT(namesOf(cached("col", "col")), SizeIs(10));
  EXPECT_THAT(namesOf(cached("tod", std::nullopt)), SizeIs(31));
  EXPECT_THAT(namesOf(cached("/tod/", "tod")), SizeIs(30));
  for (const char* absent : {"cal", "txt"}) {
    auto records = cached("tod", absent);
    ASSERT_TRUE(records) << absent;
    EXPECT_THAT(*records, IsEmpty());
    EXPECT_TRUE(log_.contains(
        log::Level::kInfo, fmt::format("[DROPBOX] Delta returning empty set for: {} [2]", absent)));
  }
  EXPECT_EQ(emulator_->requestCount("*"), 0u);
  EXPECT_FALSE(error_);
}

TEST_F(DeltaListing, CacheOnlyWithoutAFetchOrAfterAnEmptyOneIsAnEmptyList) {
  auto before = cached("tod", "tod");
  ASSERT_TRUE(before);
  EXPECT_THAT(*before, IsEmpty());
  EXPECT_TRUE(log_.contains(log::Level::kDebug, "[DROPBOX] Can use cache but tuples is NIL!"));

  ASSERT_TRUE(fetch("tod", "tod"));  // an empty store
  auto after = cached("tod", "tod");
  ASSERT_TRUE(after);
  EXPECT_THAT(*after, IsEmpty());
  EXPECT_TRUE(log_.contains(log::Level::kInfo,
                            "[DROPBOX] Delta returning empty set for as no data available: tod"));
  EXPECT_EQ(emulator_->requestCount("*"), 1u);
}

TEST_F(DeltaListing, RemoveAllResourcesDropsTheCacheAndTheSnapshotMarks) {
  putRecords("tod", "tod", 25);
  ASSERT_TRUE(fetch("tod", "tod"));
  ASSERT_TRUE(snapshot().isFolderPending("tod"));
  const auto cursor = connection_->dropboxDeltaCursor;

  connection_->removeAllResources();
  log_.clear();
  auto records = cached("tod", "tod");
  ASSERT_TRUE(records);
  EXPECT_THAT(*records, IsEmpty());
  EXPECT_TRUE(log_.contains(log::Level::kDebug, "[DROPBOX] Can use cache but tuples is NIL!"));
  EXPECT_TRUE(unmarked("tod"));
  EXPECT_EQ(connection_->dropboxDeltaCursor, cursor);  // the cursor stays
}

TEST_F(DeltaListing, RecordsFollowTheNameRulesHostsRelyOn) {
  put("/tod/o_a_k_c_p_p_i.tod");             // 7 fields: not a record
  put("/tod/o_a_k_c_p_p_i_u1_d_dev.tod");    // 10 fields
  put("/tod/o_a_k_c_p_p_i_u2_d.tod");        // 9 fields
  put("/tod/o_a_k_c_p_p_i_u5_d_x y.tod");    // a blank
  put("/tod/o_a_k_c_p_p_i_u6_d_x.col");      // another extension
  put("/Tod/O_A_K_Cap_p_p_i_U7_d_x.tod");    // capitals on the store
  put("/tod/o_d_k_c_p_p_i_u3_d_x.tod");      // op type "d"
  put("/tod/sub/o_a_k_c_p_p_i_u4_d_x.tod");  // in a sub-folder
  put("/todo/o_a_k_c_p_p_i_u8_d_x.tod");     // a folder that starts like it
  auto records = fetch("tod", "tod");
  ASSERT_TRUE(records);
  ASSERT_THAT(namesOf(records),
              ElementsAre("o_a_k_c_p_p_i_u1_d_dev.tod", "o_a_k_c_p_p_i_u2_d.tod",
                          "o_a_k_cap_p_p_i_u7_d_x.tod", "o_d_k_c_p_p_i_u3_d_x.tod"));
  const auto& full = *(*records)[0];
  EXPECT_EQ(full.OpType, "a");
  EXPECT_EQ(full.ContainerUID, "c");
  EXPECT_EQ(full.ParentUID, "p");
  EXPECT_EQ(full.UID, "u1");
  EXPECT_EQ(full.DeviceUDID, "");  // present, but not the device's text
  EXPECT_EQ(full.FileRev, emulator_->lookup("/tod/o_a_k_c_p_p_i_u1_d_dev.tod")->rev);
  ASSERT_TRUE(full.ModificationDate);
  EXPECT_EQ(full.ModificationDate->timePoint(), kModified);
  EXPECT_DOUBLE_EQ(full.ModificationDateAbsolute, 1714566605.0);
  EXPECT_FALSE(full.CreationDate);
  EXPECT_FALSE(full.DeletedFromDropbox);
  EXPECT_FALSE((*records)[1]->DeviceUDID);         // 9 fields: no device field at all
  EXPECT_EQ((*records)[2]->ContainerUID, "cap");   // identifiers come back lower-cased
  EXPECT_TRUE((*records)[3]->DeletedFromDropbox);  // a live file with op type "d"

  EXPECT_THAT(listingLines(log::Level::kDebug),
              testing::IsSupersetOf({
                  "[DROPBOX] ...    ignoring file as path /tod/sub/o_a_k_c_p_p_i_u4_d_x.tod, not "
                  "constructed as wanted path: /tod/o_a_k_c_p_p_i_u4_d_x.tod",
                  "[DROPBOX] ...    ignoring file as path /todo/o_a_k_c_p_p_i_u8_d_x.tod, not "
                  "constructed as wanted path: /tod/o_a_k_c_p_p_i_u8_d_x.tod",
                  "[DROPBOX] ...    ignoring file as filepath o_a_k_c_p_p_i_u5_d_x y.tod has an "
                  "invalid character",
                  "[DROPBOX] ...     ignoring /tod/o_a_k_c_p_p_i_u6_d_x.col, extension does not "
                  "match: col",
              }));

  // Without an extension every record file of the folder counts, whatever its extension.
  EXPECT_THAT(namesOf(cached("tod", std::nullopt)),
              ElementsAre("o_a_k_c_p_p_i_u1_d_dev.tod", "o_a_k_c_p_p_i_u2_d.tod",
                          "o_a_k_c_p_p_i_u6_d_x.col", "o_a_k_cap_p_p_i_u7_d_x.tod",
                          "o_d_k_c_p_p_i_u3_d_x.tod"));
}

TEST_F(DeltaListing, FolderNamesAreComparedWithTheServersLowerCasePathsAsGiven) {
  putRecords("tod", "tod", 3);
  auto capitals = fetch("Tod", "tod");
  ASSERT_TRUE(capitals);
  EXPECT_THAT(*capitals, IsEmpty());
  EXPECT_TRUE(log_.contains(log::Level::kDebug, "[DROPBOX] ...    ignoring /tod/" +
                                                    recordName("u0000", "tod") +
                                                    ", not under wanted path: /Tod"));
  for (const std::optional<std::string>& root :
       {std::optional<std::string>(""), std::optional<std::string>()}) {
    auto records = cached(root, "tod");
    ASSERT_TRUE(records);
    EXPECT_THAT(*records, IsEmpty());
  }
  EXPECT_THAT(namesOf(cached("/tod", "tod")), SizeIs(3));
  EXPECT_FALSE(error_);
}

TEST_F(DeltaListing, DeletedEntriesComeBackDeletedWithoutDateOrRevision) {
  put("/cat/" + recordName("gone", "cat", "u"));
  putRecords("tod", "tod", 2);
  ASSERT_TRUE(fetch("tod", "tod"));
  const auto cursor = connection_->dropboxDeltaCursor;
  ASSERT_TRUE(emulator_->removePath("/cat/" + recordName("gone", "cat", "u")));

  // The only change is in /cat; its extension still counts for the cache-only answers.
  ASSERT_TRUE(fetch("tod", "tod", cursor));
  auto records = cached("cat", "cat");
  ASSERT_THAT(namesOf(records), ElementsAre(recordName("gone", "cat", "u")));
  const auto& gone = *(*records)[0];
  EXPECT_TRUE(gone.DeletedFromDropbox);
  EXPECT_EQ(gone.OpType, "u");
  EXPECT_EQ(gone.FileRev, "");
  EXPECT_FALSE(gone.ModificationDate);
  EXPECT_EQ(gone.ModificationDateAbsolute, 0.0);
  auto todRecords = cached("tod", "tod");
  ASSERT_TRUE(todRecords);
  EXPECT_THAT(*todRecords, IsEmpty());
}

TEST_F(DeltaListing, AFetchLogsEachStepAtDebugLevel) {
  put("/tod/" + recordName("u1", "tod"));
  put("/col/" + recordName("u2", "col"));
  log_.clear();
  ASSERT_TRUE(fetch("tod", "tod"));
  const std::string cursor = *connection_->dropboxDeltaCursor;
  EXPECT_THAT(
      listingLines(log::Level::kDebug),
      ElementsAre("[DROPBOX] Delta Setting up Cache...", "[DROPBOX] Delta No previous cursor...",
                  "[DROPBOX] Delta returned changed entries: 4",
                  "[DROPBOX] Delta loaded, has more changes [0] Should reset [0] New Cursor [" +
                      cursor + "] ",
                  "[DROPBOX] delta ended, successful call [1] more changes [0] reset [0] cursor [" +
                      cursor + "]",
                  "[DROPBOX] Delta filtering... 4", "[DROPBOX] ... path: /col, has deleted? 0",
                  "[DROPBOX] ...     ignoring /col, extension does not match: ",
                  "[DROPBOX] ... path: /col/" + recordName("u2", "col") + ", has deleted? 0",
                  "[DROPBOX] ...     ignoring /col/" + recordName("u2", "col") +
                      ", extension does not match: col",
                  "[DROPBOX] ... path: /tod, has deleted? 0",
                  "[DROPBOX] ...     ignoring /tod, extension does not match: ",
                  "[DROPBOX] ... path: /tod/" + recordName("u1", "tod") + ", has deleted? 0",
                  "[DROPBOX] Delta finally returning 1 for tod"));
}

}  // namespace
}  // namespace wdc::testing_support
