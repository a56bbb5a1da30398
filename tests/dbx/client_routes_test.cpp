// Every route through the client against the emulator: results, route errors with their tags,
// and what the server saw.
#include <fstream>

#include "dbx/client_fixture.h"

namespace wdc::dbx {
namespace {

using testing::DbxClientTest;

std::string readAll(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

DBFILESUploadArg overwriteAt(std::string path) {
  DBFILESUploadArg arg;
  arg.commit.path = std::move(path);
  arg.commit.mode = DBFILESWriteMode::overwrite();
  arg.commit.mute = true;
  return arg;
}

TEST_F(DbxClientTest, CurrentAccountAndABadToken) {
  auto answer = await(client_->usersRoutes().getCurrentAccount());
  ASSERT_TRUE(answer.result) << answer.error->description();
  EXPECT_EQ(answer.result->name.displayName, "Emu Lator");
  EXPECT_EQ(answer.result->accountId.size(), 40u);

  auto other = makeClient(DBOAuth2Token{"", "wrong", std::nullopt, std::nullopt});
  auto refused = await(other->usersRoutes().getCurrentAccount());
  ASSERT_TRUE(refused.error);
  EXPECT_TRUE(refused.error->isAuthError());
  EXPECT_EQ(refused.error->statusCode, 401);
  EXPECT_EQ(refused.error->authErrorTag, "invalid_access_token");
}

TEST_F(DbxClientTest, CreateFolderThenConflict) {
  auto created = await(files().createFolderV2("/Notes"));
  ASSERT_TRUE(created.result);
  EXPECT_EQ(created.result->metadata.pathLower, "/notes");
  auto again = await(files().createFolderV2("/Notes"));
  ASSERT_TRUE(again.routeError);
  EXPECT_EQ(again.routeError->description(), "path/conflict/folder");
  EXPECT_FALSE(again.error);
}

TEST_F(DbxClientTest, UploadThenDownloadIntoMemoryAndToAFile) {
  std::string payload(100'000, '\0');
  for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<char>(i * 7);
  auto uploaded = await(files().uploadData(overwriteAt("/Notes/ünï ✓.bin"), payload));
  ASSERT_TRUE(uploaded.result) << (uploaded.error ? uploaded.error->description() : "");
  EXPECT_EQ(uploaded.result->pathDisplay, "/Notes/ünï ✓.bin");
  EXPECT_EQ(uploaded.result->size, payload.size());

  auto inMemory = await(files().downloadData("/notes/ünï ✓.bin"));
  ASSERT_TRUE(inMemory.result);
  EXPECT_EQ(inMemory.result->rev, uploaded.result->rev);
  EXPECT_EQ(inMemory.data, payload);

  const auto destination = dir_.path() / "out.bin";
  auto toFile = await(files().downloadUrl("/Notes/ünï ✓.bin", true, destination));
  ASSERT_TRUE(toFile.result);
  EXPECT_EQ(toFile.destination, destination);
  EXPECT_EQ(readAll(destination), payload);

  // overwrite off: the existing file is kept and nothing is sent
  const auto before = emulator_.requestCount("files/download");
  auto refused = await(files().downloadUrl("/Notes/ünï ✓.bin", false, destination));
  EXPECT_EQ(refused.nsCode(), kURLErrorCannotCreateFile);
  EXPECT_EQ(emulator_.requestCount("files/download"), before);
}

TEST_F(DbxClientTest, UploadFromAFileAndFromAMissingOne) {
  const auto source = dir_.path() / "record.gz";
  std::ofstream(source, std::ios::binary) << "gzip bytes";
  auto uploaded = await(files().uploadUrl(overwriteAt("/tod/o_u_k_p_i_d_.tod"), source));
  ASSERT_TRUE(uploaded.result);
  EXPECT_EQ(emulator_.readFile("/tod/o_u_k_p_i_d_.tod"), "gzip bytes");

  auto missing = await(files().uploadUrl(overwriteAt("/tod/x.tod"), dir_.path() / "absent"));
  EXPECT_EQ(missing.nsCode(), kURLErrorFileDoesNotExist);
}

TEST_F(DbxClientTest, DownloadOfAMissingFileIsAPathLookupRouteError) {
  const auto destination = dir_.path() / "none.gz";
  auto answer = await(files().downloadUrl("/tod/none.tod", true, destination));
  ASSERT_TRUE(answer.routeError);
  ASSERT_TRUE(answer.routeError->isPath());
  EXPECT_TRUE(answer.routeError->path->isNotFound());
  EXPECT_FALSE(std::filesystem::exists(destination));
}

TEST_F(DbxClientTest, ListFolderPagesContinuesAndSeesReset) {
  for (int i = 0; i < 5; ++i) emulator_.putFile("/tod/f" + std::to_string(i) + ".tod", "x");
  DBFILESListFolderArg arg;
  arg.recursive = true;
  arg.limit = 2;
  arg.includeMountedFolders = false;
  auto first = await(files().listFolder(arg));
  ASSERT_TRUE(first.result);
  std::vector<std::string> paths;
  auto collect = [&](const DBFILESListFolderResult& page) {
    for (const auto& entry : page.entries) paths.push_back(entry->pathLower.value_or(""));
  };
  collect(*first.result);
  std::string cursor = first.result->cursor;
  bool more = first.result->hasMore;
  while (more) {
    auto page = await(files().listFolderContinue(cursor));
    ASSERT_TRUE(page.result);
    collect(*page.result);
    cursor = page.result->cursor;
    more = page.result->hasMore;
  }
  EXPECT_EQ(paths.size(), 6u);  // the folder and its five files
  EXPECT_NE(std::find(paths.begin(), paths.end(), "/tod/f4.tod"), paths.end());

  emulator_.removePath("/tod/f0.tod");
  auto changes = await(files().listFolderContinue(cursor));
  ASSERT_TRUE(changes.result);
  ASSERT_EQ(changes.result->entries.size(), 1u);
  EXPECT_TRUE(changes.result->entries[0]->isDeleted());

  emulator_.invalidateCursors();
  auto reset = await(files().listFolderContinue(changes.result->cursor));
  ASSERT_TRUE(reset.routeError);
  EXPECT_EQ(static_cast<int>(reset.routeError->tag), 1);
}

TEST_F(DbxClientTest, SearchSpeaksSearchV2AndReturnsMatches) {
  emulator_.putFile("/ABC_1700000000.250000.tsl", "lock");
  emulator_.putFile("/tod/other.tod", "x");
  auto found = await(files().search("", ".tsl"));
  ASSERT_TRUE(found.result) << (found.error ? found.error->description() : "");
  ASSERT_EQ(found.result->matches.size(), 1u);
  EXPECT_EQ(found.result->matches[0].metadata->name, "ABC_1700000000.250000.tsl");
  EXPECT_TRUE(found.result->matches[0].metadata->isFile());
  auto none = await(files().search("/tod", "nothing-like-this"));
  ASSERT_TRUE(none.result);
  EXPECT_TRUE(none.result->matches.empty());
  EXPECT_EQ(emulator_.requestCount("files/search_v2"), 2u);
  EXPECT_EQ(emulator_.requestCount("files/search"), 0u);
}

TEST_F(DbxClientTest, DeleteOneAndAMissingOne) {
  emulator_.putFile("/tod/a.tod", "x");
  auto deleted = await(files().deleteV2("/tod/a.tod"));
  ASSERT_TRUE(deleted.result);
  EXPECT_EQ(deleted.result->metadata->pathLower, "/tod/a.tod");
  EXPECT_FALSE(emulator_.lookup("/tod/a.tod"));

  auto missing = await(files().deleteV2("/tod/a.tod"));
  ASSERT_TRUE(missing.routeError);
  ASSERT_TRUE(missing.routeError->isPathLookup());
  EXPECT_EQ(static_cast<int>(missing.routeError->pathLookup->tag), 1);
}

TEST_F(DbxClientTest, DeleteBatchPollsUntilCompleteWithPerEntryFailures) {
  emulator_.putFile("/tod/a.tod", "x");
  emulator_.putFile("/tod/b.tod", "x");
  auto launch = await(files().deleteBatch({{"/tod/a.tod", {}}, {"/tod/missing.tod", {}},
                                           {"/tod/b.tod", {}}}));
  ASSERT_TRUE(launch.result);
  ASSERT_TRUE(launch.result->isAsyncJobId());
  std::optional<DBFILESDeleteBatchJobStatus> status;
  for (int poll = 0; poll < 20; ++poll) {
    auto check = await(files().deleteBatchCheck(launch.result->asyncJobId));
    ASSERT_TRUE(check.result);
    if (!check.result->isInProgress()) {
      status = check.result;
      break;
    }
  }
  ASSERT_TRUE(status && status->isComplete());
  const auto& entries = status->complete->entries;
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_TRUE(entries[0].isSuccess());
  ASSERT_TRUE(entries[1].isFailure());
  EXPECT_TRUE(entries[1].failure->pathLookup->isNotFound());
  EXPECT_TRUE(entries[2].isSuccess());

  auto unknown = await(files().deleteBatchCheck("dbjid:unknown"));
  ASSERT_TRUE(unknown.routeError);
  EXPECT_EQ(unknown.routeError->tagName(), "invalid_async_job_id");
}

TEST_F(DbxClientTest, DownloadZipOfAFolder) {
  emulator_.putFile("/Notes/a.txt", "alpha");
  emulator_.putFile("/Notes/sub/b.txt", "beta");
  const auto destination = dir_.path() / "snapshot.zip";
  auto answer = await(files().downloadZipUrl("/Notes", true, destination));
  ASSERT_TRUE(answer.result) << (answer.error ? answer.error->description() : "");
  EXPECT_EQ(answer.result->metadata.name, "Notes");
  EXPECT_EQ(readAll(destination).substr(0, 2), "PK");

  auto ofFile = await(files().downloadZipUrl("/Notes/a.txt", true, dir_.path() / "x.zip"));
  ASSERT_TRUE(ofFile.routeError);
  EXPECT_TRUE(ofFile.routeError->isPath());
  EXPECT_TRUE(ofFile.routeError->path->isNotFolder());
}

class DbxZipLimitTest : public DbxClientTest {
 protected:
  DbxZipLimitTest() : DbxClientTest({.tls = true, .token = "T", .zipMaxEntries = 3}) {}
};

TEST_F(DbxZipLimitTest, TooManyFilesIsItsOwnTag) {
  for (int i = 0; i < 5; ++i) emulator_.putFile("/tod/" + std::to_string(i), "x");
  auto answer = await(files().downloadZipUrl("/tod", true, dir_.path() / "t.zip"));
  ASSERT_TRUE(answer.routeError);
  EXPECT_TRUE(answer.routeError->isTooManyFiles());
  EXPECT_FALSE(std::filesystem::exists(dir_.path() / "t.zip"));
}

}  // namespace
}  // namespace wdc::dbx
