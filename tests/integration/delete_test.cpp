// Deletes against the emulator: single files, polled batches with the per-entry rules, failed
// and at-once jobs, deletes by search pattern, and the public operations' retries.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include "lock_fixture.h"
#include "support/test_util.h"

namespace wdc::testing_support {
namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;
using testing::StartsWith;

constexpr const char* kBatch = "files/delete_batch";
constexpr const char* kCheck = "files/delete_batch/check";
constexpr const char* kSearch = "files/search_v2";

class Deletes : public LockAndDeleteTest {
 protected:
  static std::shared_ptr<WebDAVFileMetaData> record(std::optional<std::string> filePath) {
    auto file = std::make_shared<WebDAVFileMetaData>();
    file->FilePath = std::move(filePath);
    return file;
  }
  std::shared_ptr<WebDAVConnect> connection_ = newConnection();
};

TEST_F(Deletes, ASingleDeleteIsTrueOnlyForAFileThatWasThere) {
  put("/Tasks/a.tod");
  put("/Tasks/b.tod");
  std::optional<Error> error;
  EXPECT_TRUE(connection_->deleteArbitraryFile("a.tod", "Tasks", &error));
  EXPECT_FALSE(exists("/Tasks/a.tod"));
  EXPECT_FALSE(connection_->deleteArbitraryFile("a.tod", "Tasks", &error));
  EXPECT_NO_WDC_ERROR(error);
  EXPECT_TRUE(connection_->deleteFileAtPathFromDropbox(record("B.TOD"), "/tasks", &error));
  EXPECT_FALSE(exists("/Tasks/b.tod"));
  EXPECT_NO_WDC_ERROR(error);
  EXPECT_TRUE(env_.sleeps().empty());
}

TEST_F(Deletes, ARecordWithoutAFileNameNeverDeletesItsFolder) {
  put("/Tasks/a.tod");
  EXPECT_FALSE(connection_->deleteFileAtPathFromDropbox(record(std::nullopt), "Tasks", nullptr));
  EXPECT_FALSE(
      connection_->deleteFilesAtPathFromDropbox({record(""), record(std::nullopt)}, "Tasks"));
  EXPECT_TRUE(exists("/Tasks/a.tod"));
}

TEST_F(Deletes, ABatchRemovesWhatItNamesAndIgnoresWhatIsAlreadyGone) {
  emulator_->setBatchCheckPolls(3);
  put("/Tasks/a.tod");
  put("/Tasks/b.tod");
  put("/Tasks/keep.tod");
  std::optional<Error> error;
  EXPECT_TRUE(connection_->deleteArbitraryFiles(
      {"Tasks/a.tod", "/Tasks/missing.tod", "/tasks/B.tod"}, &error));
  EXPECT_NO_WDC_ERROR(error);
  EXPECT_THAT(emulator_->listPaths(), ElementsAre("/Tasks", "/Tasks/keep.tod"));
  EXPECT_EQ(emulator_->requestCount(kBatch), 1u);
  // Polled back to back: three "in progress" answers, then complete, without a pause.
  EXPECT_EQ(emulator_->requestCount(kCheck), 4u);
  EXPECT_TRUE(env_.sleeps().empty());
}

TEST_F(Deletes, ABatchOfMissingFilesOrOfNothingCompletesWithoutError) {
  EXPECT_FALSE(connection_->deleteFilesAtPathsFromDropbox({"/gone/1", "/gone/2"}));
  EXPECT_FALSE(connection_->deleteFilesAtPathsFromDropbox({}));
  EXPECT_EQ(emulator_->requestCount(kBatch), 2u);
  EXPECT_EQ(emulator_->requestCount(kCheck), 4u);
}

TEST_F(Deletes, MoreThanAThousandPathsAreRefusedBeforeAnythingIsSent) {
  std::vector<std::string> paths(1001, "/x/a");
  auto failure = connection_->deleteFilesAtPathsFromDropbox(paths);
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->code(), 400);
  EXPECT_EQ(failure->localizedDescription(),
            "Cannot delete 1001 files in one batch (at most 1000)");
  EXPECT_EQ(emulator_->requestCount(kBatch), 0u);
  paths.pop_back();
  EXPECT_FALSE(connection_->deleteFilesAtPathsFromDropbox(paths));
}

