// The delta listing when the server misbehaves: cursor resets, rate limits and server errors in
// the middle of a listing, an entry without a date, and a failure left on the connection.
#include <fmt/format.h>

#include "dbx/clients_manager.h"
#include "delta_listing_test.h"

namespace wdc::testing_support {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

auto Near(double seconds) { return testing::DoubleNear(seconds, 1e-6); }

TEST_F(DeltaListing, AResetCursorStartsOverFromScratchOnce) {
  putRecords("tod", "tod", 3);
  ASSERT_TRUE(fetch("tod", "tod"));
  const auto cursor = connection_->dropboxDeltaCursor;
  ASSERT_TRUE(emulator_->removePath("/tod/" + recordName("u0000", "tod")));
  put("/tod/" + recordName("new", "tod"));
  emulator_->resetRequestCounts();
  failNext(kContinue, emu::FaultKind::kReset, 1);

  auto records = fetch("tod", "tod", cursor);
  ASSERT_TRUE(records) << error_->description();
  // The whole folder as it is now. The restart does not ask for deletions, so the record
  // removed since the cursor is not reported.
  EXPECT_THAT(namesOf(records), ElementsAre(recordName("new", "tod"), recordName("u0001", "tod"),
                                            recordName("u0002", "tod")));
  EXPECT_FALSE(connection_->shouldResetLocalData);
  EXPECT_EQ(emulator_->requestCount(kContinue), 1u);
  EXPECT_EQ(emulator_->requestCount(kList), 1u);
  EXPECT_TRUE(log_.contains(log::Level::kDebug,
                            "[DROPBOX] Delta - No Folder Result obtained, error? reset, (null)"));
  EXPECT_FALSE(error_);
}

TEST_F(DeltaListing, ASecondResetInOneFetchIsLeftForTheHost) {
  putRecords("tod", "tod", 1200);
  ASSERT_TRUE(fetch("tod", "tod"));
  const auto cursor = connection_->dropboxDeltaCursor;
  emulator_->resetRequestCounts();
  // The cursor is reset; the restart's first page has more, and its cursor is reset too.
  failNext(kContinue, emu::FaultKind::kReset, 2);

  auto records = fetch("tod", "tod", cursor);
  ASSERT_TRUE(records) << error_->description();
  EXPECT_TRUE(connection_->shouldResetLocalData);
  // The listing still ends with everything: after the second reset it goes on from the page
  // cursor it had.
  EXPECT_THAT(*records, SizeIs(1200));
  EXPECT_EQ(emulator_->requestCount(kList), 1u);
  EXPECT_EQ(emulator_->requestCount(kContinue), 3u);

  // The next fetch starts clean.
  ASSERT_TRUE(fetch("tod", "tod", connection_->dropboxDeltaCursor));
  EXPECT_FALSE(connection_->shouldResetLocalData);
}

TEST_F(DeltaListing, AFileWithoutClientModifiedDateFailsTheWholeCall) {
  putRecords("tod", "tod", 3);
  putRecords("col", "col", 2);
  emulator_->omitClientModifiedInListings("/tod/" + recordName("u0001", "tod"));

  auto records = fetch("tod", "tod");
  EXPECT_FALSE(records);
  ASSERT_TRUE(error_);
  EXPECT_EQ(error_->domain(), "Dropbox Sync");
  EXPECT_EQ(error_->code(), 100);
  EXPECT_EQ(error_->localizedDescription(),
            "File's modification data could not be obtained when listing directory");
  // Not worth retrying: one attempt.
  EXPECT_EQ(emulator_->requestCount(kList), 1u);
  EXPECT_THAT(log_.messages(log::Level::kError),
              ElementsAre(StartsWith("[DROPBOX] GET ERROR: Error Domain=Dropbox Sync Code=100")));

  // Only records of the folder asked for are dated, so another folder still lists.
  auto other = cached("col", "col");
  ASSERT_TRUE(other);
  EXPECT_THAT(*other, SizeIs(2));
}

TEST_F(DeltaListing, RateLimitsAndServerErrorsMidListingRetryFromTheCallersCursor) {
  putRecords("tod", "tod", 2500);
  env_.scriptRandom({0});
  failNext(kContinue, emu::FaultKind::kTooManyRequests, 1, 3);
  failNext(kContinue, emu::FaultKind::kUnavailable, 1);

  auto records = fetch("tod", "tod");
  ASSERT_TRUE(records) << error_->description();
  EXPECT_FALSE(error_);
  // Each attempt rebuilds the cache, so nothing is listed twice.
  ASSERT_THAT(*records, SizeIs(2500));
  EXPECT_EQ(*records->back()->FilePath, recordName("u2499", "tod"));
  EXPECT_EQ(emulator_->requestCount(kList), 3u);
  EXPECT_EQ(emulator_->requestCount(kContinue), 4u);
  // The server's 3 s beats the schedule's 2 s; a 503 waits half a second.
  EXPECT_THAT(sleptSeconds(), ElementsAre(Near(3.0), Near(0.5)));
  EXPECT_THAT(log_.messages(log::Level::kWarning),
              ElementsAre("[DROPBOX] Rate limited, will retry getDelta in 3.0s [attempt 1]"));
  EXPECT_THAT(log_.messages(log::Level::kDebug),
              Contains(StartsWith("[DROPBOX] ERROR, WILL RETRY getDelta: Error Domain=Dropbox "
                                  "Code=503")));
  EXPECT_THAT(log_.messages(log::Level::kError),
              Contains(StartsWith("[DROPBOX] GET ERROR: ")).Times(2));
}

TEST_F(DeltaListing, TenServerErrorsGiveUpWithTheLastError) {
  failNext(kList, emu::FaultKind::kInternalError, 10);
  EXPECT_FALSE(fetch("tod", "tod"));
  ASSERT_TRUE(error_);
  EXPECT_EQ(error_->code(), 500);
  EXPECT_EQ(emulator_->requestCount(kList), 10u);
  EXPECT_THAT(sleptSeconds(), SizeIs(9));
}

TEST_F(DeltaListing, AFailedPageKeepsWhatCameBeforeAndItsFailureForTheNextCall) {
  putRecords("tod", "tod", 1500);
  failNext(kContinue, emu::FaultKind::kInternalError, 1);
  std::optional<Error> error;
  EXPECT_FALSE(connection_->getDeltaFileListFromDropbox(&error, "tod", std::nullopt, "tod", false));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), 500);

  // Straight to the backend, a cache-only call reports what the last request left...
  std::optional<Error> again;
  EXPECT_FALSE(
      connection_->getDeltaFileListFromDropbox(&again, "tod", std::nullopt, std::nullopt, true));
  EXPECT_EQ(again, error);
  // ...unless it ends early: the failed fetch recorded no extension, so one asked for is absent.
  auto byExtension =
      connection_->getDeltaFileListFromDropbox(&again, "tod", std::nullopt, "tod", true);
  ASSERT_TRUE(byExtension);
  EXPECT_THAT(*byExtension, IsEmpty());

  // The public operation forgets the failure first and answers from the first page.
  auto records = cached("tod", std::nullopt);
  ASSERT_TRUE(records);
  EXPECT_THAT(*records, SizeIs(999));  // the page's first entry is the folder itself
  EXPECT_EQ(emulator_->requestCount(kList), 1u);
  EXPECT_EQ(emulator_->requestCount(kContinue), 1u);
}

TEST_F(DeltaListing, WithoutALinkedAccountTheFetchFailsAtOnce) {
  dbx::DBClientsManager::unlinkAndResetClients();
  std::optional<Error> error;
  EXPECT_FALSE(connection_->getDeltaFileListFromDropbox(&error, "tod", std::nullopt, "tod", false));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), 401);
  EXPECT_EQ(emulator_->requestCount("*"), 0u);
}

}  // namespace
}  // namespace wdc::testing_support
