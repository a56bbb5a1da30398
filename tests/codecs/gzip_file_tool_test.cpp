// The gzip command on real files in the Env's scratch directory: option parsing, file naming,
// deletion of the source, the exact messages on standard error, the stdin/stdout filter, and
// interchange with GNU gzip in both directions.
#include "webdavconnect/gzip_file_tool.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <random>

#include "platform/virtual_env.h"
#include "support/test_util.h"
#include "util/gzip_file_tool_internal.h"
#include "webdavconnect/data_codecs.h"

namespace wdc {
namespace {

namespace fs = std::filesystem;
using test::bytesOf;
using test::readFileBytes;
using test::writeFileBytes;

class GzipFileToolTest : public testing::Test {
 protected:
  VirtualEnv env_;
  ScopedEnv use_{env_};
  fs::path dir_ = Env::current().temporaryDirectory();
  Bytes text_ = sampleText();

  static Bytes sampleText() {
    std::string text;
    for (int i = 0; i < 4000; ++i) text += "line " + std::to_string(i % 97) + " of the list\n";
    return bytesOf(text);
  }
  std::string path(const std::string& name) const { return (dir_ / name).string(); }

  // Runs the command with `args` (program name added) and returns its result; what it wrote to
  // standard error lands in stderr_.
  int run(std::vector<std::string> args) {
    args.insert(args.begin(), "minigzip");
    std::vector<const char*> argv;
    for (const auto& a : args) argv.push_back(a.c_str());
    testing::internal::CaptureStderr();
    const int rc = minigzip(static_cast<int>(argv.size()), argv.data());
    stderr_ = testing::internal::GetCapturedStderr();
    return rc;
  }

  // Runs the filter form over `input`; returns what it wrote as "standard output".
  Bytes runFilter(std::vector<std::string> args, const Bytes& input, int* rc) {
    args.insert(args.begin(), "minigzip");
    std::vector<const char*> argv;
    for (const auto& a : args) argv.push_back(a.c_str());
    writeFileBytes(path("stdin"), input);
    std::FILE* in = std::fopen(path("stdin").c_str(), "rb");
    std::FILE* out = std::fopen(path("stdout").c_str(), "wb");
    testing::internal::CaptureStderr();
    *rc = minigzipWithStreams(static_cast<int>(argv.size()), argv.data(), in, out);
    stderr_ = testing::internal::GetCapturedStderr();
    // The filter closed one side through its FILE and the other through its descriptor only;
    // release the remaining FILE records (their descriptors are already gone).
    std::fclose(args.size() > 1 && args[1] == "-d" ? in : out);
    return readFileBytes(path("stdout"));
  }

  // The level byte of a gzip header: 2 for level 9, 4 for level 1, 0 otherwise.
  static uint8_t extraFlags(const Bytes& gz) { return gz.at(8); }

