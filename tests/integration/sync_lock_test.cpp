// The sync lock end to end against the emulator: taking it, finding it from another connection,
// releasing exactly the file that was taken, and the kept rules of its name and upload.
#include <gmock/gmock.h>

#include <fstream>
#include <algorithm>

#include "lock_fixture.h"
#include "support/test_util.h"
#include "webdavconnect/keyed_archive.h"

namespace wdc::testing_support {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

class SyncLock : public LockAndDeleteTest {
 protected:
  // The Env's wall clock starts at 2026-01-01T00:00:00Z.
  static constexpr const char* kStartSeconds = "1767225600";

  std::vector<std::string> lockFiles() const {
    std::vector<std::string> locks;
    for (const std::string& path : emulator_->listPaths()) {
      if (path.ends_with(".tsl")) locks.push_back(path);
    }
    return locks;
  }
};

TEST_F(SyncLock, TheLockIsNamedByOwnerAndTimeAndHoldsAFreshUUID) {
  env_.advance(250ms);
  auto connection = newConnection();
  std::optional<Error> error;
  auto lock = connection->lockDirectory("ABC", &error);
  ASSERT_TRUE(lock) << (error ? error->description() : "");
  EXPECT_NO_WDC_ERROR(error);
  const std::string lockName = std::string("ABC_") + kStartSeconds + ".250000";
  EXPECT_EQ(lock->FilePath, lockName);
  EXPECT_EQ(lock->UID, "ABC");
  EXPECT_FALSE(lock->ModificationDate);
  EXPECT_THAT(lockFiles(), ElementsAre("/" + lockName + ".tsl"));

  auto uploaded = emulator_->readFile("/" + lockName + ".tsl");
  ASSERT_TRUE(uploaded);
  std::optional<Error> decodeError;
  auto plist = readBinaryPropertyList(
      std::span(reinterpret_cast<const uint8_t*>(uploaded->data()), uploaded->size()),
      &decodeError);
  ASSERT_TRUE(plist && plist->isDictionary());
  ASSERT_EQ(plist->asDictionary().size(), 1u);
  const PlistValue* meta = plist->asDictionary().find("meta");
  ASSERT_TRUE(meta && meta->isString());
  // 32 upper-case hex digits. (Not std::regex: GCC 12 with the sanitizers warns inside <regex>.)
  const std::string& uuid = meta->asString();
  EXPECT_EQ(uuid.size(), 32u) << uuid;
  EXPECT_TRUE(std::all_of(uuid.begin(), uuid.end(), [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F');
  })) << uuid;
  // The local copy stays behind in the temporary directory.
  EXPECT_TRUE(std::filesystem::exists(env_.temporaryDirectory() / (lockName + ".tsl")));
}

TEST_F(SyncLock, ALockTakenByOneConnectionIsFoundByAnother) {
  auto owner = newConnection();
  auto lock = owner->lockDirectory("device1", nullptr);
  ASSERT_TRUE(lock);

  auto other = newConnection();
  std::optional<Error> error;
  auto found = other->getCurrentLockFile(&error);
  ASSERT_TRUE(found);
  EXPECT_NO_WDC_ERROR(error);
  EXPECT_EQ(found->FilePath, lock->FilePath);
  EXPECT_EQ(found->UID, "device1");
  EXPECT_FALSE(found->CreationDate);
  auto stored = emulator_->lookup("/" + *lock->FilePath + ".tsl");
  ASSERT_TRUE(stored && found->ModificationDate);
  EXPECT_EQ(found->ModificationDate->timePoint(), stored->clientModified);
  EXPECT_DOUBLE_EQ(
      found->ModificationDateAbsolute,
      std::chrono::duration<double>(stored->clientModified.time_since_epoch()).count());
}

TEST_F(SyncLock, UnlockingWithTheReturnedNameRemovesExactlyThatFile) {
  auto connection = newConnection();
  auto first = connection->lockDirectory("one", nullptr);
  env_.advance(1s);
  auto second = connection->lockDirectory("two", nullptr);
  put("/notes.txt");
  ASSERT_TRUE(first && second);

  std::optional<Error> error;
  EXPECT_TRUE(connection->unlockDirectory(*first->FilePath, &error));
  EXPECT_NO_WDC_ERROR(error);
  EXPECT_THAT(lockFiles(), ElementsAre("/" + *second->FilePath + ".tsl"));
  EXPECT_TRUE(exists("/notes.txt"));
  // Gone already: not ours to have deleted, and no error.
  EXPECT_FALSE(connection->unlockDirectory(*first->FilePath, &error));
  EXPECT_NO_WDC_ERROR(error);
  // The found record unlocks the same way.
  auto found = connection->getCurrentLockFile(nullptr);
  ASSERT_TRUE(found);
  EXPECT_TRUE(connection->unlockDirectory(*found->FilePath, &error));
  EXPECT_THAT(lockFiles(), IsEmpty());
}

TEST_F(SyncLock, OnlyTheLastMatchCountsAndTheOwnerIsCutAtItsFirstUnderscore) {
  put("/alpha_1700000000.000000.tsl");
  put("/my_device_1700000001.500000.tsl");
  auto connection = newConnection();
  auto found = connection->getCurrentLockFile(nullptr);
  ASSERT_TRUE(found);
  // The server lists by path: "my_device..." comes last, and "alpha..." is not reported.
  EXPECT_EQ(found->FilePath, "my_device_1700000001.500000");
  EXPECT_EQ(found->UID, "my");

  auto lock = connection->lockDirectory("my_device", nullptr);
  ASSERT_TRUE(lock);
  EXPECT_EQ(lock->UID, "my_device");
  EXPECT_TRUE(lock->FilePath->starts_with("my_device_"));
}

TEST_F(SyncLock, NoLockIsNoErrorAndNoRetry) {
  put("/Tasks/readme.txt");
  auto connection = newConnection();
  const Error sentinel("sentinel", 1);
  std::optional<Error> error = sentinel;
  EXPECT_FALSE(connection->getCurrentLockFile(&error));
  EXPECT_EQ(error, sentinel);
  EXPECT_EQ(emulator_->requestCount("files/search_v2"), 1u);
  EXPECT_TRUE(env_.sleeps().empty());
}

TEST_F(SyncLock, AFolderMatchGivesARecordWithoutDates) {
  ASSERT_TRUE(emulator_->createFolder("/stale_1.tsl"));
  auto found = newConnection()->getCurrentLockFile(nullptr);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->FilePath, "stale_1");
  EXPECT_EQ(found->UID, "stale");
  EXPECT_FALSE(found->ModificationDate);
  EXPECT_EQ(found->ModificationDateAbsolute, 0);
}

