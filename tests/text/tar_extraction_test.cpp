// The tar extractor on archives built block by block here and on archives made by GNU tar:
// extracted bytes and modes, the end-of-archive messages, which entries stop the extraction,
// the signed checksum, hostile names and garbage numbers.
#include "webdavconnect/tar_extraction.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>

#include "platform/virtual_env.h"
#include "support/test_util.h"

// Entries are written with designated initializers naming only the fields a case changes.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace wdc {
namespace {

namespace fs = std::filesystem;
using Block = std::string;  // 512 bytes

struct Entry {
  std::string name;
  std::string data;
  char typeflag = '0';
  std::string mode = "000755 ";
  std::string size;  // octal text; derived from data when empty
  bool unsignedChecksum = false;
  int checksumDelta = 0;
};

void put(Block& block, size_t offset, const std::string& text) {
  std::memcpy(block.data() + offset, text.data(), text.size());
}

Block header(const Entry& e) {
  Block block(512, '\0');
  put(block, 0, e.name.substr(0, 100));
  put(block, 100, e.mode);
  put(block, 108, "001750 ");
  put(block, 116, "001750 ");
  char size[16];
  std::snprintf(size, sizeof size, "%011o ", static_cast<unsigned>(e.data.size()));
  put(block, 124, e.size.empty() ? std::string(size) : e.size);
  put(block, 136, "14474242424 ");
  block[156] = e.typeflag;
  put(block, 257, std::string("ustar\0" "00", 8));
  put(block, 148, "        ");
  int sum = 0;
  for (char c : block) {
    sum += e.unsignedChecksum ? static_cast<unsigned char>(c) : static_cast<signed char>(c);
  }
  char checksum[8];
  std::snprintf(checksum, sizeof checksum, "%06o", sum + e.checksumDelta);
  put(block, 148, std::string(checksum, 7));
  return block;
}

std::string entryBlocks(const Entry& e) {
  std::string out = header(e);
  std::string data = e.data;
  data.resize((data.size() + 511) / 512 * 512, '\0');
  return out + data;
}

std::string zeros(size_t blocks) { return std::string(blocks * 512, '\0'); }

std::string padded(std::string archive) {
  archive.resize((archive.size() + 10239) / 10240 * 10240, '\0');
  return archive;
}

class TarExtractionTest : public testing::Test {
 protected:
  VirtualEnv env_;
  ScopedEnv use_{env_};
  fs::path dir_ = Env::current().temporaryDirectory();
  fs::path archive_ = dir_ / "archive.tar";
  fs::path out_ = dir_ / "out";
  std::string stderr_;

