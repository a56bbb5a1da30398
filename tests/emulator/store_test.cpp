// The emulator's store: Dropbox content hashes, write modes and conflicts, the journal that
// list_folder/continue reads, and listings that must not confuse "/a b" with "/a/b".
#include "emulator/store.h"

#include <gtest/gtest.h>

#include "platform/virtual_env.h"

namespace wdc::emu {
namespace {

using Clock = std::chrono::system_clock;

class StoreTest : public ::testing::Test {
 protected:
  WriteOutcome write(std::string_view path, std::string contents,
                     WriteMode mode = WriteMode{WriteMode::kOverwrite}) {
    return store_.writeFile(path, std::make_shared<const std::string>(std::move(contents)),
                            std::nullopt, mode, now_);
  }
  std::vector<std::string> listed(std::string_view folder, bool recursive) {
    std::vector<std::string> paths;
    for (const StoredEntry* entry : store_.list(folder, recursive)) {
      paths.push_back(entry->pathDisplay);
    }
    return paths;
  }
  Store store_{std::nullopt};
  Clock::time_point now_ = Clock::from_time_t(1'700'000'000);
};

TEST_F(StoreTest, ContentHashMatchesDropboxReferenceVectors) {
  EXPECT_EQ(Store::contentHash(""),
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(Store::contentHash("abc"),
            "4f8b42c22dd3729b519ba6f68d2da7cc5b2d606d05daed5ad5128cc03e6c6358");
  // Two blocks: 4 MiB and one more byte.
  EXPECT_EQ(Store::contentHash(std::string(4 * 1024 * 1024 + 1, '\0')),
            "14a4d47f23a30177885d9820122f17d2d3a55fe63f7f5c27b95f689e0b2accd6");
}

TEST_F(StoreTest, WriteModesDecideConflicts) {
  const WriteOutcome first = write("/Notes/Doc.txt", "one");
  ASSERT_TRUE(first.entry);
  const std::string firstRev = first.entry->rev;
  const std::string firstId = first.entry->id;
  EXPECT_GE(firstRev.size(), 9u);
  EXPECT_TRUE(store_.find("/notes"));  // the parent was created

  EXPECT_EQ(write("/notes/doc.TXT", "two", WriteMode{WriteMode::kAdd}).failure,
            WriteFailure::kConflictFile);
  // Identical content is no conflict and keeps the revision.
  const WriteOutcome same = write("/Notes/Doc.txt", "one", WriteMode{WriteMode::kAdd});
  ASSERT_TRUE(same.entry);
  EXPECT_EQ(same.entry->rev, firstRev);
  EXPECT_EQ(
      write("/Notes/Doc.txt", "one", WriteMode{.kind = WriteMode::kAdd, .strictConflict = true})
          .failure,
      WriteFailure::kConflictFile);

  EXPECT_EQ(
      write("/Notes/Doc.txt", "two", WriteMode{WriteMode::kUpdate, "0150000000000bad"}).failure,
      WriteFailure::kConflictFile);
  const WriteOutcome updated =
      write("/Notes/Doc.txt", "two", WriteMode{WriteMode::kUpdate, firstRev});
  ASSERT_TRUE(updated.entry);
  EXPECT_NE(updated.entry->rev, firstRev);
  EXPECT_EQ(updated.entry->id, firstId);  // an id survives new revisions
  // The older revision stays addressable.
  ASSERT_TRUE(store_.findByRev(firstRev));
  EXPECT_EQ(*store_.findByRev(firstRev)->contents, "one");

  const WriteOutcome renamed =
      write("/Notes/Doc.txt", "three", WriteMode{.kind = WriteMode::kAdd, .autorename = true});
  ASSERT_TRUE(renamed.entry);
  EXPECT_EQ(renamed.entry->pathDisplay, "/Notes/Doc (1).txt");

  EXPECT_EQ(write("/Notes", "x").failure, WriteFailure::kConflictFolder);
  EXPECT_EQ(write("/Notes/Doc.txt/inner.txt", "x").failure, WriteFailure::kConflictFileAncestor);
  for (const char* bad : {"", "Notes/a", "/Notes/", "/a//b", "/a/../b", "/./a"}) {
    EXPECT_EQ(write(bad, "x").failure, WriteFailure::kMalformedPath) << bad;
  }
}

TEST_F(StoreTest, KeepsTheParentsCasingAndTheNewLastComponent) {
  ASSERT_TRUE(store_.createFolder("/Notes", false, now_).entry);
  ASSERT_TRUE(write("/NOTES/a.txt", "x").entry);
  EXPECT_EQ(store_.find("/notes/a.txt")->pathDisplay, "/Notes/a.txt");
  ASSERT_TRUE(write("/notes/A.TXT", "y").entry);
  EXPECT_EQ(store_.find("/notes/a.txt")->pathDisplay, "/Notes/A.TXT");
}

TEST_F(StoreTest, ListingSeparatesSiblingsThatShareAPrefix) {
  write("/a/child.txt", "1");
  write("/a b/other.txt", "2");
  write("/a/deep/x.txt", "3");
  write("/ab.txt", "4");
  EXPECT_EQ(listed("/a", false), (std::vector<std::string>{"/a/child.txt", "/a/deep"}));
  EXPECT_EQ(listed("/a", true),
            (std::vector<std::string>{"/a/child.txt", "/a/deep", "/a/deep/x.txt"}));
  EXPECT_EQ(listed("", false), (std::vector<std::string>{"/a", "/a b", "/ab.txt"}));
}

TEST_F(StoreTest, JournalReportsDeletionsFirstThenLiveEntriesParentsFirst) {
  write("/keep/old.txt", "1");
  write("/gone/x.txt", "2");
  const uint64_t since = store_.sequence();
  ASSERT_TRUE(store_.remove("/gone"));
  write("/keep/new/deeper.txt", "3");
  write("/keep/old.txt", "changed");
  write("/outside.txt", "4");

  std::vector<std::string> seen;
  for (const Change& change : store_.changesSince(since, "/keep", true)) {
    seen.push_back((change.entry ? "+" : "-") + change.pathLower);
  }
  EXPECT_EQ(seen,
            (std::vector<std::string>{"+/keep/new", "+/keep/new/deeper.txt", "+/keep/old.txt"}));
  seen.clear();
  for (const Change& change : store_.changesSince(since, "", true)) {
    seen.push_back((change.entry ? "+" : "-") + change.pathLower);
  }
  EXPECT_EQ(seen, (std::vector<std::string>{"-/gone", "+/keep/new", "+/keep/new/deeper.txt",
                                            "+/keep/old.txt", "+/outside.txt"}));
  // A non-recursive cursor sees only direct children.
  seen.clear();
  for (const Change& change : store_.changesSince(since, "", false)) {
    seen.push_back((change.entry ? "+" : "-") + change.pathLower);
  }
  EXPECT_EQ(seen, (std::vector<std::string>{"-/gone", "+/outside.txt"}));
  EXPECT_TRUE(store_.changesSince(store_.sequence(), "", true).empty());
}

TEST_F(StoreTest, RemovingAFolderLeavesTombstonesForEverythingBelow) {
  write("/f/a.txt", "1");
  write("/f/sub/b.txt", "2");
  const std::optional<StoredEntry> removed = store_.remove("/F");
  ASSERT_TRUE(removed);
  EXPECT_TRUE(removed->isFolder);
  EXPECT_TRUE(store_.all().empty());
  std::vector<std::string> tombs;
  for (const Change& gone : store_.tombstones("", true)) tombs.push_back(gone.deletedDisplay);
  EXPECT_EQ(tombs, (std::vector<std::string>{"/f", "/f/a.txt", "/f/sub", "/f/sub/b.txt"}));
  EXPECT_FALSE(store_.remove("/f"));
  // Writing again clears the tombstone.
  write("/f/a.txt", "again");
  EXPECT_EQ(store_.tombstones("/f", false).size(), 1u);  // only /f/sub remains gone below /f
}

TEST(StoreMirror, WritesFilesAndFoldersBelowTheMirrorDirectory) {
  VirtualEnv env;
  const auto dir = env.temporaryDirectory() / "mirror";
  {
    Store store(dir);
    store.writeFile("/Notes/a.txt", std::make_shared<const std::string>("hello"), std::nullopt,
                    WriteMode{WriteMode::kOverwrite}, Clock::now());
    EXPECT_TRUE(std::filesystem::is_regular_file(dir / "Notes" / "a.txt"));
    EXPECT_EQ(std::filesystem::file_size(dir / "Notes" / "a.txt"), 5u);
    store.remove("/Notes");
    EXPECT_FALSE(std::filesystem::exists(dir / "Notes"));
  }
}

}  // namespace
}  // namespace wdc::emu