TEST_F(SyncLock, ALockNotYetIndexedBySearchIsNotFound) {
  restartEmulatorWith({.searchIndexDelay = 5s});
  auto connection = newConnection();
  auto lock = connection->lockDirectory("device1", nullptr);
  ASSERT_TRUE(lock);
  std::optional<Error> error;
  EXPECT_FALSE(connection->getCurrentLockFile(&error));
  EXPECT_NO_WDC_ERROR(error);
  env_.advance(5s);
  auto found = connection->getCurrentLockFile(&error);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->FilePath, lock->FilePath);
}

TEST_F(SyncLock, TheUploadReadsTheBareFileNameFromTheCurrentDirectory) {
  test::TempDir elsewhere;
  std::filesystem::current_path(elsewhere.path());
  auto connection = newConnection();
  std::optional<Error> error;
  EXPECT_FALSE(connection->lockDirectory("ABC", &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), kURLErrorDomain);
  EXPECT_EQ(error->code(), -1100);
  EXPECT_EQ(emulator_->requestCount("files/upload"), 0u);
  EXPECT_TRUE(env_.sleeps().empty());  // not worth a retry

  // A file of that name in the current directory is what gets uploaded.
  const std::string fileName = std::string("ABC_") + kStartSeconds + ".000000.tsl";
  std::ofstream(elsewhere.path() / fileName) << "from the current directory";
  EXPECT_TRUE(connection->lockDirectory("ABC", &error));
  EXPECT_EQ(emulator_->readFile("/" + fileName), "from the current directory");
}

