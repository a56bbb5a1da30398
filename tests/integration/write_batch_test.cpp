// The retrying batch upload end to end against the emulator: per-item and overall failures from
// scripted faults, what each pass sends, the keep-going rules, rate-limit back-off and the shared
// cooldown, batches past one commit, a connection released while its retry waits, and what the
// store holds afterwards (payloads, revs, content hashes).
#include <set>

#include "dbx/clients_manager.h"
#include "dropbox/upload_scratch.h"
#include "support/test_util.h"
#include "write_fixture.h"

namespace wdc::testing_support {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;
using testing::StartsWith;

class BatchUpload : public WriteFixture {
 protected:
  // Every result succeeded, each item once, and the store holds each with the payload, the rev
  // the result carries and the content hash of the scratch file that went up.
  void expectAllStored(const BatchOutcome& outcome, const Objects& objects) {
    ASSERT_THAT(outcome.results, SizeIs(objects.size()));
    std::set<const WebDAVFileContents*> seen;
    for (const auto& result : outcome.results) {
      ASSERT_TRUE(result && result->fileContents);
      EXPECT_FALSE(result->uploadError) << result->uploadError->description();
      seen.insert(result->fileContents.get());
      const auto& meta = *result->fileContents->FileMetaData;
      const std::string path = "/tod/" + *meta.FilePath;
      auto entry = emulator_->lookup(path);
      ASSERT_TRUE(entry) << path;
      EXPECT_EQ(meta.FileRev, entry->rev) << path;
      const Bytes local = test::readFileBytes(env_.temporaryDirectory() / (*meta.FilePath + ".gz"));
      EXPECT_EQ(entry->contentHash, emu::Store::contentHash(test::textOf(local))) << path;
      EXPECT_EQ(readBack(path), PlistValue(*result->fileContents->FileContents)) << path;
    }
    for (const auto& object : objects) EXPECT_TRUE(seen.count(object.get()));
  }

  size_t arrivalsOf(const std::string& route) {
    size_t n = 0;
    for (const auto& a : arrivals()) n += a.route == route;
    return n;
  }
};

TEST_F(BatchUpload, WithoutALinkedAccountEveryItemFails401InOrderOnTheGivenQueue) {
  dbx::DBClientsManager::resetClients();
  auto connection = newConnection();
  auto objects = records(3);
  auto outcome = runBatch([&](WebDAVConnect::BatchUploadCompletion completion) {
    connection->uploadFileWithObjects(objects, std::nullopt, answers_, std::move(completion));
  });
  EXPECT_TRUE(outcome.onGivenQueue);
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->domain(), "Dropbox");
  EXPECT_EQ(outcome.error->code(), 401);
  EXPECT_EQ(outcome.error->localizedDescription(),
            "Dropbox account is not linked. Please relink and try again.");
  ASSERT_THAT(outcome.results, SizeIs(3));
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(outcome.results[i]->fileContents, objects[i]);
    EXPECT_EQ(outcome.results[i]->uploadError, outcome.error);
  }
  EXPECT_EQ(emulator_->requestCount("*"), 0u);
  EXPECT_TRUE(log_.contains(log::Level::kError,
                            "[DROPBOX] Cannot upload batch because authorized client is missing. "
                            "Aborting request."));
}

TEST_F(BatchUpload, FirstWaitsOutTheSharedCooldown) {
  WebDAVConnect::noteDropboxRateLimitWithSuggestedDelay(2.5);
  auto connection = newConnection();
  auto objects = records(2);
  auto outcome = uploadBatch(connection, objects, 3);
  EXPECT_FALSE(outcome.error);
  EXPECT_THAT(sleptSeconds(), ElementsAre(1.0, 1.0, 0.5));
  ASSERT_FALSE(arrivals().empty());
  EXPECT_GE(arrivals().front().uptimeSeconds, 1000 + 2.5);  // virtual uptime starts at 1000 s
  expectAllStored(outcome, objects);
}

