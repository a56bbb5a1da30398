// Per-file downloads end to end: the blocking and asynchronous record downloads, attachments,
// decoding of what arrives, and the retry policies around them.
#include <gmock/gmock.h>

#include <thread>

#include "download_fixture.h"
#include "support/test_util.h"
#include "webdavconnect/data_codecs.h"
#include "webdavconnect/keyed_archive.h"

namespace wdc::testing_support {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::Each;
using testing::HasSubstr;
using testing::SizeIs;
using testing::StartsWith;

constexpr const char* kFileRoute = "files/download";

auto Near(double seconds) { return testing::DoubleNear(seconds, 1e-6); }

class Download : public DownloadTest {};

TEST_F(Download, ARecordArrivesDecodedWithItsOwnMetadataObject) {
  putRecord("tod", recordName(1), "buy milk");
  auto connection = newConnection();
  auto file = meta(recordName(1));
  std::optional<Error> error;
  auto contents = connection->getContentsForFile(file, "tod", &error);
  ASSERT_TRUE(contents);
  EXPECT_EQ(contents->FileMetaData, file);
  EXPECT_EQ(titleOf(contents), "buy milk");
  EXPECT_FALSE(error);
  EXPECT_EQ(emulator_->requestCount(kFileRoute), 1u);
  EXPECT_TRUE(env_.sleeps().empty());
  const std::string scratch = (env_.temporaryDirectory() / recordName(1)).string();
  EXPECT_TRUE(log_.contains(log::Level::kDebug, "[DROPBOX] getContentsForDropboxFile: " + scratch +
                                                     ".gz (remote: /tod/" + recordName(1) + ")"));
  // The restored scratch file stays; the compressed one is gone.
  EXPECT_TRUE(std::filesystem::exists(scratch));
  EXPECT_FALSE(std::filesystem::exists(scratch + ".gz"));
}

TEST_F(Download, PayloadsThatAreNotGzipOrNotArchivesOrHaveNoData) {
  PlistDictionary top;
  top.set("data", PlistValue(payloadOf("bare")));
  const Bytes bare = archiveTopLevelObjects(top, true);
  ASSERT_TRUE(emulator_->putFile("/tod/bare.tod", std::string(bare.begin(), bare.end())));
  PlistDictionary noData;
  noData.set("other", PlistValue("x"));
  const Bytes empty = *gzipDeflate(archiveTopLevelObjects(noData, true));
  ASSERT_TRUE(emulator_->putFile("/tod/nodata.tod", std::string(empty.begin(), empty.end())));
  const Bytes garbage = *gzipDeflate(Bytes{'n', 'o', 'p', 'e'});
  ASSERT_TRUE(emulator_->putFile("/tod/garbage.tod", std::string(garbage.begin(), garbage.end())));
  ASSERT_TRUE(emulator_->putFile("/tod/text.tod", "just text"));
  auto connection = newConnection();

  // An archive stored without compression is read as it is.
  EXPECT_EQ(titleOf(connection->getContentsForFile(meta("bare.tod"), "tod", nullptr)), "bare");
  // An archive without "data": contents without a payload, and a log line, not an error.
  std::optional<Error> error;
  auto contents = connection->getContentsForFile(meta("nodata.tod"), "tod", &error);
  ASSERT_TRUE(contents);
  EXPECT_FALSE(contents->FileContents);
  EXPECT_FALSE(error);
  EXPECT_TRUE(log_.contains(log::Level::kError, "[DROPBOX] CONTENTS ARE NIL"));
  // Not an archive, compressed or not: "KavoWebDAV" 1800, not retried.
  for (const char* name : {"garbage.tod", "text.tod"}) {
    SCOPED_TRACE(name);
    emulator_->resetRequestCounts();
    error.reset();
    EXPECT_FALSE(connection->getContentsForFile(meta(name), "tod", &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), "KavoWebDAV");
    EXPECT_EQ(error->code(), 1800);
    EXPECT_FALSE(error->localizedDescription().empty());
    EXPECT_EQ(emulator_->requestCount(kFileRoute), 1u);
  }
  EXPECT_THAT(log_.messages(log::Level::kError),
              Contains(StartsWith("[DROPBOX] GET ERROR: Error Domain=KavoWebDAV Code=1800")).Times(2));
  // The attachment decoder on a file that is not there.
  error.reset();
  EXPECT_FALSE(connection->decodedDropboxArbitraryDataAtLocalPath(
      (env_.temporaryDirectory() / "missing").string(), &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), "Dropbox Sync");
  EXPECT_EQ(error->code(), 100);
}

TEST_F(Download, AMissingRecordIsADropbox404WithTheLookupError) {
  auto connection = newConnection();
  std::optional<Error> error;
  EXPECT_FALSE(connection->getContentsForFile(meta("absent.tod"), "tod", &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), "Dropbox");
  EXPECT_EQ(error->code(), 404);
  EXPECT_EQ(*error->userInfo().find("errorContent"), PlistValue("not_found"));
  EXPECT_EQ(emulator_->requestCount(kFileRoute), 1u);

  emulator_->createFolder("/tod/folder.tod");
  Waiter waiter;
  connection->getContentsForFile(meta("folder.tod"), "tod", 5, waiter.completion());
  auto outcome = waiter.get();
  ASSERT_TRUE(outcome);
  EXPECT_FALSE(outcome->contents);
  ASSERT_TRUE(outcome->error);
  EXPECT_EQ(outcome->error->code(), 404);
  EXPECT_EQ(*outcome->error->userInfo().find("errorContent"), PlistValue("not_file"));
  EXPECT_TRUE(log_.contains(log::Level::kError,
                            "[DROPBOX] Cannot retry error, failing getContentsForFile: " +
                                outcome->error->description()));
  EXPECT_EQ(freeDownloadSlots(), 4);
}

TEST_F(Download, TheBlockingDownloadRetriesServerErrorsAndNumbersItsRetries) {
  putRecord("tod", recordName(2), "two");
  failNext(kFileRoute, emu::FaultKind::kInternalError, 2);
  auto connection = newConnection();
  std::optional<Error> error;
  EXPECT_EQ(titleOf(connection->getContentsForFile(meta(recordName(2)), "tod", &error)), "two");
  EXPECT_FALSE(error);
  EXPECT_EQ(emulator_->requestCount(kFileRoute), 3u);
  EXPECT_THAT(sleptSeconds(), ElementsAre(0.5, 0.5));
  EXPECT_THAT(log_.messages(log::Level::kDebug),
              Contains(StartsWith("[DROPBOX] ERROR, WILL RETRY [1] getContents: Error Domain=Dropbox Code=500")));
  EXPECT_THAT(log_.messages(log::Level::kDebug),
              Contains(StartsWith("[DROPBOX] ERROR, WILL RETRY [2] getContents: ")));
  EXPECT_THAT(log_.messages(log::Level::kError),
              Contains(StartsWith("[DROPBOX] GET ERROR: Error Domain=Dropbox Code=500")).Times(2));
}

TEST_F(Download, TheBlockingDownloadBacksOffOnRateLimits) {
  putRecord("tod", recordName(3), "three");
  failNext(kFileRoute, emu::FaultKind::kTooManyRequests, 1, 5);
  auto connection = newConnection();
  std::optional<Error> error;
  EXPECT_EQ(titleOf(connection->getContentsForFile(meta(recordName(3)), "tod", &error)), "three");
  EXPECT_TRUE(log_.contains(log::Level::kWarning,
                            "[DROPBOX] Rate limited, will retry getContents in 5.0s [attempt 1]"));
  // The retry first waits out the shared cooldown the 429 opened, then sleeps its own delay.
  EXPECT_EQ(emulator_->requestCount(kFileRoute), 2u);
  EXPECT_THAT(sleptSeconds(), Contains(Near(5.0)));
}

// The download lands in a scratch file beside the ".gz" name before it is renamed over it; links
// planted at those names in the shared temporary directory are replaced, never written through.
TEST_F(Download, LinksPlantedAtTheScratchNamesAreNotFollowed) {
  putRecord("tod", recordName(1), "buy milk");
  const auto scratch = env_.temporaryDirectory() / recordName(1);
  const auto victim = env_.temporaryDirectory() / "victim";
  test::writeFileBytes(victim, test::bytesOf("precious"));
  for (int i = 0; i < 32; ++i) {
    std::filesystem::create_symlink(victim, scratch.string() + ".gz.part-" + std::to_string(i));
  }
  auto connection = newConnection();
  EXPECT_EQ(titleOf(connection->getContentsForFile(meta(recordName(1)), "tod", nullptr)),
            "buy milk");
  EXPECT_EQ(test::textOf(test::readFileBytes(victim)), "precious");
  EXPECT_FALSE(std::filesystem::is_symlink(scratch));
  EXPECT_EQ(std::filesystem::status(scratch).permissions() & std::filesystem::perms::all,
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

TEST_F(Download, CasesOfScratchNamesDifferBetweenTheTwoForms) {
  const std::string name = "O_A_K_C_p_P_i_X_d_D.tod";
  putRecord("tod", name, "mixed");
  auto connection = newConnection();
  EXPECT_EQ(titleOf(connection->getContentsForFile(meta(name), "tod", nullptr)), "mixed");
  EXPECT_TRUE(std::filesystem::exists(env_.temporaryDirectory() / name));
  Waiter waiter;
  connection->getContentsForFile(meta(name), "tod", 1, waiter.completion());
  auto outcome = waiter.get();
  ASSERT_TRUE(outcome);
  EXPECT_EQ(titleOf(outcome->contents), "mixed");
  EXPECT_TRUE(std::filesystem::exists(env_.temporaryDirectory() / "o_a_k_c_p_p_i_x_d_d.tod"));
}

TEST_F(Download, AnAsynchronousRateLimitRetriesAfterTheDelayAndSharesTheCooldown) {
  putRecord("tod", recordName(4), "four");
  failNext(kFileRoute, emu::FaultKind::kTooManyRequests, 1, 3);
  env_.scriptRandom({250});
  std::vector<std::chrono::nanoseconds> arrivals;
  auto connection = newConnection();
  Waiter waiter;
  connection->getContentsForFile(meta(recordName(4)), "tod", 3, waiter.completion());
  // The answer schedules the retry on the retry queue, in virtual time.
  for (int i = 0; i < 500 && env_.scheduledCount() == 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  ASSERT_EQ(env_.scheduledCount(), 1u);
  EXPECT_EQ(emulator_->requestCount(kFileRoute), 1u);
  // Schedule 2.25 s, server 3 s: the server wins, and every other download waits for it too.
  EXPECT_TRUE(log_.contains(log::Level::kWarning,
                            "[DROPBOX] Rate limited, will retry getContentsForFile in 3.0s [attempt 1]"));
  EXPECT_DOUBLE_EQ(WebDAVConnect::dropboxCooldownRemainingSeconds(), 3.0);
  auto outcome = driveUntilDone(waiter);
  ASSERT_TRUE(outcome);
  EXPECT_EQ(titleOf(outcome->contents), "four");
  EXPECT_FALSE(outcome->error);
  EXPECT_EQ(emulator_->requestCount(kFileRoute), 2u);
  EXPECT_EQ(WebDAVConnect::dropboxCooldownRemainingSeconds(), 0.0);
  EXPECT_EQ(freeDownloadSlots(), 4);
}

TEST_F(Download, RateLimitAttemptsCarryAcrossPasses) {
  putRecord("tod", recordName(5), "five");
  failNext(kFileRoute, emu::FaultKind::kTooManyRequests, 2, std::nullopt,
           emu::RetryAfterPlacement::kNone);
  auto connection = newConnection();
  Waiter waiter;
  // Five attempts used already: one more 429 is allowed, the second is final.
  connection->getContentsForFile(meta(recordName(5)), "tod", 9, 5, waiter.completion());
  auto outcome = driveUntilDone(waiter);
  ASSERT_TRUE(outcome);
  ASSERT_TRUE(outcome->error);
  EXPECT_EQ(outcome->error->code(), 429);
  EXPECT_EQ(emulator_->requestCount(kFileRoute), 2u);
  EXPECT_THAT(log_.messages(log::Level::kWarning),
              Contains(AllOf(StartsWith("[DROPBOX] Rate limited, will retry getContentsForFile in "),
                             HasSubstr("[attempt 6]"))));
  EXPECT_THAT(log_.messages(log::Level::kError),
              Contains(StartsWith("[DROPBOX] Cannot retry error, failing getContentsForFile: ")));
  EXPECT_EQ(freeDownloadSlots(), 4);
}

TEST_F(Download, AsynchronousRetriesCountDownTheirLimit) {
  putRecord("tod", recordName(6), "six");
  failNext(kFileRoute, emu::FaultKind::kUnavailable, 5);
  auto connection = newConnection();
  Waiter waiter;
  connection->getContentsForFile(meta(recordName(6)), "tod", 3, waiter.completion());
  auto outcome = driveUntilDone(waiter);
  ASSERT_TRUE(outcome);
  ASSERT_TRUE(outcome->error);
  EXPECT_EQ(outcome->error->code(), 503);
  EXPECT_EQ(emulator_->requestCount(kFileRoute), 3u);
  EXPECT_THAT(log_.messages(log::Level::kError),
              Contains(StartsWith("[DROPBOX] ERROR, WILL RETRY [2] getContentsForFile: ")));
  EXPECT_THAT(log_.messages(log::Level::kError),
              Contains(StartsWith("[DROPBOX] ERROR, WILL RETRY [1] getContentsForFile: ")));
  EXPECT_THAT(log_.messages(log::Level::kError),
              Contains(StartsWith("[DROPBOX] Download request ERROR: Error Domain=Dropbox Code=503"))
                  .Times(3));
  EXPECT_EQ(freeDownloadSlots(), 4);
}

TEST_F(Download, ARetryAfterTheConnectionWasReleasedCompletesWithTheFailedAttemptsError) {
  putRecord("tod", recordName(7), "seven");
  failNext(kFileRoute, emu::FaultKind::kInternalError, 1);
  // Hold the retry queue so that the retry (due at once after a 500) is still pending when the
  // host lets the connection go.
  std::promise<void> release;
  std::promise<void> holding;
  WebDAVConnect::dropboxRetryQueue().addOperation([&] {
    holding.set_value();
    release.get_future().wait();
  });
  holding.get_future().wait();
  auto connection = newConnection();
  Waiter waiter;
  connection->getContentsForFile(meta(recordName(7)), "tod", 3, waiter.completion());
  auto retryLogged = [&] {
    for (const auto& message : log_.messages(log::Level::kError)) {
      if (message.rfind("[DROPBOX] ERROR, WILL RETRY [2] getContentsForFile: ", 0) == 0) return true;
    }
    return false;
  };
  for (int i = 0; i < 1000 && !retryLogged(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  ASSERT_TRUE(retryLogged());
  connection.reset();  // the pending retry holds it only weakly
  release.set_value();
  auto outcome = driveUntilDone(waiter);
  ASSERT_TRUE(outcome);
  EXPECT_FALSE(outcome->contents);
  ASSERT_TRUE(outcome->error);
  EXPECT_EQ(outcome->error->domain(), "Dropbox");
  EXPECT_EQ(outcome->error->code(), 500);
  EXPECT_EQ(emulator_->requestCount(kFileRoute), 1u);
  EXPECT_TRUE(log_.contains(
      log::Level::kWarning,
      "getContentsForFile retry aborted because WebDAVConnect was deallocated mid-flight"));
  EXPECT_EQ(freeDownloadSlots(), 4);
}

TEST_F(Download, CutShortOrDamagedDownloadsAreRetriedAndLeaveNoSlotBehind) {
  putRecord("tod", recordName(8), "eight");
  failNext(kFileRoute, emu::FaultKind::kTruncate, 1);
  failNext(kFileRoute, emu::FaultKind::kDrop, 1);
  failNext(kFileRoute, emu::FaultKind::kCorrupt, 1);
  auto connection = newConnection();
  std::optional<Error> error;
  EXPECT_EQ(titleOf(connection->getContentsForFile(meta(recordName(8)), "tod", &error)), "eight");
  EXPECT_EQ(emulator_->requestCount(kFileRoute), 4u);
  EXPECT_THAT(sleptSeconds(), ElementsAre(0.5, 0.5, 0.5));
  EXPECT_THAT(log_.messages(log::Level::kError),
              Contains(HasSubstr("content hash mismatch")));
  // A damaged body that arrives asynchronously is retried too; one that cannot be retried
  // reaches the completion as the lost connection it is.
  failNext(kFileRoute, emu::FaultKind::kCorrupt, 1);
  Waiter retried;
  connection->getContentsForFile(meta(recordName(8)), "tod", 2, retried.completion());
  auto second = driveUntilDone(retried);
  ASSERT_TRUE(second);
  EXPECT_EQ(titleOf(second->contents), "eight");
  failNext(kFileRoute, emu::FaultKind::kCorrupt, 1);
  Waiter waiter;
  connection->getContentsForFile(meta(recordName(8)), "tod", 1, waiter.completion());
  auto outcome = driveUntilDone(waiter);
  ASSERT_TRUE(outcome);
  ASSERT_TRUE(outcome->error);
  EXPECT_EQ(outcome->error->code(), -1005);
  EXPECT_EQ(freeDownloadSlots(), 4);
}

TEST_F(Download, AttachmentsComeBackAsTheStoredObject) {
  const Bytes stored = *encodeStoredPayload(PlistValue(Bytes{1, 2, 3}));
  ASSERT_TRUE(emulator_->putFile("/att/photo.jpg", std::string(stored.begin(), stored.end())));
  failNext(kFileRoute, emu::FaultKind::kInternalError, 1);
  auto connection = newConnection();
  std::optional<Error> error;
  auto data = connection->downloadArbitraryFile("photo.jpg", "att", &error);
  ASSERT_TRUE(data);
  EXPECT_EQ(*data, PlistValue(Bytes{1, 2, 3}));
  EXPECT_FALSE(error);
  EXPECT_TRUE(log_.contains(log::Level::kDebug,
                            "[DROPBOX] downloadArbitraryFileFromDropbox: photo.jpg"));
  EXPECT_THAT(log_.messages(log::Level::kDebug),
              Contains(StartsWith("[DROPBOX] ERROR, WILL RETRY downloadFile: ")));

  // A missing attachment: the route error is not looked at, so the absent scratch file fails to
  // decode, as "Dropbox Sync" 100, and is not retried.
  emulator_->resetRequestCounts();
  EXPECT_FALSE(connection->downloadArbitraryFile("gone.jpg", "att", &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), "Dropbox Sync");
  EXPECT_EQ(error->code(), 100);
  EXPECT_EQ(emulator_->requestCount(kFileRoute), 1u);
  EXPECT_THAT(log_.messages(log::Level::kError),
              Contains(StartsWith("[DROPBOX] ERROR, could not download: gone.jpg, from Folder: "
                                  "att, Error: Error Domain=Dropbox Sync Code=100")));
}

}  // namespace
}  // namespace wdc::testing_support
