// The soak's devices and checks, on a fault-free emulator: a clean sync passes every check, and
// each kind of damage done to the store behind the devices' backs is caught and named.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <random>
#include <thread>

#include "emulated_dropbox.h"
#include "emulator/http_client.h"
#include "tools/soak/device.h"
#include "tools/soak/request_audit.h"
#include "tools/soak/store_check.h"
#include "webdavconnect/payload.h"

namespace wdc::soak {
namespace {

using testing_support::EmulatedDropbox;

class SoakChecks : public EmulatedDropbox {
 protected:
  SoakChecks() {
    setUpClients(accessTokenOnly());
    previousDirectory_ = std::filesystem::current_path();
    // The lock file is uploaded from the current directory.
    std::filesystem::current_path(env_.temporaryDirectory());
    for (const char* id : {"dev1", "dev2"}) {
      devices_.push_back(std::make_unique<Device>(id, ledger_, DeviceSettings{}));
    }
  }
  ~SoakChecks() override { std::filesystem::current_path(previousDirectory_); }

  SeedReport check() {
    SeedReport report;
    checkRound(1, *emulator_, ledger_, devices_, report);
    return report;
  }
  // Both devices sync in turn until neither has anything to do.
  void syncAll() {
    for (int pass = 0; pass < 2; ++pass) {
      for (auto& device : devices_) {
        ASSERT_EQ(device->sync().outcome, TurnOutcome::kCompleted) << device->id();
      }
    }
  }
  std::string storedPath(const std::string& uid) {
    const std::optional<Record> record = ledger_.find(uid);
    return "/" + record->folder + "/" + recordFileName(*record, "u");
  }

  std::filesystem::path previousDirectory_;
  Ledger ledger_;
  std::vector<std::unique_ptr<Device>> devices_;
  std::mt19937_64 random_{7};
};

TEST_F(SoakChecks, CleanSyncPassesAndEveryKindOfDamageIsCaught) {
  devices_[0]->createRecords(random_, 12);
  syncAll();
  SeedReport clean = check();
  EXPECT_EQ(clean.recordsChecked, 36u);  // on the store and on both devices
  EXPECT_TRUE(clean.passed()) << ::testing::PrintToString(clean.findings);
  EXPECT_EQ(devices_[1]->live().size(), 12u);

  const auto uids = ledger_.records();
  auto it = uids.begin();
  const std::string removed = (it++)->first;
  const std::string garbled = (it++)->first;
  const std::string rolledBack = (it++)->first;
  const std::string undeleted = (it++)->first;
  ASSERT_TRUE(emulator_->removePath(storedPath(removed)));
  emulator_->putFile(storedPath(garbled), "not a payload");
  Record older = *ledger_.find(rolledBack);
  older.version = 2;
  ledger_.wrote(older);  // its owner moved on to v2, but the store keeps v1
  emulator_->putFile("/dev9_1790000000.000000.tsl", "lock");
  ledger_.deleted(undeleted);  // deleted, says the ledger; no tombstone reached anyone

  SeedReport damaged = check();
  EXPECT_FALSE(damaged.passed());
  EXPECT_EQ(damaged.corrupted, 1u);
  EXPECT_EQ(damaged.locksLeft, 1u);
  // Lost: the removed and the garbled record from the store, the rolled-back one's v2 on the
  // store and on both devices, and the deletion.
  EXPECT_EQ(damaged.lost, 1u + 1u + 3u + 1u);
  // The record that should have been deleted, still on the store and on both devices.
  EXPECT_EQ(damaged.duplicated, 3u);
}

TEST_F(SoakChecks, DeletionByAnotherDeviceReachesTheOwnerAndLeavesOnlyTheTombstone) {
  devices_[0]->createRecords(random_, 6);
  syncAll();
  const std::string uid = devices_[1]->live().begin()->first;
  ASSERT_EQ(ledger_.find(uid)->owner, "dev1");
  devices_[1]->remove(uid);
  syncAll();
  const std::optional<Record> record = ledger_.find(uid);
  EXPECT_FALSE(emulator_->lookup(storedPath(uid)).has_value());
  EXPECT_TRUE(emulator_->lookup("/" + record->folder + "/" + recordFileName(*record, "d")));
  EXPECT_FALSE(devices_[0]->live().contains(uid));
  SeedReport report = check();
  EXPECT_TRUE(report.passed()) << ::testing::PrintToString(report.findings);
}

TEST_F(SoakChecks, AKilledDevicesLockHoldsOthersOffUntilStaleThenIsCleared) {
  devices_[0]->createRecords(random_, 3);
  EXPECT_EQ(devices_[0]->sync(KillPoint::kAfterLock).outcome, TurnOutcome::kKilled);
  EXPECT_TRUE(devices_[0]->drain());
  EXPECT_EQ(devices_[1]->sync().outcome, TurnOutcome::kLockBusy);
  EXPECT_EQ(check().locksLeft, 1u);

  env_.advance(DeviceSettings{}.staleLockAfter + std::chrono::seconds(1));
  const TurnResult turn = devices_[1]->sync();
  EXPECT_EQ(turn.outcome, TurnOutcome::kCompleted) << turn.failure;
  EXPECT_EQ(turn.locksCleared, 1u);
  syncAll();
  SeedReport report = check();
  EXPECT_TRUE(report.passed()) << ::testing::PrintToString(report.findings);
}

TEST(RequestAudit, CatchesARequestInsideANotedCooldownAndFiveDownloadsInFlight) {
  WebDAVConnect::resetDropboxRateLimitStateForTesting();
  emu::Emulator emulator({.token = "T"});
  RequestAudit audit(std::chrono::milliseconds(100));
  audit.watch(emulator);
  ASSERT_TRUE(emulator.start());
  emulator.putFile("/tod/a.tod", "a");
  emu::testing::HttpClient client(emulator.baseUrl(), "");

  ASSERT_EQ(client.rpc("users/get_current_account", "null").status, 200);
  WebDAVConnect::noteDropboxRateLimitWithSuggestedDelay(0.8);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // past the in-flight margin
  ASSERT_EQ(client.rpc("users/get_current_account", "null").status, 200);
  std::this_thread::sleep_for(std::chrono::milliseconds(600));  // the cooldown is over

  // Five downloads held at the server at once: one more than the library may have in flight.
  emulator.addFault(*emu::parseFaultRule("files/download:latency:800"));
  std::vector<std::thread> threads;
  std::atomic<int> answered{0};
  for (int i = 0; i < 5; ++i) {
    threads.emplace_back([&] {
      emu::testing::HttpClient downloader(emulator.baseUrl(), "");
      if (downloader.download("files/download", R"({"path": "/tod/a.tod"})").status == 200) {
        ++answered;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  emulator.stop();

  const RequestAuditFindings found = audit.findings();
  EXPECT_EQ(answered.load(), 5);
  EXPECT_EQ(found.requests, 7u);
  EXPECT_EQ(found.cooldownsNoted, 1u);
  EXPECT_EQ(found.cooldownViolations, 1u);
  EXPECT_EQ(found.peakDownloadsInFlight, 5u);
}

}  // namespace
}  // namespace wdc::soak
