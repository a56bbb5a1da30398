// The folder records' life cycle under a VirtualEnv (so extractions land in a per-test temporary
// directory with predictable UUIDs): marking thresholds and name normalization, serving files
// from a ready folder, failures that stick until the folder is marked again, re-marking and
// resetting that delete old extractions, and concurrent warms that share one provider call.
#include "webdavconnect/zip_snapshot.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <future>
#include <thread>

#include "platform/virtual_env.h"
#include "snapshot/zip_writer.h"
#include "support/test_util.h"

namespace wdc {
namespace {

namespace fs = std::filesystem;
using Kind = ZipWriterEntry::Kind;
using test::readFileBytes;
using test::textOf;

class ZipSnapshotTest : public testing::Test {
 protected:
  VirtualEnv env_;
  ScopedEnv use_{env_};
  WebDAVDropboxZipSnapshot snapshot_;
  const fs::path snapshotsDir_ = env_.temporaryDirectory() / "WebDAVDropboxZipSnapshots";

  // A folder archive as the store sends it: the folder's own directory entry, then `count`
  // records named "Rec<i>.TOD" holding "record <i>".
  std::string recordsZip(int count, const std::string& folder = "tod") {
    std::vector<ZipWriterEntry> entries = {{folder + "/", Kind::kDirectory}};
    for (int i = 0; i < count; ++i) {
      entries.push_back({folder + "/Rec" + std::to_string(i) + ".TOD", Kind::kFile,
                         "record " + std::to_string(i)});
    }
    return zipFile(entries);
  }

  std::string zipFile(const std::vector<ZipWriterEntry>& entries) {
    const fs::path path = env_.temporaryDirectory() / ("input-" + std::to_string(++zips_) + ".zip");
    EXPECT_TRUE(writeZipFile(path, entries));
    return path.string();
  }

  // Extraction directories currently on disk.
  std::vector<fs::path> extractions() const {
    std::vector<fs::path> found;
    std::error_code ec;
    for (fs::directory_iterator it(snapshotsDir_, ec), end; !ec && it != end; it.increment(ec)) {
      found.push_back(it->path());
    }
    return found;
  }

  std::string contentsOf(const std::optional<std::string>& path) {
    return path ? textOf(readFileBytes(*path)) : "<none>";
  }

