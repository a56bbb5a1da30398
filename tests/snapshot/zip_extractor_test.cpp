// Extraction of hostile and broken archives: nothing may land outside the destination, links are
// refused, entry count and written bytes are capped (also when the data compresses extremely
// well), and a damaged archive is a failure with a reason, never a crash.
#include "snapshot/zip_extractor.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "snapshot/zip_writer.h"
#include "support/test_util.h"

namespace wdc {
namespace {

namespace fs = std::filesystem;
using Kind = ZipWriterEntry::Kind;
using test::readFileBytes;
using test::textOf;

class ZipExtractorTest : public testing::Test {
 protected:
  test::TempDir temp_;
  // Extraction goes one level down so that an escape to the parent can be seen.
  fs::path destination_ = temp_.path() / "out";

  void SetUp() override { fs::create_directories(destination_); }

  bool extract(const std::vector<ZipWriterEntry>& entries, WebDAVZipExtractionLimits limits = {}) {
    const auto zip = buildZipArchive(entries);
    if (!zip) {
      ADD_FAILURE() << "libarchive could not build the test archive";
      return false;
    }
    whyNot_.clear();
    return extractZipBytes(*zip, destination_, limits, &whyNot_);
  }

  // Every path under the temporary directory that is not the destination or inside it.
  std::vector<fs::path> strays() const {
    std::vector<fs::path> found;
    for (const auto& entry : fs::recursive_directory_iterator(temp_.path())) {
      const auto relative = entry.path().lexically_relative(destination_);
      if (relative.empty() || *relative.begin() == "..") {
        if (entry.path() != destination_) found.push_back(entry.path());
      }
    }
    return found;
  }