  std::string stderr_;
};

TEST_F(GzipFileToolTest, CompressesAtTheGivenLevelAndDeletesTheSource) {
  struct Case {
    std::vector<std::string> options;
    uint8_t extraFlags;
  };
  const std::vector<Case> cases = {{{}, 0}, {{"-9"}, 2}, {{"-1"}, 4}, {{"-1", "-9"}, 2}};
  for (const auto& c : cases) {
    writeFileBytes(path("a.txt"), text_);
    auto args = c.options;
    args.push_back(path("a.txt"));
    EXPECT_EQ(run(args), 0);
    EXPECT_EQ(stderr_, "");
    EXPECT_FALSE(fs::exists(path("a.txt")));
    const Bytes gz = readFileBytes(path("a.txt.gz"));
    EXPECT_EQ(extraFlags(gz), c.extraFlags) << c.options.size();
    EXPECT_EQ(gzipInflate(gz), text_);
    fs::remove(path("a.txt.gz"));
  }
}

TEST_F(GzipFileToolTest, StrategyLettersReachZlib) {
  // Huffman-only coding cannot use repeats, so repetitive text comes out much larger.
  writeFileBytes(path("default.txt"), text_);
  writeFileBytes(path("huffman.txt"), text_);
  writeFileBytes(path("filtered.txt"), text_);
  run({path("default.txt")});
  run({"-h", path("huffman.txt")});
  run({"-f", path("filtered.txt")});
  const auto plain = fs::file_size(path("default.txt.gz"));
  EXPECT_GT(fs::file_size(path("huffman.txt.gz")), plain * 3);
  EXPECT_EQ(gzipInflate(readFileBytes(path("huffman.txt.gz"))), text_);
  EXPECT_EQ(gzipInflate(readFileBytes(path("filtered.txt.gz"))), text_);
}

TEST_F(GzipFileToolTest, DecompressesByEitherName) {
  for (std::string name : {"a.txt", "a.txt.gz"}) {
    writeFileBytes(path("a.txt.gz"), *gzipDeflate(text_));
    EXPECT_EQ(run({"-d", path(name)}), 0);
    EXPECT_EQ(stderr_, "");
    EXPECT_EQ(readFileBytes(path("a.txt")), text_) << name;
    EXPECT_FALSE(fs::exists(path("a.txt.gz"))) << name;
  }
}

TEST_F(GzipFileToolTest, UnknownDashArgumentsAreFileNames) {
  const fs::path saved = fs::current_path();
  fs::current_path(dir_);
  for (std::string name : {"-x", "-", "-d1", "-99"}) writeFileBytes(name, text_);
  writeFileBytes("b", text_);
  EXPECT_EQ(run({"-x", "b"}), 0);
  // "-" and "-d1" end the options too, even after a real option.
  EXPECT_EQ(run({"-9", "-", "-d1", "-99"}), 0);
  for (std::string name : {"-x", "b", "-", "-d1", "-99"}) {
    EXPECT_FALSE(fs::exists(name)) << name;
    EXPECT_EQ(gzipInflate(readFileBytes(name + ".gz")), text_) << name;
  }
  EXPECT_EQ(extraFlags(readFileBytes("-.gz")), 2);
  fs::current_path(saved);
}

TEST_F(GzipFileToolTest, FailuresPrintTheirMessageAndMinigzipStillReturnsZero) {
  fs::create_directory(path("dir"));
  writeFileBytes(path("dir.gz"), *gzipDeflate(text_));
  writeFileBytes(path("c.txt"), text_);
  fs::create_directory(path("c.txt.gz"));
  struct Case {
    std::vector<std::string> args;
    std::string message;
  };
  const std::vector<Case> cases = {
      {{path("missing.txt")}, path("missing.txt") + ": No such file or directory\n"},
      {{"-d", path("missing.txt")}, "gzip: can't gzopen " + path("missing.txt.gz") + "\n"},
      {{"-d", path("missing.txt.gz")}, "gzip: can't gzopen " + path("missing.txt.gz") + "\n"},
      // The output name is a directory: the message names the argument as given.
      {{"-d", path("dir.gz")}, path("dir.gz") + ": Is a directory\n"},
      {{"-d", path("dir")}, path("dir") + ": Is a directory\n"},
      {{path("c.txt")}, "gzip: can't gzopen " + path("c.txt.gz") + "\n"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(run(c.args), 0);
    EXPECT_EQ(stderr_, c.message);
  }
  EXPECT_TRUE(fs::exists(path("c.txt")));   // source kept on failure
  EXPECT_TRUE(fs::exists(path("dir.gz")));
}

TEST_F(GzipFileToolTest, DamagedArchivesAreKeptAndReported) {
  Bytes gz = *gzipDeflate(text_);
  Bytes truncated(gz.begin(), gz.begin() + static_cast<long>(gz.size() / 2));
  Bytes corrupt = gz;
  corrupt[20] ^= 0xFF;
  corrupt[21] ^= 0xFF;
  corrupt[22] ^= 0xFF;
  struct Case {
    const char* name;
    Bytes bytes;
    std::string message;
  };
  const std::string prefix = "gzip: " + path("d.txt.gz") + ": ";
  const std::vector<Case> cases = {
      // A stream that just stops reads as a short file; zlib reports it when closing.
      {"truncated", truncated, "gzip: failed gzclose\n"},
      {"corrupt", corrupt, prefix + "invalid bit length repeat\n"},
  };
  for (const auto& c : cases) {
    writeFileBytes(path("d.txt.gz"), c.bytes);
    testing::internal::CaptureStderr();
    EXPECT_EQ(file_uncompress(path("d.txt.gz").c_str()), 0) << c.name;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), c.message) << c.name;
    EXPECT_TRUE(fs::exists(path("d.txt.gz"))) << c.name;
    // Through the command the file's failure does not change the result.
    EXPECT_EQ(run({"-d", path("d.txt.gz")}), 0);
    EXPECT_EQ(stderr_, c.message) << c.name;
  }
}

// Open descriptors of this process.
size_t openDescriptors() {
  return static_cast<size_t>(std::distance(fs::directory_iterator("/proc/self/fd"),
                                           fs::directory_iterator()));
}

TEST_F(GzipFileToolTest, FailedRestoresReleaseTheirFiles) {
  // A damaged download is restored through here: each failure must give back both the gzip
  // input and the output file, or a long-running host runs out of descriptors.
  Bytes corrupt = *gzipDeflate(text_);
  corrupt[20] ^= 0xFF;
  corrupt[21] ^= 0xFF;
  corrupt[22] ^= 0xFF;
  fs::create_directory(path("dir"));
  writeFileBytes(path("dir.gz"), *gzipDeflate(text_));  // its output cannot be opened
  const size_t before = openDescriptors();
  for (int i = 0; i < 3; ++i) {
    writeFileBytes(path("d.txt.gz"), corrupt);
    testing::internal::CaptureStderr();
    EXPECT_EQ(file_uncompress(path("d.txt.gz").c_str()), 0);
    EXPECT_EQ(file_uncompress(path("dir.gz").c_str()), 0);
    testing::internal::GetCapturedStderr();
  }
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_TRUE(fs::exists(path("d.txt.gz")));
  EXPECT_TRUE(fs::exists(path("dir.gz")));
}

TEST_F(GzipFileToolTest, SuffixAloneIsABaseName) {
  const fs::path saved = fs::current_path();
  fs::current_path(dir_);
  writeFileBytes(".gz.gz", *gzipDeflate(text_));
  EXPECT_EQ(file_uncompress(".gz"), 1);
  EXPECT_EQ(readFileBytes(".gz"), text_);
  EXPECT_FALSE(fs::exists(".gz.gz"));
  fs::current_path(saved);
}

TEST_F(GzipFileToolTest, FilterModes) {
  int rc = -2;
  Bytes gz = runFilter({}, text_, &rc);
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(extraFlags(gz), 0);
  EXPECT_EQ(gzipInflate(gz), text_);

  gz = runFilter({"-9"}, text_, &rc);  // options without files: still the compress filter
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(extraFlags(gz), 2);
  EXPECT_EQ(gzipInflate(gz), text_);

  EXPECT_EQ(runFilter({"-d"}, gz, &rc), text_);
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(stderr_, "");
}

TEST_F(GzipFileToolTest, ShowErrorPrefixesTheMessage) {
  testing::internal::CaptureStderr();
  showerror("failed fwrite");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "gzip: failed fwrite\n");
}