TEST_F(Deletes, RecordsAreJoinedToTheFolderOrTakenBareWithoutOne) {
  put("/Tasks/a.tod");
  put("/b.tod");
  EXPECT_FALSE(connection_->deleteFilesAtPathFromDropbox({record("a.tod")}, "Tasks"));
  EXPECT_FALSE(connection_->deleteFilesAtPathFromDropbox({record("b.tod")}, std::nullopt));
  EXPECT_THAT(emulator_->listPaths(), ElementsAre("/Tasks"));
}

TEST_F(Deletes, TooManyFilesIs406AndStopsTheWalk) {
  put("/x/a");
  put("/x/b");
  // The rule as a host would write it for `wdc emulator --fault`.
  auto rule = emu::parseFaultRule("files/delete_batch/entry:toomanyfiles#1");
  ASSERT_TRUE(rule);
  emulator_->addFault(*rule);
  // The second entry fails too, with an error that would replace the first if the walk went on.
  failNext("files/delete_batch/entry", emu::FaultKind::kTooManyWriteOperations, 1);
  std::optional<Error> error;
  EXPECT_FALSE(connection_->deleteArbitraryFiles({"/x/a", "/x/b"}, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), "Dropbox");
  EXPECT_EQ(error->code(), 406);
  EXPECT_EQ(error->localizedDescription(), "too_many_files");
  EXPECT_EQ(emulator_->requestCount(kBatch), 1u);  // not retried
}

TEST_F(Deletes, TooManyWriteOperationsInAnEntryIs400) {
  put("/x/a");
  failNext("files/delete_batch/entry", emu::FaultKind::kTooManyWriteOperations, 1);
  auto failure = connection_->deleteFilesAtPathsFromDropbox({"/x/a"});
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->code(), 400);
  EXPECT_EQ(failure->localizedDescription(), "too_many_write_operations");
  EXPECT_TRUE(exists("/x/a"));
}

TEST_F(Deletes, AnUnexpectedLookupFailureIs400AndStopsTheWalk) {
  put("/x/a");
  // Entry rules other than 429w and toomanyfiles change nothing: this one only uses up the
  // first entry, so that the second fails with too_many_files.
  failNext("files/delete_batch/entry", emu::FaultKind::kInternalError, 1);
  failNext("files/delete_batch/entry", emu::FaultKind::kTooManyFiles, 1);
  // "x/." is no well-formed path: its entry fails with path_lookup/malformed_path.
  auto failure = connection_->deleteFilesAtPathsFromDropbox({"x/.", "/x/a"});
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->code(), 400);
  EXPECT_EQ(failure->localizedDescription(), "path_lookup/malformed_path");
}

TEST_F(Deletes, AFailedJobIs400AndDeletesNothing) {
  put("/x/a");
  failNext("files/delete_batch/job", emu::FaultKind::kTooManyWriteOperations, 1);
  log::CaptureLog log;
  auto failure = connection_->deleteFilesAtPathsFromDropbox({"/x/a"});
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->domain(), "Dropbox");
  EXPECT_EQ(failure->code(), 400);
  EXPECT_EQ(failure->localizedDescription(), "too_many_write_operations");
  EXPECT_TRUE(exists("/x/a"));
  EXPECT_THAT(log.messages(log::Level::kError),
              Contains(StartsWith("[DROPBOX] ERROR ----> Batch deletion failed: ")));
}

TEST_F(Deletes, ALaunchTheServerCompletesAtOnceIsReportedAsNotDeleted) {
  restartEmulatorWith({.deleteBatchCompletesAtOnce = true});
  put("/x/a");
  log::CaptureLog log;
  auto failure = connection_->deleteFilesAtPathsFromDropbox({"/x/a"});
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->code(), 400);
  EXPECT_EQ(failure->localizedDescription(), "Could not delete files in Dropbox");
  EXPECT_EQ(emulator_->requestCount(kCheck), 0u);
  EXPECT_THAT(log.messages(log::Level::kWarning),
              ElementsAre("[DROPBOX] Did NOT get async job id"));
}

