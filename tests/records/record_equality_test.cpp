#include <gtest/gtest.h>

#include <unordered_set>

#include "webdavconnect/file_contents.h"

namespace wdc {
namespace {

std::shared_ptr<WebDAVFileMetaData> recordAt(std::optional<std::string> path) {
  auto record = std::make_shared<WebDAVFileMetaData>();
  record->FilePath = std::move(path);
  return record;
}

std::shared_ptr<WebDAVFileContents> contentsAt(std::optional<std::string> path, int marker) {
  return std::make_shared<WebDAVFileContents>(
      path ? recordAt(std::move(path)) : nullptr,
      std::make_shared<PlistDictionary>(PlistDictionary{{"marker", marker}}));
}

TEST(FileMetaDataEquality, PathsEqualIgnoringCaseButHashCaseSensitively) {
  auto upper = recordAt("A.txt");
  auto lower = recordAt("a.txt");
  EXPECT_TRUE(upper->isEqual(lower.get()));
  EXPECT_TRUE(lower->isEqual(upper.get()));
  EXPECT_EQ(upper->hash(), std::hash<std::string>{}("A.txt"));
  EXPECT_NE(upper->hash(), lower->hash());
  EXPECT_TRUE(recordAt("ÄÖ.tod")->isEqual(recordAt("äö.tod").get()));  // Unicode-aware
  EXPECT_FALSE(upper->isEqual(nullptr));
}

TEST(FileMetaDataEquality, AbsentPathEqualsOnlyItselfAndHashesToZero) {
  auto a = recordAt(std::nullopt);
  auto b = recordAt(std::nullopt);
  EXPECT_TRUE(a->isEqual(a.get()));
  EXPECT_FALSE(a->isEqual(b.get()));
  EXPECT_EQ(a->hash(), 0u);
}

TEST(FileMetaDataEquality, HashedSetKeepsOnePerExactPath) {
  std::unordered_set<std::shared_ptr<WebDAVFileMetaData>, WebDAVFileMetaDataHash,
                     WebDAVFileMetaDataEqual>
      set;
  set.insert(recordAt("o_a.tod"));
  set.insert(recordAt("o_a.tod"));
  EXPECT_EQ(set.size(), 1u);
  // A path differing in case is equal, but its hash differs, so the set does not find it and
  // keeps both: the deliberate hash/equality asymmetry.
  auto other = recordAt("O_A.tod");
  ASSERT_NE(other->hash(), recordAt("o_a.tod")->hash());
  EXPECT_EQ(set.count(other), 0u);
  set.insert(other);
  EXPECT_EQ(set.size(), 2u);
}

TEST(FileContentsEquality, ComparesPathsNeverPayloads) {
  auto a = contentsAt("Rec.tod", 1);
  auto b = contentsAt("rec.TOD", 2);
  EXPECT_TRUE(a->isEqual(b.get()));
  EXPECT_EQ(a->hash(), std::hash<std::string>{}("Rec.tod"));
  auto noMeta = contentsAt(std::nullopt, 1);
  auto noMeta2 = contentsAt(std::nullopt, 1);
  EXPECT_TRUE(noMeta->isEqual(noMeta.get()));
  EXPECT_FALSE(noMeta->isEqual(noMeta2.get()));
  EXPECT_FALSE(noMeta->isEqual(a.get()));
  EXPECT_EQ(noMeta->hash(), 0u);
  WebDAVFileContents empty;
  EXPECT_FALSE(empty.FileMetaData);
  EXPECT_FALSE(empty.FileContents);
}

TEST(BatchResults, KeepTheirItemAndACopyOfTheError) {
  auto contents = contentsAt("x.tod", 1);
  auto ok = WebDAVBatchUploadResult::initWithContents(contents, std::nullopt);
  EXPECT_EQ(ok->fileContents, contents);
  EXPECT_FALSE(ok->uploadError);
  Error error = Error::withDescription("Dropbox", 409, "conflict");
  auto failed = WebDAVBatchUploadResult::initWithContents(contents, error);
  error = Error("changed", 1);
  ASSERT_TRUE(failed->uploadError);
  EXPECT_EQ(failed->uploadError->code(), 409);
  auto meta = recordAt("y.tod");
  auto deleted = WebDAVBatchDeleteResult::initWithMeta(meta, std::nullopt);
  EXPECT_EQ(deleted->fileMetaData, meta);
  EXPECT_FALSE(deleted->deleteError);
}

}  // namespace
}  // namespace wdc