TEST_F(GzipFileToolTest, DerivedNamesLongerThanTheirBufferAbort) {
  // 1020 characters plus ".gz" and the terminator fill the 1024-byte buffer exactly.
  const std::string fits(1020, 'n');
  testing::internal::CaptureStderr();
  EXPECT_EQ(file_compress(fits.c_str(), "wb6 "), 0);  // fails later, at fopen
  EXPECT_NE(testing::internal::GetCapturedStderr().find("File name too long"), std::string::npos);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(file_compress(std::string(1021, 'n').c_str(), "wb6 "), "");
  EXPECT_DEATH(file_uncompress(std::string(1021, 'n').c_str()), "");
}

bool haveGnuGzip() { return std::system("gzip --version > /dev/null 2>&1") == 0; }

TEST_F(GzipFileToolTest, InterchangesWithGnuGzip) {
  if (!haveGnuGzip()) GTEST_SKIP() << "gzip not installed";
  std::mt19937 rng(3);
  Bytes mixed = text_;
  for (int i = 0; i < 50000; ++i) mixed.push_back(static_cast<uint8_t>(rng()));

  // Ours -> GNU gzip.
  writeFileBytes(path("ours.bin"), mixed);
  ASSERT_EQ(run({"-9", path("ours.bin")}), 0);
  const std::string toGnu = "gzip -d '" + path("ours.bin.gz") + "'";
  ASSERT_EQ(std::system(toGnu.c_str()), 0);
  EXPECT_EQ(readFileBytes(path("ours.bin")), mixed);

  // GNU gzip -> ours.
  writeFileBytes(path("gnu.bin"), mixed);
  const std::string fromGnu = "gzip -6 '" + path("gnu.bin") + "'";
  ASSERT_EQ(std::system(fromGnu.c_str()), 0);
  ASSERT_EQ(run({"-d", path("gnu.bin.gz")}), 0);
  EXPECT_EQ(stderr_, "");
  EXPECT_EQ(readFileBytes(path("gnu.bin")), mixed);
}

}  // namespace
}  // namespace wdc