TEST_F(SyncLock, AStaleLocalCopyIsReplaced) {
  const std::string fileName = std::string("ABC_") + kStartSeconds + ".000000.tsl";
  std::ofstream(env_.temporaryDirectory() / fileName) << "stale";
  log::CaptureLog log;
  ASSERT_TRUE(newConnection()->lockDirectory("ABC", nullptr));
  EXPECT_NE(emulator_->readFile("/" + fileName), "stale");
  EXPECT_TRUE(
      log.contains(log::Level::kDebug, "[DROPBOX]    removing existing local sync lock file"));
}

// The local copy goes to the shared temporary directory under a name anyone can guess: a link
// planted there, dangling or not, is replaced rather than written through, and the copy is
// readable by this user only.
TEST_F(SyncLock, LinksPlantedAtTheLocalCopysNameAreReplacedNotFollowed) {
  const std::string fileName = std::string("ABC_") + kStartSeconds + ".000000.tsl";
  const auto local = env_.temporaryDirectory() / fileName;
  const auto victim = env_.temporaryDirectory() / "victim";
  const auto absent = env_.temporaryDirectory() / "created-through-a-link";
  for (const auto& target : {victim, absent}) {
    SCOPED_TRACE(target.string());
    std::ofstream(victim, std::ios::trunc) << "precious";
    std::filesystem::remove(local);
    std::filesystem::create_symlink(target, local);
    auto lock = newConnection()->lockDirectory("ABC", nullptr);
    ASSERT_TRUE(lock);
    EXPECT_FALSE(std::filesystem::exists(absent));
    EXPECT_EQ(test::textOf(test::readFileBytes(victim)), "precious");
    EXPECT_FALSE(std::filesystem::is_symlink(local));
    EXPECT_EQ(std::filesystem::status(local).permissions() & std::filesystem::perms::all,
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    ASSERT_TRUE(newConnection()->unlockDirectory(lock->FilePath.value_or(""), nullptr));
  }
}

TEST_F(SyncLock, ARateLimitedLockIsRetriedAfterTheServersDelay) {
  failNext("files/upload", emu::FaultKind::kTooManyRequests, 1, 3);
  log::CaptureLog log;
  auto connection = newConnection();
  std::optional<Error> error;
  EXPECT_TRUE(connection->lockDirectory("ABC", &error));
  EXPECT_NO_WDC_ERROR(error);
  EXPECT_EQ(emulator_->requestCount("files/upload"), 2u);
  EXPECT_THAT(sleptSeconds(), ElementsAre(3.0));
  EXPECT_THAT(log.messages(log::Level::kWarning),
              ElementsAre("[DROPBOX] Rate limited, will retry lockDir in 3.0s [attempt 1]"));
  EXPECT_THAT(log.messages(log::Level::kError),
              testing::Contains(testing::StartsWith("[DROPBOX] ERROR with sync lock: ")));
}

TEST_F(SyncLock, FindingAndReleasingRetryServerErrorsWithTheirOwnMessages) {
  failNext("files/search_v2", emu::FaultKind::kUnavailable, 1);
  failNext("files/delete_v2", emu::FaultKind::kInternalError, 1);
  put("/owner_5.000000.tsl");
  log::CaptureLog log;
  auto connection = newConnection();
  std::optional<Error> error;
  auto found = connection->getCurrentLockFile(&error);
  ASSERT_TRUE(found);
  EXPECT_TRUE(connection->unlockDirectory(*found->FilePath, &error));
  EXPECT_NO_WDC_ERROR(error);
  EXPECT_THAT(sleptSeconds(), ElementsAre(0.5, 0.5));
  auto debug = log.messages(log::Level::kDebug);
  EXPECT_THAT(debug,
              testing::Contains(testing::StartsWith("[DROPBOX] ERROR, WILL RETRY getLock: ")));
  EXPECT_THAT(debug,
              testing::Contains(testing::StartsWith("[DROPBOX] ERROR, WILL RETRY unlock: ")));
  EXPECT_THAT(log.messages(log::Level::kError),
              testing::Contains(testing::StartsWith("[DROPBOX] ERROR with sync unlock: ")));
}

}  // namespace
}  // namespace wdc::testing_support