  std::string whyNot_;
};

TEST_F(ZipExtractorTest, WritesNestedFilesAndIndexesThemByLowercaseName) {
  ASSERT_TRUE(extract({{"tod/", Kind::kDirectory},
                       {"tod/O_1_I_ABC.TOD", Kind::kFile, "first"},
                       {"tod/sub/deeper/b.tod", Kind::kFile, "second"},
                       {"tod/empty.tod", Kind::kFile, ""},
                       {"tod/lonely-dir/", Kind::kDirectory}}))
      << whyNot_;

  const auto index = indexExtractedFiles(destination_);
  ASSERT_EQ(index.size(), 3u);
  EXPECT_EQ(index.at("o_1_i_abc.tod"), (destination_ / "tod/O_1_I_ABC.TOD").string());
  EXPECT_EQ(textOf(readFileBytes(index.at("o_1_i_abc.tod"))), "first");
  EXPECT_EQ(textOf(readFileBytes(index.at("b.tod"))), "second");
  EXPECT_TRUE(fs::is_regular_file(index.at("empty.tod")));
  EXPECT_TRUE(fs::is_directory(destination_ / "tod/lonely-dir"));
}

TEST_F(ZipExtractorTest, SameNameInTwoSubfoldersTakesOneIndexSlot) {
  ASSERT_TRUE(extract({{"a/X.tod", Kind::kFile, "a"}, {"b/x.TOD", Kind::kFile, "b"}})) << whyNot_;
  const auto index = indexExtractedFiles(destination_);
  ASSERT_EQ(index.size(), 1u);
  const std::string winner = textOf(readFileBytes(index.at("x.tod")));
  EXPECT_TRUE(winner == "a" || winner == "b") << winner;
}

TEST_F(ZipExtractorTest, RefusesEntriesThatWouldLandOutsideTheDestination) {
  struct Case {
    std::string name;
    Kind kind;
    std::string reason;
  };
  const std::vector<Case> cases = {
      {"../evil.tod", Kind::kFile, "escapes"},
      {"tod/../../evil.tod", Kind::kFile, "escapes"},
      {"..", Kind::kDirectory, "escapes"},
      {"tod/../../evil/", Kind::kDirectory, "escapes"},
      {(temp_.path() / "evil.tod").string(), Kind::kFile, "absolute"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    // A harmless entry first, so refusing is not just failing on the first header.
    EXPECT_FALSE(extract({{"ok.tod", Kind::kFile, "ok"}, {c.name, c.kind, "evil"}}));
    EXPECT_NE(whyNot_.find(c.reason), std::string::npos) << whyNot_;
    EXPECT_TRUE(strays().empty()) << strays().front();
  }
}

TEST_F(ZipExtractorTest, RefusesLinksEvenWhenTheyPointInside) {
  for (const std::string& target : {std::string("/etc"), std::string("../"), std::string("ok")}) {
    SCOPED_TRACE(target);
    EXPECT_FALSE(extract({{"ok", Kind::kFile, "x"},
                          {"link", Kind::kSymlink, "", target},
                          {"link/passwd", Kind::kFile, "overwritten"}}));
    EXPECT_NE(whyNot_.find("neither a file nor a directory: link"), std::string::npos) << whyNot_;
    EXPECT_FALSE(fs::is_symlink(destination_ / "link"));
    EXPECT_TRUE(strays().empty());
  }
}

TEST_F(ZipExtractorTest, CapsEntryCountAndWrittenBytesAtTheirLimits) {
  const std::vector<ZipWriterEntry> fourEntries = {{"d/", Kind::kDirectory},
                                                   {"d/a", Kind::kFile, std::string(40, 'a')},
                                                   {"d/b", Kind::kFile, std::string(40, 'b')},
                                                   {"d/c", Kind::kFile, std::string(20, 'c')}};
  EXPECT_TRUE(extract(fourEntries, {.maxEntries = 4, .maxTotalBytes = 100})) << whyNot_;
  EXPECT_FALSE(extract(fourEntries, {.maxEntries = 3, .maxTotalBytes = 100}));
  EXPECT_EQ(whyNot_, "archive holds more than 3 entries");
  EXPECT_FALSE(extract(fourEntries, {.maxEntries = 4, .maxTotalBytes = 99}));
  EXPECT_EQ(whyNot_, "archive holds more than 99 bytes");
}

// Sets every uncompressed-size field of a one-file archive, local header and central directory.
void claimUncompressedSize(Bytes& zip, uint32_t size) {
  const auto put = [&](size_t at) {
    for (int i = 0; i < 4; ++i) zip.at(at + i) = static_cast<uint8_t>(size >> (8 * i));
  };
  for (size_t i = 0; i + 4 <= zip.size(); ++i) {
    if (zip[i] != 'P' || zip[i + 1] != 'K') continue;
    if (zip[i + 2] == 3 && zip[i + 3] == 4) put(i + 22);  // local file header
    if (zip[i + 2] == 1 && zip[i + 3] == 2) put(i + 24);  // central directory header
  }
}

TEST_F(ZipExtractorTest, StopsADecompressionBombBeforeItFillsTheDisk) {
  const WebDAVZipExtractionLimits limits = {.maxEntries = 10, .maxTotalBytes = 1 << 20};
  // 8 MiB of zeros deflates to a few kilobytes.
  auto bomb = buildZipArchive({{"bomb", Kind::kFile, std::string(8 << 20, '\0')}});
  ASSERT_TRUE(bomb);
  for (const bool lying : {false, true}) {
    SCOPED_TRACE(lying ? "header claims 1000 bytes" : "honest header");
    if (lying) claimUncompressedSize(*bomb, 1000);
    EXPECT_FALSE(extractZipBytes(*bomb, destination_, limits, &whyNot_));
    EXPECT_EQ(whyNot_, "archive holds more than 1048576 bytes");
    // An honest header is refused before anything is written; a lying one partway through.
    std::error_code ec;
    const auto written = fs::file_size(destination_ / "bomb", ec);
    EXPECT_EQ(!ec, lying);
    EXPECT_LE(ec ? 0 : written, limits.maxTotalBytes);
  }
}

TEST_F(ZipExtractorTest, DamagedOrForeignArchivesFailWithAReason) {
  std::string noisy;
  for (uint32_t i = 0, x = 1; i < 5000; ++i, x = x * 1103515245 + 12345) {
    noisy += static_cast<char>('a' + (x >> 16) % 26);
  }
  auto zip = buildZipArchive({{"a.tod", Kind::kFile, noisy},
                              {"b.tod", Kind::kFile, "tail"}});
  ASSERT_TRUE(zip);
  struct Case {
    std::string what;
    Bytes bytes;
  };
  Bytes truncated(zip->begin(), zip->begin() + static_cast<long>(zip->size() / 2));
  Bytes flipped = *zip;
  flipped[flipped.size() / 3] ^= 0xFF;  // inside the compressed data of a.tod
  const std::vector<Case> cases = {
      {"empty", {}},
      {"text", test::bytesOf("not an archive at all")},
      {"truncated", truncated},
      {"flipped", flipped},
      {"tar", test::bytesOf(std::string("file.txt") + std::string(504, '\0'))},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    whyNot_.clear();
    EXPECT_FALSE(extractZipBytes(c.bytes, destination_, {}, &whyNot_));
    EXPECT_FALSE(whyNot_.empty());
  }
}

TEST(ZipEntryNames, OnlyDotDotComponentsAndAbsoluteNamesAreUnsafe) {
  for (const char* safe : {"a", "a/b/c.tod", "./a", "a/./b", "..a", "a..", "a/...", "a/..b/c"}) {
    EXPECT_EQ(unsafeEntryNameReason(safe), "") << safe;
  }
  for (const char* unsafe : {"", "/a", "..", "../a", "a/..", "a/../b", "a//../b", "//a"}) {
    EXPECT_NE(unsafeEntryNameReason(unsafe), "") << unsafe;
  }
}

}  // namespace
}  // namespace wdc