  int untarBytes(const std::string& bytes) {
    test::writeFileBytes(archive_, test::bytesOf(bytes));
    return untarFile();
  }
  int untarFile() {
    std::FILE* stream = std::fopen(archive_.c_str(), "rb");
    EXPECT_NE(stream, nullptr);
    testing::internal::CaptureStderr();
    const int result = untar(stream, archive_.c_str(), out_.c_str());
    stderr_ = testing::internal::GetCapturedStderr();
    std::fclose(stream);
    return result;
  }
  std::string extracted(const std::string& name) {
    return test::textOf(test::readFileBytes(out_ / name));
  }
  static unsigned permissions(const fs::path& path) {
    struct stat info {};
    EXPECT_EQ(::stat(path.c_str(), &info), 0) << path;
    return info.st_mode & 07777;
  }
};

TEST_F(TarExtractionTest, PaddedArchiveExtractsSilentlyAndIsDeleted) {
  const std::string data(1000, 'x');
  EXPECT_EQ(untarBytes(padded(entryBlocks({.name = "note.txt", .data = data}) + zeros(2))), 0);
  EXPECT_EQ(stderr_, "");
  EXPECT_EQ(extracted("note.txt"), data);
  EXPECT_EQ(permissions(out_ / "note.txt"), 0644u);  // whatever the header said (0755)
  EXPECT_EQ(permissions(out_), 0755u);
  EXPECT_FALSE(fs::exists(archive_));
}

TEST_F(TarExtractionTest, EndOfArchiveMessages) {
  const std::string entry = entryBlocks({.name = "a", .data = "hello"});
  struct {
    std::string archive;
    int result;
    std::string message;
    bool deleted;
  } cases[] = {
      {entry + zeros(2), 0, "tar: not eough padding blocks at the end\n", true},  // 2048 bytes
      {entry, -1, "tar: zero blocks not found\n", false},
      {entry + zeros(1), -1, "tar: zero blocks not found\n", false},
      {padded(entry + zeros(1) + entryBlocks({.name = "b", .data = "x"})), 0,
       "tar: not enough zero blocks\n", true},
      {zeros(20), 0, "", true},
  };
  for (const auto& c : cases) {
    fs::remove_all(out_);
    EXPECT_EQ(untarBytes(c.archive), c.result) << c.message;
    EXPECT_EQ(stderr_, c.message);
    EXPECT_EQ(fs::exists(archive_), !c.deleted) << c.message;
    if (c.archive[0] == 'a') {
      EXPECT_EQ(extracted("a"), "hello") << c.message;  // written before the end was checked
    }
  }
}

TEST_F(TarExtractionTest, BadChecksumStopsBeforeTheEntryIsWritten) {
  const std::string archive = entryBlocks({.name = "first", .data = "1"}) +
                              entryBlocks({.name = "second", .data = "2", .checksumDelta = 1}) +
                              zeros(2);
  EXPECT_EQ(untarBytes(padded(archive)), -1);
  EXPECT_EQ(stderr_, "");
  EXPECT_EQ(extracted("first"), "1");  // what was written stays
  EXPECT_FALSE(fs::exists(out_ / "second"));
  EXPECT_TRUE(fs::exists(archive_));
}

TEST_F(TarExtractionTest, ChecksumCountsHighBytesAsNegative) {
  const std::string name = "caf\xC3\xA9";
  EXPECT_EQ(untarBytes(padded(entryBlocks({.name = name, .data = "s"}) + zeros(2))), 0);
  EXPECT_EQ(extracted(name), "s");
  fs::remove_all(out_);
  EXPECT_EQ(untarBytes(padded(entryBlocks({.name = name, .data = "u", .unsignedChecksum = true}) +
                              zeros(2))),
            -1);
  EXPECT_FALSE(fs::exists(out_ / name));
}

TEST_F(TarExtractionTest, OnlyFilesAndDirectoriesAreExtracted) {
  for (char typeflag : {'1', '2', '\0', 'L', 'x', '3'}) {
    EXPECT_EQ(untarBytes(padded(entryBlocks({.name = "link", .typeflag = typeflag}) + zeros(2))),
              -1)
        << int{typeflag};
    EXPECT_FALSE(fs::exists(out_ / "link"));
  }
}

TEST_F(TarExtractionTest, DirectoryEntryLandsBelowTheDestinationWithoutSearchPermission) {
  EXPECT_EQ(untarBytes(padded(entryBlocks({.name = "folder", .typeflag = '5'}) + zeros(2))), 0);
  EXPECT_TRUE(fs::is_directory(out_ / "folder"));
  EXPECT_EQ(permissions(out_ / "folder"), 0644u);
  // An existing directory is a failure of the entry.
  EXPECT_EQ(untarBytes(padded(entryBlocks({.name = "folder", .typeflag = '5'}) + zeros(2))), -1);
}

TEST_F(TarExtractionTest, NameIsCutAtWhiteSpace) {
  EXPECT_EQ(untarBytes(padded(entryBlocks({.name = "my list.txt", .data = "d"}) + zeros(2))), 0);
  EXPECT_EQ(extracted("my"), "d");
  EXPECT_FALSE(fs::exists(out_ / "my list.txt"));
}

TEST_F(TarExtractionTest, NamesLeavingTheDestinationAreRefused) {
  for (const char* name : {"/tmp/evil", "../evil", "a/../../evil", "..", "   "}) {
    EXPECT_EQ(untarBytes(padded(entryBlocks({.name = name, .data = "x"}) + zeros(2))), -1) << name;
    EXPECT_FALSE(fs::exists(dir_ / "evil")) << name;
  }
  EXPECT_FALSE(fs::exists("/tmp/evil"));
}

// A link already in the destination, made by someone else or by an earlier run, must not carry
// an entry (file or folder) to where it points, nor may a file entry write through a link of its
// own name.
TEST_F(TarExtractionTest, LinksPlantedInTheDestinationAreNotFollowed) {
  const fs::path outside = dir_ / "outside";
  fs::create_directories(outside);
  fs::create_directories(out_);
  fs::create_directory_symlink(outside, out_ / "planted");
  test::writeFileBytes(outside / "victim", test::bytesOf("precious"));
  fs::create_symlink(outside / "victim", out_ / "victim");

  EXPECT_EQ(untarBytes(padded(entryBlocks({.name = "planted/evil", .data = "x"}) + zeros(2))), -1);
  EXPECT_EQ(untarBytes(padded(entryBlocks({.name = "planted/sub/", .typeflag = '5'}) + zeros(2))),
            -1);
  EXPECT_EQ(untarBytes(padded(entryBlocks({.name = "victim", .data = "overwritten"}) + zeros(2))),
            0);
  EXPECT_TRUE(fs::is_symlink(out_ / "planted"));
  EXPECT_EQ(std::distance(fs::directory_iterator(outside), fs::directory_iterator()), 1);
  EXPECT_EQ(test::textOf(test::readFileBytes(outside / "victim")), "precious");
  // The entry replaced the link with a file of its own.
  EXPECT_FALSE(fs::is_symlink(out_ / "victim"));
  EXPECT_EQ(extracted("victim"), "overwritten");
  EXPECT_EQ(permissions(out_ / "victim"), 0644u);

  // Folders the archive made itself are still entered.
  EXPECT_EQ(untarBytes(padded(entryBlocks({.name = "real/", .typeflag = '5', .mode = "000755 "}) +
                              zeros(2))),
            0);
  fs::permissions(out_ / "real", fs::perms::owner_all);  // extraction leaves it unsearchable
  EXPECT_EQ(untarBytes(padded(entryBlocks({.name = "real/./inner", .data = "in"}) + zeros(2))), 0);
  EXPECT_EQ(extracted("real/inner"), "in");
}

TEST_F(TarExtractionTest, GarbageNumbersAndShortStreams) {
  // No octal digits in size, mode or chksum.
  EXPECT_EQ(untarBytes(padded(entryBlocks({.name = "a", .size = "zzzzzzzzzzz "}) + zeros(2))), -1);
  EXPECT_EQ(untarBytes(padded(entryBlocks({.name = "a", .mode = "\xFF\xFF\xFF"}) + zeros(2))), -1);
  // A size past the end of the stream.
  EXPECT_EQ(untarBytes(header({.name = "big", .size = "00000100000 "}) + zeros(3)), -1);
  // A size whose low 32 bits are negative writes nothing and reads no data blocks.
  EXPECT_EQ(untarBytes(padded(entryBlocks({.name = "neg", .size = "37777777777 "}) + zeros(2))), 0);
  EXPECT_EQ(extracted("neg"), "");
  // A stream that is not a whole block long.
  EXPECT_EQ(untarBytes(std::string(700, 'q')), -1);
  EXPECT_EQ(untarBytes(""), -1);
}

TEST_F(TarExtractionTest, ArchivesFromGnuTarExtractToTheSameBytes) {
  const fs::path source = dir_ / "source";
  fs::create_directories(source);
  std::mt19937 rng(7);
  std::vector<std::pair<std::string, std::string>> files;
  for (size_t size : {0, 1, 511, 512, 513, 10240, 100001}) {
    std::string data(size, '\0');
    for (char& c : data) c = static_cast<char>(rng());
    files.emplace_back("file" + std::to_string(size) + ".bin", data);
    test::writeFileBytes(source / files.back().first, test::bytesOf(data));
  }
  auto gnuTar = [&](const std::string& format, const std::string& names) {
    const std::string command = "tar --format=" + format + " -cf " + archive_.string() + " -C " +
                                source.string() + " " + names;
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
    fs::remove_all(out_);
  };
  std::string names;
  for (const auto& file : files) names += " " + file.first;
  for (const char* format : {"gnu", "ustar"}) {
    gnuTar(format, names);
    EXPECT_EQ(untarFile(), 0) << format << " " << stderr_;
    EXPECT_EQ(stderr_, "");
    for (const auto& [name, data] : files) {
      EXPECT_TRUE(extracted(name) == data) << format << " " << name;  // no binary dump on failure
      EXPECT_EQ(permissions(out_ / name), 0644u);
    }
  }
  // v7 marks regular files with a NUL typeflag, which is refused at the first entry.
  gnuTar("v7", names);
  EXPECT_EQ(untarFile(), -1);
  EXPECT_FALSE(fs::exists(out_ / files.front().first));
  // GNU tar sums header bytes unsigned, so a non-ASCII name does not pass the signed check.
  test::writeFileBytes(source / "caf\xC3\xA9", test::bytesOf("x"));
  gnuTar("gnu", "caf\xC3\xA9");
  EXPECT_EQ(untarFile(), -1);
}

TEST(TarReporters, WriteTheirTextAndErrno) {
  testing::internal::CaptureStderr();
  usr_warning("tar: %s\n", "one");
  usr_fatal(1, "two %d", 2);
  errno = ENOENT;
  sys_warning("tar: cannot chmod on %s", "/x");
  errno = EACCES;
  sys_fatal(0, "three");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            std::string("tar: one\ntwo 2tar: cannot chmod on /x: ") + std::strerror(ENOENT) +
                "\nthree: " + std::strerror(EACCES) + "\n");
}

TEST(TarReporters, ZeroBlock) {
  std::string block(512, '\0');
  EXPECT_EQ(is_zero_block(block.data()), 1);
  block[511] = 1;
  EXPECT_EQ(is_zero_block(block.data()), 0);
}

}  // namespace
}  // namespace wdc