TEST_F(Deletes, RateLimitsAndServerErrorsWhilePollingGoThroughTheRetry) {
  put("/x/a");
  failNext(kCheck, emu::FaultKind::kTooManyRequests, 1, 3);
  failNext(kCheck, emu::FaultKind::kUnavailable, 1);
  log::CaptureLog log;
  std::optional<Error> error;
  EXPECT_TRUE(connection_->deleteArbitraryFiles({"/x/a"}, &error));
  EXPECT_NO_WDC_ERROR(error);
  EXPECT_FALSE(exists("/x/a"));
  // Each failed poll relaunches the whole batch.
  EXPECT_EQ(emulator_->requestCount(kBatch), 3u);
  // The batch keeps no Retry-After: the schedule alone sets the wait.
  EXPECT_THAT(sleptSeconds(), ElementsAre(2.0, 0.5));
  EXPECT_THAT(log.messages(log::Level::kWarning),
              ElementsAre("[DROPBOX] Rate limited, will retry deleteFiles in 2.0s [attempt 1]"));
  EXPECT_THAT(log.messages(log::Level::kError),
              Contains(StartsWith("[DROPBOX] Batch Delete ERROR: Error Domain=Dropbox Code=503")));
  EXPECT_THAT(log.messages(log::Level::kDebug),
              Contains(StartsWith("[DROPBOX] ERROR, WILL RETRY deleteFile: ")));
}

TEST_F(Deletes, AFailedLaunchIsReportedAsNotDeletedAndNotRetried) {
  // Whatever stopped the launch, the batch reports that it could not delete: a throttled or
  // failed launch is not retried in place (the host tries again with its next sync).
  failNext(kBatch, emu::FaultKind::kTooManyRequests, 1, 3);
  log::CaptureLog log;
  std::optional<Error> error;
  EXPECT_FALSE(connection_->deleteArbitraryFiles({"/x/a"}, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), 400);
  EXPECT_EQ(error->localizedDescription(), "Could not delete files in Dropbox");
  EXPECT_EQ(emulator_->requestCount(kBatch), 1u);
  EXPECT_TRUE(env_.sleeps().empty());
  EXPECT_THAT(log.messages(log::Level::kError),
              Contains(StartsWith("[DROPBOX] Got batch delete request error: Error Domain=Dropbox "
                                  "Code=429")));
}

TEST_F(Deletes, WithoutAnErrorOutParameterABatchGetsOneAttempt) {
  failNext(kCheck, emu::FaultKind::kInternalError, 1);  // retryable with an out-parameter
  EXPECT_FALSE(connection_->deleteArbitraryFiles({"/x/a"}));
  EXPECT_EQ(emulator_->requestCount(kBatch), 1u);
  EXPECT_TRUE(env_.sleeps().empty());
}

TEST_F(Deletes, ATransportFailureWhilePollingKeepsItsDomainWithCodeZero) {
  failNext(kCheck, emu::FaultKind::kTruncate, 1);
  auto failure = connection_->deleteFilesAtPathsFromDropbox({"/x/a"});
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->domain(), kURLErrorDomain);
  EXPECT_EQ(failure->code(), 0);
  EXPECT_TRUE(failure->userInfo().find(kErrorContentKey));
}

TEST_F(Deletes, ARootPatternDeleteRemovesEveryMatchAtAnyDepthAndNothingSearchDidNotList) {
  for (const std::optional<std::string>& root :
       {std::optional<std::string>(), std::optional<std::string>("")}) {
    SCOPED_TRACE(root ? "empty folder" : "no folder");
    put("/o_0.tod");
    put("/Tasks/o_1.tod");
    put("/Tasks/Sub/o_2.tod");
    put("/Tasks/keep.txt");
    put("/Other/o_3.cal");
    std::optional<Error> error;
    EXPECT_TRUE(connection_->deleteFilesThatMatch("tod", root, &error));
    EXPECT_NO_WDC_ERROR(error);
    EXPECT_THAT(emulator_->listPaths(),
                ElementsAre("/Other", "/Other/o_3.cal", "/Tasks", "/Tasks/keep.txt", "/Tasks/Sub"));
  }
}

TEST_F(Deletes, ARootPatternDeleteLeavesWhatLiesPastTheSearchLimit) {
  // Search lists at most 100 matches, by lower-cased path; the 101st is not deleted.
  for (int i = 0; i <= 100; ++i) put(fmt::format("/Tasks/o_{:03}.tod", i));
  std::optional<Error> error;
  EXPECT_TRUE(connection_->deleteFilesThatMatch("tod", std::nullopt, &error));
  EXPECT_NO_WDC_ERROR(error);
  EXPECT_THAT(emulator_->listPaths(), ElementsAre("/Tasks", "/Tasks/o_100.tod"));
}

