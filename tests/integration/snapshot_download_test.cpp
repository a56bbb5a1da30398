// Folder snapshots end to end: a marked folder is fetched once as a ZIP through the real client
// and served from disk; every way the archive can fail ends in per-file downloads.
#include <gmock/gmock.h>

#include <thread>

#include "dbx/clients_manager.h"
#include "download_fixture.h"
#include "snapshot/zip_writer.h"

namespace wdc::testing_support {
namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* kZipRoute = "files/download_zip";
constexpr const char* kFileRoute = "files/download";
constexpr const char* kFallbackTail = "; falling back to per-file downloads";

class SnapshotDownload : public DownloadTest {
 protected:
  void markTod(int count = 30) {
    putRecords("tod", count);
    ASSERT_TRUE(snapshot().markFolder("tod", static_cast<uint64_t>(count)));
  }
  // Reads record `i` of tod through the public operation; its title, or nullopt on failure.
  std::optional<std::string> readTod(WebDAVConnect& connection, int i,
                                     std::optional<Error>* error = nullptr) {
    return titleOf(connection.getContentsForFile(meta(recordName(i)), "tod", error));
  }
};

TEST_F(SnapshotDownload, AMarkedFolderIsFetchedOnceAsAZipAndServedFromDisk) {
  markTod();
  auto connection = newConnection();
  EXPECT_EQ(readTod(*connection, 7), recordName(7));
  EXPECT_EQ(emulator_->requestCount(kZipRoute), 1u);
  EXPECT_EQ(emulator_->requestCount(kFileRoute), 0u);
  EXPECT_TRUE(snapshot().isFolderReady("tod"));
  EXPECT_TRUE(log_.contains(log::Level::kInfo, "[DROPBOX] Folder snapshot warm beginning for tod"));
  EXPECT_TRUE(log_.contains(log::Level::kInfo, "[DROPBOX] Folder snapshot ready for tod: 30 entries"));

  // Every record of the folder, in either letter case and through both download forms, without
  // another request; the ZIP scratch file is gone.
  for (int i = 0; i < 30; ++i) {
    std::optional<Error> error;
    EXPECT_EQ(readTod(*connection, i, &error), recordName(i));
    EXPECT_FALSE(error);
  }
  auto upper = meta("O_A_K_C_P_P_I_R3_D_D.TOD");
  auto contents = connection->getContentsForFile(upper, "/Tod/", nullptr);
  ASSERT_TRUE(contents);
  EXPECT_EQ(contents->FileMetaData, upper);  // the very object passed in
  Waiter waiter;
  std::thread::id completedOn;
  connection->getContentsForFile(meta(recordName(12)), "tod", 3,
                                 [&, c = waiter.completion()](auto got, auto error) {
                                   completedOn = std::this_thread::get_id();
                                   c(std::move(got), std::move(error));
                                 });
  auto outcome = waiter.get();
  ASSERT_TRUE(outcome);
  EXPECT_EQ(titleOf(outcome->contents), recordName(12));
  EXPECT_EQ(completedOn, std::this_thread::get_id());  // a snapshot hit answers on the caller
  EXPECT_EQ(emulator_->requestCount(kZipRoute), 1u);
  EXPECT_EQ(emulator_->requestCount(kFileRoute), 0u);
  for (const auto& entry : std::filesystem::directory_iterator(env_.temporaryDirectory())) {
    EXPECT_THAT(entry.path().filename().string(), testing::Not(HasSubstr("WebDAVDropbox-")));
  }
  EXPECT_EQ(freeDownloadSlots(), 4);
}

TEST_F(SnapshotDownload, UnmarkedAndSmallFoldersAreDownloadedPerFile) {
  putRecords("tod", 30);
  putRecords("col", 24, "col");
  EXPECT_FALSE(snapshot().markFolder("col", 24));
  auto connection = newConnection();
  EXPECT_EQ(readTod(*connection, 1), recordName(1));
  EXPECT_EQ(titleOf(connection->getContentsForFile(meta(recordName(2, "col")), "col", nullptr)),
            recordName(2, "col"));
  EXPECT_EQ(emulator_->requestCount(kZipRoute), 0u);
  EXPECT_EQ(emulator_->requestCount(kFileRoute), 2u);
}

TEST_F(SnapshotDownload, RefusedArchivesFallBackWithTheirReasonAndAreNotAskedForAgain) {
  struct Case {
    uint64_t maxEntries;
    uint64_t maxBytes;
    const char* reason;
  };
  for (const Case& c : {Case{10'000, 100, "folder is too large"},
                        Case{5, 20'000'000'000ULL, "folder has too many files"}}) {
    SCOPED_TRACE(c.reason);
    emulator_->setDownloadZipLimits(c.maxEntries, c.maxBytes);
    emulator_->resetRequestCounts();
    log_.clear();
    markTod();
    auto connection = newConnection();
    EXPECT_EQ(readTod(*connection, 4), recordName(4));
    EXPECT_EQ(readTod(*connection, 5), recordName(5));
    EXPECT_EQ(emulator_->requestCount(kZipRoute), 1u);
    EXPECT_EQ(emulator_->requestCount(kFileRoute), 2u);
    EXPECT_TRUE(snapshot().isFolderFailed("tod"));
    EXPECT_THAT(log_.messages(log::Level::kWarning),
                Contains(std::string("[DROPBOX] Folder snapshot download failed for tod: ") +
                         c.reason + kFallbackTail));
    EXPECT_EQ(freeDownloadSlots(), 4);
  }
}

TEST_F(SnapshotDownload, TwoThreadsWarmingOneFolderMakeOneArchiveRequest) {
  markTod();
  // Slow the archive down so that the second thread arrives while the first is fetching it.
  emulator_->addFault(emu::FaultRule{.route = kZipRoute, .kind = emu::FaultKind::kLatency,
                                     .argument = 300, .count = 1});
  auto first = newConnection();
  auto second = newConnection();
  std::optional<std::string> a;
  std::optional<std::string> b;
  std::thread one([&] { a = readTod(*first, 1); });
  std::thread two([&] { b = readTod(*second, 2); });
  one.join();
  two.join();
  EXPECT_EQ(a, recordName(1));
  EXPECT_EQ(b, recordName(2));
  EXPECT_EQ(emulator_->requestCount(kZipRoute), 1u);
  EXPECT_EQ(emulator_->requestCount(kFileRoute), 0u);
  EXPECT_THAT(log_.messages(log::Level::kInfo),
              Contains("[DROPBOX] Folder snapshot warm beginning for tod").Times(1));
}

TEST_F(SnapshotDownload, BrokenArchivesLeaveTheFolderFailedAndEveryRecordStillArrives) {
  struct Case {
    const char* name;
    emu::FaultKind kind;
    const char* warning;  // start of the expected warning
  };
  for (const Case& c :
       {Case{"corrupt", emu::FaultKind::kCorrupt,
             "[DROPBOX] Folder snapshot extraction failed for tod"},
        Case{"truncated", emu::FaultKind::kTruncate,
             "[DROPBOX] Folder snapshot download failed for tod: "},
        Case{"server error", emu::FaultKind::kInternalError,
             "[DROPBOX] Folder snapshot download failed for tod: "}}) {
    SCOPED_TRACE(c.name);
    emulator_->resetRequestCounts();
    log_.clear();
    failNext(kZipRoute, c.kind, 1);
    markTod();
    auto connection = newConnection();
    for (int i = 0; i < 3; ++i) EXPECT_EQ(readTod(*connection, i), recordName(i));
    EXPECT_EQ(emulator_->requestCount(kZipRoute), 1u);
    EXPECT_EQ(emulator_->requestCount(kFileRoute), 3u);
    EXPECT_TRUE(snapshot().isFolderFailed("tod"));
    EXPECT_THAT(log_.messages(log::Level::kWarning),
                Contains(testing::AllOf(testing::StartsWith(c.warning), HasSubstr(kFallbackTail))));
    EXPECT_EQ(freeDownloadSlots(), 4);
  }
}

TEST_F(SnapshotDownload, AFolderOfOnlyFoldersGivesNoSnapshot) {
  for (int i = 0; i < 30; ++i) emulator_->createFolder("/tod/sub" + std::to_string(i));
  ASSERT_TRUE(snapshot().markFolder("tod", 30));
  auto connection = newConnection();
  std::optional<Error> error;
  EXPECT_FALSE(connection->getContentsForDropboxFile(meta(recordName(0)), "tod", &error));
  EXPECT_TRUE(snapshot().isFolderFailed("tod"));
  EXPECT_TRUE(log_.contains(
      log::Level::kWarning,
      "[DROPBOX] Folder snapshot extraction failed for tod; falling back to per-file downloads"));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), 404);  // then asked for singly: not there
  EXPECT_EQ(emulator_->requestCount(kFileRoute), 1u);
}

TEST_F(SnapshotDownload, AnArchiveEscapingItsFolderIsRefusedAndRecordsComeSingly) {
  putRecords("tod", 30);
  ASSERT_TRUE(snapshot().markFolder("tod", 30));
  const auto hostile = env_.temporaryDirectory() / "hostile.zip";
  ASSERT_TRUE(writeZipFile(hostile, {{"tod/../../" + recordName(0), ZipWriterEntry::Kind::kFile,
                                      "not a payload"}}));
  EXPECT_FALSE(snapshot().warmFolder("tod", hostile.string()));
  auto connection = newConnection();
  EXPECT_EQ(readTod(*connection, 0), recordName(0));
  EXPECT_EQ(emulator_->requestCount(kZipRoute), 0u);
  EXPECT_EQ(emulator_->requestCount(kFileRoute), 1u);
  EXPECT_FALSE(std::filesystem::exists(env_.temporaryDirectory().parent_path() / recordName(0)));
}

TEST_F(SnapshotDownload, WithoutALinkedAccountTheWarmIsSkippedQuietly) {
  markTod();
  dbx::DBClientsManager::unlinkAndResetClients();
  auto connection = newConnection();
  connection->warmDropboxZipSnapshotIfNeededForFolder("tod");
  EXPECT_TRUE(snapshot().isFolderFailed("tod"));
  EXPECT_EQ(emulator_->requestCount(kZipRoute), 0u);
  EXPECT_EQ(log_.messages(log::Level::kWarning),
            std::vector<std::string>{"[DROPBOX] Folder snapshot request skipped because the "
                                     "Dropbox client is unavailable"});
  EXPECT_EQ(freeDownloadSlots(), 4);
}

TEST_F(SnapshotDownload, AnUndecodableRecordInTheSnapshotIsAKavoWebDAVError) {
  putRecords("tod", 29);
  ASSERT_TRUE(emulator_->putFile("/tod/" + recordName(29), "plain text, not a payload"));
  ASSERT_TRUE(snapshot().markFolder("tod", 30));
  auto connection = newConnection();
  std::optional<Error> error;
  EXPECT_FALSE(connection->getContentsForFile(meta(recordName(29)), "tod", &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), "KavoWebDAV");
  EXPECT_EQ(error->code(), 1800);
  EXPECT_EQ(emulator_->requestCount(kFileRoute), 0u);  // not retryable, and never asked singly
  EXPECT_THAT(log_.messages(log::Level::kError),
              Contains(testing::StartsWith("[DROPBOX] Error getting file: ")));
}

}  // namespace
}  // namespace wdc::testing_support