TEST_F(BatchUpload, ARetryableItemFailureIsSentAgainAloneAndTheCompletionListsAll) {
  failNext("files/upload_session/start", emu::FaultKind::kInternalError, 1);
  auto connection = newConnection();
  auto objects = records(3);
  auto outcome = uploadBatch(connection, objects, 3);
  EXPECT_FALSE(outcome.error) << outcome.error->description();
  EXPECT_TRUE(outcome.onGivenQueue);
  EXPECT_EQ(outcome.calls, 1);
  expectAllStored(outcome, objects);
  // Pass one: three sessions (one refused) and one commit of two; pass two: the one left.
  EXPECT_EQ(emulator_->requestCount("files/upload_session/start"), 4u);
  EXPECT_EQ(emulator_->requestCount("files/upload_session/finish_batch_v2"), 2u);
  EXPECT_THAT(log_.messages(log::Level::kError),
              Contains(StartsWith("[DROPBOX] uploadFileWithObjects BATCH UPLOAD ERROR, WILL RETRY: "
                                  "local-R")));
  EXPECT_TRUE(log_.contains(log::Level::kWarning, "uploadFileWithObjects... need to retry: 1"));
  EXPECT_TRUE(log_.contains(log::Level::kDebug,
                            "uploadFileWithObjects retrying [1 out of 3], Previously succeeded [2]"));
  EXPECT_THAT(log_.messages(log::Level::kWarning),
              Contains(StartsWith("[DROPBOX] uploadFileWithObjects BATCH UPLOAD Failed, WILL RETRY? "
                                  "(left: 2, successded uploads: 0) => Error Domain=Dropbox "
                                  "Code=500")));
  EXPECT_TRUE(env_.sleeps().empty());  // a plain failure goes again at once
}

TEST_F(BatchUpload, AnOverallFailureOnTheLastPassEndsWithFailedToUpload) {
  failNext("files/upload_session/finish_batch_v2", emu::FaultKind::kInternalError, 1);
  auto connection = newConnection();
  auto objects = records(3);
  auto outcome = uploadBatch(connection, objects, 1);
  EXPECT_TRUE(outcome.results.empty());
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->domain(), "Kavo");
  EXPECT_EQ(outcome.error->code(), 500);
  EXPECT_EQ(outcome.error->localizedDescription(), "Failed to upload");
  EXPECT_EQ(emulator_->requestCount("files/upload_session/finish_batch_v2"), 1u);
  EXPECT_TRUE(emulator_->listPaths().empty() ||
              std::none_of(emulator_->listPaths().begin(), emulator_->listPaths().end(),
                           [](const std::string& p) { return p.ends_with(".tod"); }));
  EXPECT_TRUE(log_.contains(log::Level::kWarning, "uploadFileWithObjects... need to retry: 3"));
  EXPECT_TRUE(log_.contains(log::Level::kWarning,
                            "uploadFileWithObjects, we still have data to upload that we could not "
                            "after several retries, marking as general failure to retry the full "
                            "batch"));
  EXPECT_THAT(log_.messages(log::Level::kError),
              Contains(StartsWith("uploadFileWithObjects done with ERROR (Error Domain=Kavo "
                                  "Code=500 \"Failed to upload\"")));
  EXPECT_THAT(log_.messages(log::Level::kError),
              Contains(HasSubstr("(0/3) [needToRetry: 1, can: 0]")));
  EXPECT_THAT(log_.messages(log::Level::kError),
              Contains(StartsWith("[DROPBOX] ERROR ----> Request error from calling "
                                  "`/upload_session/finish_batch/check`: ")));
}

TEST_F(BatchUpload, AFailedCommitEntryIsReported400WithItsTagAndEndsTheBatch) {
  failNext("files/upload_session/finish_batch/entry", emu::FaultKind::kTooManyWriteOperations, 1);
  auto connection = newConnection();
  auto objects = records(3);
  auto outcome = uploadBatch(connection, objects, 3);
  // No overall error, so a failure that cannot be retried stops the batch and the results after
  // it are not looked at (the first entry failed, so none counts as sent); the items left make it
  // a general failure.
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->domain(), "Kavo");
  EXPECT_EQ(outcome.error->localizedDescription(), "Failed to upload");
  EXPECT_THAT(outcome.results, SizeIs(0));
  EXPECT_TRUE(log_.contains(log::Level::kWarning, "uploadFileWithObjects... need to retry: 3"));
  EXPECT_EQ(emulator_->requestCount("files/upload_session/finish_batch_v2"), 1u);
  EXPECT_THAT(log_.messages(log::Level::kError),
              Contains(StartsWith("[DROPBOX] uploadFileWithObjects BATCH UPLOAD ERROR, Cannot "
                                  "retry: local-R")));
  EXPECT_THAT(log_.messages(log::Level::kError),
              Contains(AllOf(StartsWith("[DROPBOX] ERROR -----> File FAILED to upload from "),
                             HasSubstr("too_many_write_operations"), HasSubstr("network: (null)"))));
}

