// The batch upload facility against the emulator: sessions, chunking, commit groups of at most
// 1,000, the classic commit with polling, and per-file failures reaching the handler.
#include <fstream>

#include "dbx/client_fixture.h"

namespace wdc::dbx {
namespace {

using testing::DbxClientTest;

struct BatchAnswer {
  std::optional<std::map<std::string, DBFILESUploadSessionFinishBatchResultEntry>> entries;
  std::optional<DBASYNCPollError> routeError;
  std::optional<DBRequestError> requestError;
  std::map<std::string, DBRequestError> fileErrors;
};

class DbxBatchUploadTest : public DbxClientTest {
 protected:
  // Writes a local file and returns its file URL.
  std::string localFile(const std::string& name, const std::string& contents) {
    const auto path = dir_.path() / name;
    std::ofstream(path, std::ios::binary) << contents;
    return "file://" + path.string();
  }

  static DBFILESCommitInfo commitAt(std::string path) {
    DBFILESCommitInfo commit;
    commit.path = std::move(path);
    commit.mode = DBFILESWriteMode::overwrite();
    commit.mute = true;
    return commit;
  }

  BatchAnswer upload(std::shared_ptr<DBUserClient> client,
                     std::map<std::string, DBFILESCommitInfo> files) {
    auto promise = std::make_shared<std::promise<BatchAnswer>>();
    auto future = promise->get_future();
    client->filesRoutes().batchUploadFiles(
        std::move(files), queue_, nullptr,
        [promise](const std::map<std::string, DBFILESUploadSessionFinishBatchResultEntry>* entries,
                  const DBASYNCPollError* routeError, const DBRequestError* requestError,
                  const std::map<std::string, DBRequestError>& fileErrors) {
          BatchAnswer answer;
          if (entries) answer.entries = *entries;
          if (routeError) answer.routeError = *routeError;
          if (requestError) answer.requestError = *requestError;
          answer.fileErrors = fileErrors;
          promise->set_value(std::move(answer));
        });
    if (future.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
      ADD_FAILURE() << "batch upload never answered";
      return {};
    }
    return future.get();
  }
};

TEST_F(DbxBatchUploadTest, UploadsEachFileAndReportsPerFileOutcomes) {
  emulator_.createFolder("/tod/taken");
  std::map<std::string, DBFILESCommitInfo> files;
  const auto a = localFile("a.gz", "alpha");
  const auto b = localFile("b.gz", "");
  const auto conflict = localFile("c.gz", "gamma");
  const std::string missing = "file://" + (dir_.path() / "missing.gz").string();
  files[a] = commitAt("/tod/a.tod");
  files[b] = commitAt("/tod/b.tod");
  files[conflict] = commitAt("/tod/taken");  // a folder sits there
  files[missing] = commitAt("/tod/m.tod");

  auto answer = upload(client_, files);
  ASSERT_TRUE(answer.entries);
  EXPECT_FALSE(answer.requestError);
  EXPECT_FALSE(answer.routeError);
  ASSERT_EQ(answer.entries->size(), 3u);
  ASSERT_TRUE(answer.entries->at(a).isSuccess());
  EXPECT_EQ(answer.entries->at(a).success->pathDisplay, "/tod/a.tod");
  EXPECT_EQ(answer.entries->at(a).success->rev, emulator_.lookup("/tod/a.tod")->rev);
  EXPECT_TRUE(answer.entries->at(b).isSuccess());
  ASSERT_TRUE(answer.entries->at(conflict).isFailure());
  EXPECT_EQ(answer.entries->at(conflict).failure->description(), "path/conflict/folder");
  ASSERT_EQ(answer.fileErrors.count(missing), 1u);
  EXPECT_EQ(answer.fileErrors.at(missing).nsError->code(), kURLErrorFileDoesNotExist);

  EXPECT_EQ(emulator_.readFile("/tod/a.tod"), "alpha");
  EXPECT_EQ(emulator_.readFile("/tod/b.tod"), "");
  EXPECT_EQ(emulator_.requestCount("files/upload_session/finish_batch_v2"), 1u);
  EXPECT_EQ(emulator_.requestCount("files/upload_session/finish_batch"), 0u);
}

TEST_F(DbxBatchUploadTest, LargeFilesGoUpInChunksWithTheSessionClosedOnTheLast) {
  auto custom = config();
  custom.uploadChunkBytes = 1000;
  auto client = makeClient(DBOAuth2Token{"", "T", std::nullopt, std::nullopt}, custom);
  std::string contents(3500, 'z');
  const auto url = localFile("big.gz", contents);
  auto answer = upload(client, {{url, commitAt("/big.bin")}});
  ASSERT_TRUE(answer.entries);
  ASSERT_TRUE(answer.entries->at(url).isSuccess());
  EXPECT_EQ(answer.entries->at(url).success->size, 3500u);
  EXPECT_EQ(emulator_.readFile("/big.bin"), contents);
  EXPECT_EQ(emulator_.requestCount("files/upload_session/start"), 1u);
  EXPECT_EQ(emulator_.requestCount("files/upload_session/append_v2"), 3u);
}

TEST_F(DbxBatchUploadTest, MoreThanAThousandFilesAreCommittedInGroupsOneAfterAnother) {
  std::map<std::string, DBFILESCommitInfo> files;
  for (int i = 0; i < 1005; ++i) {
    files[localFile("f" + std::to_string(i), std::to_string(i))] =
        commitAt("/many/f" + std::to_string(i));
  }
  auto answer = upload(client_, files);
  ASSERT_TRUE(answer.entries);
  EXPECT_FALSE(answer.requestError) << answer.requestError->description();
  EXPECT_EQ(answer.entries->size(), 1005u);
  EXPECT_TRUE(std::all_of(answer.entries->begin(), answer.entries->end(),
                          [](const auto& item) { return item.second.isSuccess(); }));
  EXPECT_EQ(emulator_.requestCount("files/upload_session/finish_batch_v2"), 2u);
  EXPECT_EQ(emulator_.readFile("/many/f1004"), "1004");
}

TEST_F(DbxBatchUploadTest, RateLimitedSessionRequestsWaitAndTryAgain) {
  emulator_.addFault(emu::FaultRule{.route = "files/upload_session/start",
                                    .kind = emu::FaultKind::kTooManyWriteOperations,
                                    .argument = 1, .count = 2});
  const auto url = localFile("a.gz", "alpha");
  auto answer = upload(client_, {{url, commitAt("/a")}});
  ASSERT_TRUE(answer.entries);
  EXPECT_TRUE(answer.entries->at(url).isSuccess());
  EXPECT_EQ(emulator_.requestCount("files/upload_session/start"), 3u);
}

TEST_F(DbxBatchUploadTest, ACommitThatFailsIsTheFinishRequestError) {
  emulator_.addFault(emu::FaultRule{.route = "files/upload_session/finish_batch_v2",
                                    .kind = emu::FaultKind::kInternalError});
  const auto url = localFile("a.gz", "alpha");
  auto answer = upload(client_, {{url, commitAt("/a")}});
  EXPECT_FALSE(answer.entries);
  ASSERT_TRUE(answer.requestError);
  EXPECT_EQ(answer.requestError->statusCode, 500);
  EXPECT_TRUE(answer.fileErrors.empty());
}

class DbxClassicCommitTest : public DbxBatchUploadTest {
 protected:
  DbxClassicCommitTest() {}
  void SetUp() override {
    DbxBatchUploadTest::SetUp();
    auto custom = config();
    custom.preferFinishBatchV2 = false;
    client_ = makeClient(DBOAuth2Token{"", "T", std::nullopt, std::nullopt}, custom);
  }
};

TEST_F(DbxClassicCommitTest, CommitsWithFinishBatchAndPollsTheJob) {
  const auto a = localFile("a.gz", "alpha");
  const auto b = localFile("b.gz", "beta");
  auto answer = upload(client_, {{a, commitAt("/x/a")}, {b, commitAt("/x/b")}});
  ASSERT_TRUE(answer.entries);
  EXPECT_TRUE(answer.entries->at(a).isSuccess());
  EXPECT_EQ(answer.entries->at(b).success->pathDisplay, "/x/b");
  EXPECT_EQ(emulator_.requestCount("files/upload_session/finish_batch"), 1u);
  EXPECT_GE(emulator_.requestCount("files/upload_session/finish_batch/check"), 2u);
  EXPECT_EQ(emulator_.requestCount("files/upload_session/finish_batch_v2"), 0u);
}

}  // namespace
}  // namespace wdc::dbx
