// Every per-file download is checked against the content hash its answer states.
#include "dbx/client_fixture.h"
#include "dbx/content_hash.h"
#include "emulator/store.h"

namespace wdc::dbx {
namespace {

using testing::DbxClientTest;

TEST(ContentHash, AgreesWithTheStoresOwnHashAcrossBlockBoundariesAndPieceSizes) {
  constexpr size_t kBlock = kContentHashBlockBytes;
  for (size_t size : {size_t{0}, size_t{1}, kBlock - 1, kBlock, kBlock + 1, 2 * kBlock + 12'345}) {
    SCOPED_TRACE(size);
    std::string data(size, '\0');
    for (size_t i = 0; i < size; ++i) data[i] = static_cast<char>((i * 131) ^ (i >> 13));
    const std::string expected = emu::Store::contentHash(data);
    EXPECT_EQ(contentHashOf(data), expected);
    DBContentHasher pieces;  // fed in odd pieces that straddle the block edges
    for (size_t at = 0; at < size; at += 999'983) {
      pieces.update(std::string_view(data).substr(at, 999'983));
    }
    EXPECT_EQ(pieces.finish(), expected);
  }
  EXPECT_EQ(contentHashOf(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST_F(DbxClientTest, ADamagedDownloadIsALostConnectionAndLeavesNoFile) {
  const std::string contents(300'000, 'q');
  emulator_.putFile("/a.bin", contents);
  const auto destination = dir_.path() / "a.bin";
  emulator_.addFault(emu::FaultRule{.route = "files/download", .kind = emu::FaultKind::kCorrupt,
                                    .count = 2});
  auto toFile = await(files().downloadUrl("/a.bin", true, destination));
  EXPECT_FALSE(toFile.result);
  ASSERT_TRUE(toFile.error);
  ASSERT_TRUE(toFile.error->nsError);
  EXPECT_EQ(toFile.error->nsError->code(), kURLErrorNetworkConnectionLost);
  EXPECT_NE(toFile.error->message.find("content hash mismatch"), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(destination));
  for (const auto& entry : std::filesystem::directory_iterator(dir_.path())) {
    EXPECT_EQ(entry.path().string().find(".part-"), std::string::npos) << entry.path();
  }
  auto inMemory = await(files().downloadData("/a.bin"));
  EXPECT_FALSE(inMemory.result);
  ASSERT_TRUE(inMemory.error && inMemory.error->nsError);
  EXPECT_EQ(inMemory.error->nsError->code(), kURLErrorNetworkConnectionLost);

  // Undamaged answers pass the same check.
  auto intact = await(files().downloadUrl("/a.bin", true, destination));
  ASSERT_TRUE(intact.result);
  EXPECT_EQ(intact.result->contentHash, emu::Store::contentHash(contents));
  EXPECT_EQ(std::filesystem::file_size(destination), contents.size());
  EXPECT_EQ(await(files().downloadData("/a.bin")).data, contents);
}

}  // namespace
}  // namespace wdc::dbx