TEST_F(BatchUpload, WhileTheBatchGoesOnANonRetryableItemIsRetriedToo) {
  // One session refused (retryable, and an overall 500) and one commit entry refused (400):
  // since the batch goes again anyway, the 400 item goes with it.
  failNext("files/upload_session/start", emu::FaultKind::kInternalError, 1);
  failNext("files/upload_session/finish_batch/entry", emu::FaultKind::kTooManyWriteOperations, 1);
  auto connection = newConnection();
  auto objects = records(3);
  auto outcome = uploadBatch(connection, objects, 3);
  EXPECT_FALSE(outcome.error) << outcome.error->description();
  expectAllStored(outcome, objects);
  EXPECT_THAT(log_.messages(log::Level::kError),
              Contains(StartsWith("[DROPBOX] uploadFileWithObjects BATCH UPLOAD ERROR, will still "
                                  "retry: local-R")));
  EXPECT_TRUE(log_.contains(log::Level::kDebug,
                            "uploadFileWithObjects retrying [2 out of 3], Previously succeeded [1]"));
}

struct RateLimitCase {
  const char* name;
  const char* route;
  emu::FaultKind kind;
  uint64_t count;  // enough to outlast the client's own rate-limit retries
};

class BatchRateLimit : public BatchUpload, public testing::WithParamInterface<RateLimitCase> {};

TEST_P(BatchRateLimit, HonoursRetryAfterAndTheSharedCooldown) {
  constexpr uint32_t kRetryAfter = 7;
  failNext(GetParam().route, GetParam().kind, GetParam().count, kRetryAfter);
  env_.scriptRandom({400});
  auto connection = newConnection();
  auto objects = records(3);
  auto outcome = uploadBatch(connection, objects, 3);
  EXPECT_FALSE(outcome.error) << outcome.error->description();
  expectAllStored(outcome, objects);

  // Every request after a 429 came at least Retry-After later, the retry pass included.
  const auto seen = arrivals();
  double last429 = -1;
  size_t rateLimited = 0;
  for (const auto& arrival : seen) {
    if (arrival.rateLimited) {
      last429 = arrival.uptimeSeconds;
      ++rateLimited;
    } else if (last429 >= 0) {
      EXPECT_GE(arrival.uptimeSeconds - last429, kRetryAfter - 1e-9) << arrival.route;
      last429 = -1;
    }
  }
  EXPECT_EQ(rateLimited, GetParam().count);
  // The server's wait beats the schedule's 2.4 s and holds every Dropbox request of the process.
  EXPECT_TRUE(log_.contains(log::Level::kWarning,
                            "[DROPBOX] Rate limited, will retry batch upload in 7.0s [attempt 1]"));
  EXPECT_GE(largestCooldown_, kRetryAfter - 1e-9);
}

INSTANTIATE_TEST_SUITE_P(
    , BatchRateLimit,
    testing::Values(
        // The commit is refused past the client's own retries: an overall 429.
        RateLimitCase{"TooManyWriteOperationsOnTheCommit", "files/upload_session/finish_batch_v2",
                      emu::FaultKind::kTooManyWriteOperations, 5},
        // Every session is refused past the client's own retries: 429 per item.
        RateLimitCase{"TooManyRequestsOnTheSessions", "files/upload_session/start",
                      emu::FaultKind::kTooManyRequests, 15}),
    [](const testing::TestParamInfo<RateLimitCase>& param) { return param.param.name; });

TEST_F(BatchUpload, TheHostReadsBackWhatItUploadedThroughItsOwnDownload) {
  auto connection = newConnection();
  auto objects = records(5);
  auto outcome = uploadBatch(connection, objects, 3);
  ASSERT_FALSE(outcome.error) << outcome.error->description();
  ASSERT_THAT(outcome.results, SizeIs(5));
  for (const auto& result : outcome.results) {
    std::optional<Error> error;
    auto read = connection->getContentsForFile(result->fileContents->FileMetaData, "tod", &error);
    ASSERT_TRUE(read && read->FileContents) << (error ? error->description() : "no contents");
    EXPECT_EQ(*read->FileContents, *result->fileContents->FileContents);
  }
  // What both directions leave in the shared temporary directory (the batch's compressed scratch
  // files, the downloads' restored ones) is readable by this user only.
  int scratchFiles = 0;
  for (const auto& entry : std::filesystem::directory_iterator(env_.temporaryDirectory())) {
    if (!entry.path().filename().string().starts_with("o_")) continue;
    ++scratchFiles;
    EXPECT_EQ(entry.symlink_status().permissions() & std::filesystem::perms::all,
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write)
        << entry.path();
  }
  EXPECT_GE(scratchFiles, 5);
}