TEST_F(Deletes, ANamedFolderPatternDeleteJoinsTheWholePathsUnderTheFolderAgain) {
  put("/Tasks/o_1.tod");
  put("/Tasks/Sub/o_2.tod");
  std::optional<Error> error;
  // "/tasks/o_1.tod" becomes "/Tasks/tasks/o_1.tod", which is not there: nothing goes, and that
  // is no failure.
  EXPECT_TRUE(connection_->deleteFilesThatMatch("tod", "Tasks", &error));
  EXPECT_NO_WDC_ERROR(error);
  EXPECT_TRUE(exists("/Tasks/o_1.tod"));
  EXPECT_TRUE(exists("/Tasks/Sub/o_2.tod"));
  EXPECT_EQ(emulator_->requestCount(kBatch), 1u);

  // Where the joined path does name a file, that file is what goes, not the match.
  put("/Tasks/tasks/o_1.tod");
  EXPECT_TRUE(connection_->deleteFilesThatMatchInDropbox("Tasks", "tod", &error));
  EXPECT_NO_WDC_ERROR(error);
  EXPECT_TRUE(exists("/Tasks/o_1.tod"));
  EXPECT_TRUE(exists("/Tasks/Sub/o_2.tod"));
  EXPECT_FALSE(exists("/Tasks/tasks/o_1.tod"));
}

TEST_F(Deletes, APatternDeleteWhoseSearchFailsDeletesNothing) {
  put("/Tasks/o_1.tod");
  failNext(kSearch, emu::FaultKind::kInternalError, 1);
  std::optional<Error> error;
  EXPECT_FALSE(connection_->deleteFilesThatMatchInDropbox(std::nullopt, "tod", &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), 500);
  EXPECT_EQ(emulator_->requestCount(kBatch), 0u);
  EXPECT_TRUE(exists("/Tasks/o_1.tod"));
}

TEST_F(Deletes, APatternDeleteRetriesAFailedSearch) {
  put("/Tasks/o_1.tod");
  failNext(kSearch, emu::FaultKind::kInternalError, 1);
  log::CaptureLog log;
  std::optional<Error> error;
  EXPECT_TRUE(connection_->deleteFilesThatMatch("tod", std::nullopt, &error));
  EXPECT_NO_WDC_ERROR(error);
  EXPECT_FALSE(exists("/Tasks/o_1.tod"));
  EXPECT_EQ(emulator_->requestCount(kSearch), 2u);
  EXPECT_THAT(sleptSeconds(), ElementsAre(0.5));
  EXPECT_THAT(log.messages(log::Level::kDebug),
              Contains(StartsWith("[DROPBOX] ERROR, WILL RETRY deleteFilesMatching: ")));
}

TEST_F(Deletes, APatternDeleteWhoseBatchFailsIsFalseAfterOneAttemptWithoutAnError) {
  struct Case {
    const char* route;
    emu::FaultKind kind;
    const char* name;
  };
  for (const Case& c : {Case{kCheck, emu::FaultKind::kInternalError, "500 while polling"},
                        Case{kCheck, emu::FaultKind::kTooManyRequests, "429 while polling"},
                        Case{kBatch, emu::FaultKind::kUnavailable, "503 at launch"},
                        Case{kBatch, emu::FaultKind::kTooManyRequests, "429 at launch"}}) {
    SCOPED_TRACE(c.name);
    emulator_->resetRequestCounts();
    put("/Tasks/o_1.tod");
    failNext(c.route, c.kind, 1, 1);
    log::CaptureLog log;
    std::optional<Error> error;
    // The failure is left on the connection, not handed to the caller: no retry, nothing to read.
    EXPECT_FALSE(connection_->deleteFilesThatMatch("tod", std::nullopt, &error));
    EXPECT_NO_WDC_ERROR(error);
    EXPECT_EQ(emulator_->requestCount(kSearch), 1u);
    EXPECT_EQ(emulator_->requestCount(kBatch), 1u);
    EXPECT_TRUE(env_.sleeps().empty());
    EXPECT_THAT(log.messages(log::Level::kError),
                Contains(StartsWith("[DROPBOX] ERROR ----> Batch deletion failed: ")));
    EXPECT_THAT(log.messages(log::Level::kError),
                Not(Contains(StartsWith("[DROPBOX] delete files ERROR: "))));
    emulator_->clearFaults();
  }
}

}  // namespace
}  // namespace wdc::testing_support