  int zips_ = 0;
};

TEST_F(ZipSnapshotTest, MarksOnlyNamedFoldersExpectingAtLeastTwentyFiveFiles) {
  EXPECT_FALSE(snapshot_.markFolder("tod", 24));
  EXPECT_FALSE(snapshot_.isFolderPending("tod"));
  EXPECT_FALSE(snapshot_.markFolder("/", 100));
  EXPECT_FALSE(snapshot_.markFolder("", 100));
  EXPECT_FALSE(snapshot_.isFolderPending(""));

  EXPECT_TRUE(snapshot_.markFolder("tod", 25));
  EXPECT_TRUE(snapshot_.isFolderPending("tod"));
  EXPECT_FALSE(snapshot_.isFolderReady("tod"));
  EXPECT_FALSE(snapshot_.isFolderFailed("tod"));
  EXPECT_EQ(snapshot_.indexedEntryCountForFolder("tod"), 0u);
  EXPECT_FALSE(snapshot_.payloadPathForFile("rec1.tod", "tod"));
}

TEST_F(ZipSnapshotTest, SlashesAndLetterCaseAddressTheSameFolderAndFile) {
  EXPECT_EQ(WebDAVDropboxZipSnapshot::normalizedFolder("//Sync/TOD//"), "sync/tod");
  EXPECT_EQ(WebDAVDropboxZipSnapshot::normalizedFolder("ÄRGER"), "ärger");

  ASSERT_TRUE(snapshot_.markFolder("/ToD/", 30));
  EXPECT_TRUE(snapshot_.isFolderPending("tod"));
  ASSERT_TRUE(snapshot_.warmFolder("TOD", recordsZip(30)));
  EXPECT_TRUE(snapshot_.isFolderReady("//tod"));

  EXPECT_EQ(contentsOf(snapshot_.payloadPathForFile("rec7.tod", "tod")), "record 7");
  EXPECT_EQ(contentsOf(snapshot_.payloadPathForFile("REC7.tod", "/Tod/")), "record 7");
  // Only the last path component of the file counts, trailing slashes ignored.
  EXPECT_EQ(contentsOf(snapshot_.payloadPathForFile("/Sync/tod/Rec7.TOD", "tod")), "record 7");
  EXPECT_EQ(contentsOf(snapshot_.payloadPathForFile("tod/Rec7.TOD/", "tod")), "record 7");
  EXPECT_FALSE(snapshot_.payloadPathForFile("rec7.tod", "col"));
  EXPECT_FALSE(snapshot_.payloadPathForFile("rec30.tod", "tod"));
}

TEST_F(ZipSnapshotTest, WarmExtractsUnderTheTemporaryDirectoryAndKeepsTheCallersZip) {
  const std::string zip = recordsZip(40);
  ASSERT_TRUE(snapshot_.markFolder("tod", 40));
  ASSERT_TRUE(snapshot_.warmFolder("tod", zip));

  EXPECT_EQ(snapshot_.indexedEntryCountForFolder("tod"), 40u);
  const fs::path expectedDir = snapshotsDir_ / "00000000-0000-4000-8000-000000000001";
  EXPECT_EQ(snapshot_.payloadPathForFile("rec39.tod", "tod"),
            (expectedDir / "tod" / "Rec39.TOD").string());
  EXPECT_TRUE(fs::exists(zip));
  // A ready folder is served as is: no second extraction.
  EXPECT_TRUE(snapshot_.warmPendingFolder("tod", [] {
    ADD_FAILURE() << "provider called for a ready folder";
    return std::nullopt;
  }));
  EXPECT_EQ(extractions().size(), 1u);
}

TEST_F(ZipSnapshotTest, ReMarkingAReadyFolderDeletesItsExtractionAndStartsOver) {
  ASSERT_TRUE(snapshot_.markFolder("tod", 30));
  ASSERT_TRUE(snapshot_.warmFolder("tod", recordsZip(30)));
  const auto oldPath = snapshot_.payloadPathForFile("rec0.tod", "tod");
  ASSERT_TRUE(oldPath);

  ASSERT_TRUE(snapshot_.markFolder("TOD", 31));
  EXPECT_TRUE(snapshot_.isFolderPending("tod"));
  EXPECT_FALSE(fs::exists(*oldPath));
  EXPECT_TRUE(extractions().empty());
  EXPECT_FALSE(snapshot_.payloadPathForFile("rec0.tod", "tod"));

  ASSERT_TRUE(snapshot_.warmFolder("tod", recordsZip(31)));
  EXPECT_EQ(snapshot_.indexedEntryCountForFolder("tod"), 31u);
  EXPECT_NE(snapshot_.payloadPathForFile("rec0.tod", "tod"), oldPath);
}

TEST_F(ZipSnapshotTest, AFailedWarmSticksWithoutRetryingUntilTheFolderIsMarkedAgain) {
  struct Case {
    std::string what;
    std::optional<std::string> zip;
  };
  const std::vector<Case> cases = {
      {"only directories", zipFile({{"tod/", Kind::kDirectory}, {"tod/sub/", Kind::kDirectory}})},
      {"hostile entry", zipFile({{"tod/a.tod", Kind::kFile, "a"}, {"../b.tod", Kind::kFile, "b"}})},
      {"not a zip", [this] {
         const fs::path path = env_.temporaryDirectory() / "garbage.zip";
         test::writeFileBytes(path, test::bytesOf("PK\x03\x04 but nothing after"));
         return path.string();
       }()},
      {"missing file", (env_.temporaryDirectory() / "absent.zip").string()},
      {"no zip from the provider", std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_TRUE(snapshot_.markFolder("tod", 25));
    int calls = 0;
    const auto provider = [&] {
      ++calls;
      return c.zip;
    };
    EXPECT_FALSE(snapshot_.warmPendingFolder("tod", provider));
    EXPECT_TRUE(snapshot_.isFolderFailed("tod"));
    EXPECT_EQ(snapshot_.indexedEntryCountForFolder("tod"), 0u);
    EXPECT_TRUE(extractions().empty()) << extractions().front();

    EXPECT_FALSE(snapshot_.warmPendingFolder("tod", provider));
    EXPECT_EQ(calls, 1);
  }
  ASSERT_TRUE(snapshot_.markFolder("tod", 25));
  EXPECT_TRUE(snapshot_.warmFolder("tod", recordsZip(25)));
}

TEST_F(ZipSnapshotTest, ExtractsOnlyIntoAPrivateSnapshotsDirectory) {
  // Left open to everyone by someone else's umask: tightened before use.
  fs::create_directory(snapshotsDir_);
  fs::permissions(snapshotsDir_, fs::perms::all);
  ASSERT_TRUE(snapshot_.markFolder("tod", 25));
  ASSERT_TRUE(snapshot_.warmFolder("tod", recordsZip(25)));
  EXPECT_EQ(fs::status(snapshotsDir_).permissions() & (fs::perms::group_all | fs::perms::others_all),
            fs::perms::none);

  // A link in its place could send the files anywhere: refused.
  snapshot_.reset();
  fs::remove_all(snapshotsDir_);
  const fs::path elsewhere = env_.temporaryDirectory() / "elsewhere";
  fs::create_directory(elsewhere);
  fs::create_directory_symlink(elsewhere, snapshotsDir_);
  ASSERT_TRUE(snapshot_.markFolder("tod", 25));
  EXPECT_FALSE(snapshot_.warmFolder("tod", recordsZip(25)));
  EXPECT_TRUE(snapshot_.isFolderFailed("tod"));
  EXPECT_TRUE(fs::is_empty(elsewhere));
}

TEST_F(ZipSnapshotTest, UnmarkedFoldersAreNeverFetched) {
  EXPECT_FALSE(snapshot_.warmPendingFolder("tod", [] {
    ADD_FAILURE() << "provider called for an unmarked folder";
    return std::nullopt;
  }));
  EXPECT_FALSE(snapshot_.isFolderFailed("tod"));
}

TEST_F(ZipSnapshotTest, ConcurrentWarmsOfOneFolderCallTheProviderOnce) {
  for (const bool zipIsGood : {true, false}) {
    SCOPED_TRACE(zipIsGood ? "good zip" : "bad zip");
    ASSERT_TRUE(snapshot_.markFolder("tod", 30));
    const std::string zip = zipIsGood ? recordsZip(30) : zipFile({{"tod/", Kind::kDirectory}});
    std::atomic<int> calls{0};
    std::promise<void> entered;
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    const auto provider = [&]() -> std::optional<std::string> {
      if (calls.fetch_add(1) == 0) {
        entered.set_value();
        released.wait();
      }
      return zip;
    };

    auto first = std::async(std::launch::async, [&] {
      return snapshot_.warmPendingFolder("tod", provider);
    });
    entered.get_future().wait();  // the first warm now holds the folder
    std::atomic<int> started{0};
    std::vector<std::future<bool>> others;
    for (int i = 0; i < 4; ++i) {
      others.push_back(std::async(std::launch::async, [&] {
        started.fetch_add(1);
        return snapshot_.warmPendingFolder("/TOD", provider);
      }));
    }
    // Let the others reach the folder while it is still being warmed.
    while (started.load() < 4) std::this_thread::yield();
    release.set_value();
    EXPECT_EQ(first.get(), zipIsGood);
    for (auto& other : others) EXPECT_EQ(other.get(), zipIsGood);
    EXPECT_EQ(calls.load(), 1);
    EXPECT_EQ(extractions().size(), zipIsGood ? 1u : 0u);
  }
}

TEST_F(ZipSnapshotTest, MarkingOrResettingDuringAWarmDiscardsThatWarmsExtraction) {
  const std::string zip = recordsZip(30);
  ASSERT_TRUE(snapshot_.markFolder("tod", 30));
  EXPECT_FALSE(snapshot_.warmPendingFolder("tod", [&]() -> std::optional<std::string> {
    snapshot_.markFolder("tod", 30);
    return zip;
  }));
  EXPECT_TRUE(snapshot_.isFolderPending("tod"));
  EXPECT_TRUE(extractions().empty());

  EXPECT_FALSE(snapshot_.warmPendingFolder("tod", [&]() -> std::optional<std::string> {
    snapshot_.reset();
    return zip;
  }));
  EXPECT_FALSE(snapshot_.isFolderPending("tod"));
  EXPECT_TRUE(extractions().empty());
}

TEST_F(ZipSnapshotTest, ResetForgetsEveryFolderAndDeletesEveryExtraction) {
  ASSERT_TRUE(snapshot_.markFolder("tod", 30));
  ASSERT_TRUE(snapshot_.markFolder("col", 30));
  ASSERT_TRUE(snapshot_.markFolder("cal", 30));
  ASSERT_TRUE(snapshot_.warmFolder("tod", recordsZip(30)));
  ASSERT_TRUE(snapshot_.warmFolder("col", recordsZip(30, "col")));
  ASSERT_EQ(extractions().size(), 2u);

  snapshot_.reset();
  for (const char* folder : {"tod", "col", "cal"}) {
    EXPECT_FALSE(snapshot_.isFolderReady(folder)) << folder;
    EXPECT_FALSE(snapshot_.isFolderPending(folder)) << folder;
  }
  EXPECT_FALSE(snapshot_.payloadPathForFile("rec0.tod", "tod"));
  EXPECT_TRUE(extractions().empty());
}

TEST_F(ZipSnapshotTest, ExtractZipAtPathLeavesTheRecordsAlone) {
  std::string directory;
  WebDAVZipPayloadIndex index;
  ASSERT_TRUE(snapshot_.extractZipAtPath(recordsZip(3), "tod", &directory, &index));
  EXPECT_EQ(index.size(), 3u);
  EXPECT_EQ(fs::path(index.at("rec2.tod")).parent_path().parent_path(), fs::path(directory));
  EXPECT_FALSE(snapshot_.isFolderReady("tod"));
  EXPECT_FALSE(snapshot_.extractZipAtPath("", "tod", &directory, &index));
}

TEST(ZipSnapshotShared, IsOneInstanceAcrossThreads) {
  WebDAVDropboxZipSnapshot* fromThread = nullptr;
  std::thread([&] { fromThread = &WebDAVDropboxZipSnapshot::sharedSnapshot(); }).join();
  EXPECT_EQ(fromThread, &WebDAVDropboxZipSnapshot::sharedSnapshot());
}

}  // namespace
}  // namespace wdc