TEST_F(BatchUpload, TwoItemsWithOneStoredNameLeaveTheLastOnesPayloadWhole) {
  // Scratch files are prepared on several threads; items sharing a name share a scratch file and
  // must still go one after another, so the last one wins and nothing half-written goes up.
  auto objects = records(40);
  auto twin = record("R5");
  twin->FileContents->set("title", PlistValue("the later twin"));
  objects.push_back(twin);
  const std::string path = storedPath("tod", *twin);
  auto connection = newConnection();
  auto outcome = uploadBatch(connection, objects, 1);
  EXPECT_EQ(readBack(path), PlistValue(*twin->FileContents));
  // The first twin never hears back, so the batch reports what was left as a general failure.
  EXPECT_THAT(outcome.results, SizeIs(40));
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->domain(), "Kavo");
  EXPECT_TRUE(log_.contains(log::Level::kWarning, "uploadFileWithObjects... need to retry: 1"));
}

TEST_F(BatchUpload, MoreThanAThousandRecordsGoUpInTwoCommitsAndReadBackExactly) {
  auto connection = newConnection();
  auto objects = records(1005);
  auto outcome = uploadBatch(connection, objects, 3);
  EXPECT_FALSE(outcome.error) << outcome.error->description();
  expectAllStored(outcome, objects);
  EXPECT_EQ(emulator_->requestCount("files/upload_session/start"), 1005u);
  EXPECT_EQ(emulator_->requestCount("files/upload_session/finish_batch_v2"), 2u);
  EXPECT_EQ(emulator_->requestCount("files/upload"), 0u);
}

enum class Release { kWhilePassRuns, kWhileRetryWaits };

class BatchReleasedConnection : public BatchUpload, public testing::WithParamInterface<Release> {};

TEST_P(BatchReleasedConnection, EndsWithConnectionResetAndKeepsWhatAlreadyWentUp) {
  failNext("files/upload_session/finish_batch_v2", emu::FaultKind::kTooManyWriteOperations, 5, 4);
  auto connection = newConnection();
  // Two results an earlier pass already got: they must reach the completion whatever happens.
  const Results earlier = {WebDAVBatchUploadResult::initWithContents(record("E1"), std::nullopt),
                           WebDAVBatchUploadResult::initWithContents(record("E2"), std::nullopt)};
  const std::string retryWarning = "[DROPBOX] Rate limited, will retry batch upload in 4.0s [attempt 1]";
  auto outcome = runBatch(
      [&](WebDAVConnect::BatchUploadCompletion completion) {
        connection->uploadFileWithObjects(records(1), earlier, 3, std::string("tod"), answers_, 0,
                                          std::move(completion));
        if (GetParam() == Release::kWhilePassRuns) connection.reset();
      },
      [&] {
        // The warning is logged once the pass has decided to go again, right before the retry
        // is put on the timer: from here on only the weak hold remains.
        if (connection && log_.contains(log::Level::kWarning, retryWarning)) connection.reset();
      });
  EXPECT_FALSE(connection);
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->domain(), "KavoWebDAV");
  EXPECT_EQ(outcome.error->code(), 500);
  EXPECT_EQ(outcome.error->localizedDescription(),
            "Dropbox connection reset before upload could finish.");
  EXPECT_EQ(outcome.results, earlier);
  EXPECT_EQ(log_.contains(log::Level::kWarning, retryWarning),
            GetParam() == Release::kWhileRetryWaits);
  EXPECT_TRUE(log_.contains(
      log::Level::kWarning,
      "uploadFileWithObjects retry aborted because WebDAVConnect was deallocated mid-flight"));
  // No second pass was sent.
  EXPECT_EQ(emulator_->requestCount("files/upload_session/start"), 1u);
}

INSTANTIATE_TEST_SUITE_P(, BatchReleasedConnection,
                         testing::Values(Release::kWhilePassRuns, Release::kWhileRetryWaits),
                         [](const testing::TestParamInfo<Release>& param) {
                           return param.param == Release::kWhilePassRuns ? "WhilePassRuns"
                                                                        : "WhileRetryWaits";
                         });

}  // namespace
}  // namespace wdc::testing_support
