// One simulated device: its own local record set and cursor, and a host's sync engine driving
// the library the way a host does (account, current lock, lock, delta listing with the kept
// cursor, asynchronous downloads, the retrying batch upload, a batch delete, unlock). A turn can
// be killed at a chosen point: the device abandons its connection without unlocking and loses
// whatever answers were still to come, as a crashed app does; its local store survives.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "tools/soak/ledger.h"
#include "tools/soak/record_model.h"
#include "webdavconnect/operation_queue.h"
#include "webdavconnect/webdav_connect.h"

namespace wdc::soak {

enum class KillPoint {
  kNone,
  kAfterLock,
  kAfterListing,
  kDuringDownloads,
  kDuringUploads,
  kBeforeUnlock
};
inline constexpr KillPoint kKillPoints[] = {KillPoint::kAfterLock, KillPoint::kAfterListing,
                                            KillPoint::kDuringDownloads, KillPoint::kDuringUploads,
                                            KillPoint::kBeforeUnlock};

enum class TurnOutcome {
  kCompleted,  // every step succeeded
  kLockBusy,   // another device holds a lock that is not stale yet: try again later
  kFailed,     // a step failed after the library's retries; the device tries again next turn
  kKilled,     // abandoned at the kill point
};

struct TurnResult {
  TurnOutcome outcome = TurnOutcome::kCompleted;
  std::string failure;  // step and error, when failed
  size_t downloaded = 0;
  size_t uploaded = 0;
  size_t filesDeleted = 0;
  size_t locksCleared = 0;  // stale or own leftover lock files removed
};

struct DeviceSettings {
  int64_t downloadRetryLimit = 4;
  int64_t uploadRetryLimit = 4;
  // A foreign lock older than this (by the time in its name) belongs to a dead device.
  std::chrono::seconds staleLockAfter{30};
  // Real time a completion may take before the soak calls it a hang.
  std::chrono::seconds completionTimeout{120};
};

class Device {
 public:
  Device(std::string id, Ledger& ledger, DeviceSettings settings);
  ~Device();
  Device(const Device&) = delete;
  Device& operator=(const Device&) = delete;

  // `count` new records, about half of them to-dos (so that folder is fetched as a snapshot).
  void createRecords(std::mt19937_64& random, size_t count);
  // `count` random edits: new records, new versions of its own records, deletions of any record
  // it knows.
  void edit(std::mt19937_64& random, size_t count);
  // Deletes the record `uid` this device holds (any owner's): a tombstone goes up next sync.
  void remove(const std::string& uid);

  TurnResult sync(KillPoint killAt = KillPoint::kNone);
  // After a killed turn: waits until every completion the abandoned connection owes has run.
  // False (and an anomaly in the ledger) when one did not come in time.
  bool drain();

  [[nodiscard]] const std::string& id() const { return id_; }
  // Anything still to upload or delete.
  [[nodiscard]] bool hasPendingWork() const;
  // The records this device holds, by UID.
  [[nodiscard]] const std::map<std::string, Record>& live() const { return live_; }

  // Completions still owed by asynchronous calls (shared with their callbacks).
  struct Outstanding;

 private:
  enum class LockSweep { kClear, kBusy, kError };
  LockSweep sweepLocks(WebDAVConnect& connection, bool beforeLocking, TurnResult& result,
                       std::optional<Error>& error);
  [[nodiscard]] bool isStale(const std::string& lockName) const;
  bool waitForCompletions(const char* what);
  void learnDeleted(const Record& record);
  void applyDownload(const Record& listed, const std::shared_ptr<WebDAVFileContents>& contents,
                     TurnResult& result);
  bool uploadPending(WebDAVConnect& connection, KillPoint killAt, TurnResult& result,
                     std::string& failure);

  const std::string id_;
  Ledger& ledger_;
  const DeviceSettings settings_;
  std::shared_ptr<OperationQueue> answers_;
  std::shared_ptr<OperationQueue> uploadAnswers_;
  std::shared_ptr<Outstanding> outstanding_;

  uint64_t created_ = 0;
  std::optional<std::string> cursor_;
  std::map<std::string, Record> live_;
  std::set<std::string> tombstoned_;
  std::map<std::string, Record> pendingUploads_;     // own edits not yet confirmed stored
  std::map<std::string, Record> pendingTombstones_;  // deletions not yet confirmed stored
  std::map<std::string, Record> pendingCleanup_;     // "u" files of deleted records to delete
};

}  // namespace wdc::soak
