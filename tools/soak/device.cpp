#include "tools/soak/device.h"

#include <fmt/format.h>

#include <charconv>
#include <condition_variable>
#include <mutex>

#include "platform/env.h"

namespace wdc::soak {

struct Device::Outstanding {
  std::mutex mutex;
  std::condition_variable done;
  size_t owed = 0;  // guarded by mutex
};

namespace {

std::string describe(const std::optional<Error>& error) {
  return error ? fmt::format("{} {} {}", error->domain(), error->code(),
                             error->localizedDescription())
               : "no error given";
}

// The record a listed file names, in the folder it was listed in.
std::optional<Record> listedRecord(const WebDAVFileMetaData& meta, const std::string& folder) {
  const auto name = parseRecordName(meta.FilePath.value_or(""));
  if (!name || name->extension != folder) return std::nullopt;
  return Record{name->uid, folder, name->container, name->parent, "", 0};
}

// A listing entry for a file that was deleted (rather than a file that is there).
bool isDeletionEntry(const WebDAVFileMetaData& meta) { return meta.FileRev.value_or("").empty(); }

struct DownloadSlot {
  Record record;
  std::shared_ptr<WebDAVFileMetaData> meta;
  std::shared_ptr<WebDAVFileContents> contents;
  std::optional<Error> error;
  int calls = 0;
};

struct UploadItem {
  Record record;
  bool tombstone = false;
};

}  // namespace

Device::Device(std::string id, Ledger& ledger, DeviceSettings settings)
    : id_(std::move(id)),
      ledger_(ledger),
      settings_(settings),
      answers_(std::make_shared<SerialQueue>("soak." + id_ + ".answers")),
      uploadAnswers_(std::make_shared<SerialQueue>("soak." + id_ + ".uploads")),
      outstanding_(std::make_shared<Outstanding>()) {}

Device::~Device() { drain(); }

void Device::createRecords(std::mt19937_64& random, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    Record record;
    record.uid = fmt::format("{}x{}", id_, ++created_);
    record.folder = random() % 2 == 0 ? "tod" : kRecordFolders[random() % kRecordFolders.size()];
    record.container = fmt::format("c{}", random() % 3);
    record.parent = fmt::format("p{}", random() % 5);
    record.owner = id_;
    record.version = 1;
    live_[record.uid] = record;
    pendingUploads_[record.uid] = record;
    ledger_.wrote(record);
  }
}

void Device::edit(std::mt19937_64& random, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    std::vector<std::string> own, any;
    for (const auto& [uid, record] : live_) {
      any.push_back(uid);
      if (record.owner == id_) own.push_back(uid);
    }
    const uint64_t roll = random() % 100;
    if (roll < 45 || any.empty()) {
      createRecords(random, 1);
    } else if (roll < 80 && !own.empty()) {
      Record& record = live_[own[random() % own.size()]];
      ++record.version;
      pendingUploads_[record.uid] = record;
      ledger_.wrote(record);
    } else {
      remove(any[random() % any.size()]);
    }
  }
}

void Device::remove(const std::string& uid) {
  const auto found = live_.find(uid);
  if (found == live_.end()) return;
  const Record record = found->second;
  live_.erase(found);
  tombstoned_.insert(uid);
  pendingUploads_.erase(uid);
  pendingTombstones_[uid] = record;
  ledger_.deleted(uid);
}

bool Device::hasPendingWork() const {
  return !pendingUploads_.empty() || !pendingTombstones_.empty() || !pendingCleanup_.empty();
}

bool Device::isStale(const std::string& lockName) const {
  const size_t underscore = lockName.find('_');
  double taken = 0;
  if (underscore == std::string::npos) return true;  // not a lock this host wrote: clear it
  const std::string seconds = lockName.substr(underscore + 1);
  const auto parsed = std::from_chars(seconds.data(), seconds.data() + seconds.size(), taken);
  if (parsed.ec != std::errc()) return true;
  const double now = std::chrono::duration<double>(Env::current().now().time_since_epoch()).count();
  return now - taken > static_cast<double>(settings_.staleLockAfter.count());
}

Device::LockSweep Device::sweepLocks(WebDAVConnect& connection, bool beforeLocking,
                                     TurnResult& result, std::optional<Error>& error) {
  // The search reports one lock at a time (the last it lists), so clear them one by one: our
  // own leftovers (a lock upload whose answer was lost lands anyway) and dead devices' locks.
  for (int i = 0; i < 16; ++i) {
    error.reset();
    const auto current = connection.getCurrentLockFile(&error);
    if (!current) return error ? LockSweep::kError : LockSweep::kClear;
    const std::string name = current->FilePath.value_or("");
    if (current->UID != id_) {
      if (!beforeLocking) return LockSweep::kClear;
      if (!isStale(name)) return LockSweep::kBusy;
    }
    error.reset();
    if (!connection.unlockDirectory(name, &error) && error) return LockSweep::kError;
    ++result.locksCleared;
  }
  error = Error::withDescription("Soak", 1, "lock files keep coming back");
  return LockSweep::kError;
}

bool Device::waitForCompletions(const char* what) {
  std::unique_lock lock(outstanding_->mutex);
  if (outstanding_->done.wait_for(lock, settings_.completionTimeout,
                                  [&] { return outstanding_->owed == 0; })) {
    return true;
  }
  ledger_.anomaly(fmt::format("{}: {} {} completion(s) never ran", id_, outstanding_->owed, what));
  return false;
}

bool Device::drain() { return waitForCompletions("abandoned"); }

void Device::learnDeleted(const Record& record) {
  // The deleting device removes the record file once its tombstone is stored; others only
  // when they see that file still (or again) there.
  live_.erase(record.uid);
  pendingUploads_.erase(record.uid);
  tombstoned_.insert(record.uid);
}

void Device::applyDownload(const Record& listed,
                           const std::shared_ptr<WebDAVFileContents>& contents,
                           TurnResult& result) {
  const std::optional<Record> known = ledger_.find(listed.uid);
  if (!known) {
    ledger_.anomaly(fmt::format("{}: downloaded {}, which no device created", id_, listed.uid));
    return;
  }
  Record record = listed;
  record.owner = known->owner;
  const auto version = contents && contents->FileContents
                           ? verifiedVersion(record, *contents->FileContents)
                           : std::nullopt;
  if (!version) {
    ledger_.anomaly(
        fmt::format("{}: the download of {} returned a payload that is no version "
                    "of it (corrupted)",
                    id_, recordFileName(record, "u")));
    return;
  }
  record.version = *version;
  ++result.downloaded;
  const auto mine = live_.find(record.uid);
  if (record.owner == id_) {
    // Our own record, not pending: the store must hold exactly what we last stored.
    if (mine == live_.end() || mine->second.version != record.version) {
      ledger_.anomaly(fmt::format("{}: the store holds v{} of its own {}, it stored v{}", id_,
                                  record.version, record.uid,
                                  mine == live_.end() ? 0 : mine->second.version));
    }
    return;
  }
  if (mine != live_.end() && mine->second.version > record.version) {
    ledger_.anomaly(fmt::format("{}: {} went back from v{} to v{}", id_, record.uid,
                                mine->second.version, record.version));
  }
  live_[record.uid] = record;
}

bool Device::uploadPending(WebDAVConnect& connection, KillPoint killAt, TurnResult& result,
                           std::string& failure) {
  std::map<std::string, std::vector<UploadItem>> byFolder;
  for (const auto& [uid, record] : pendingUploads_)
    byFolder[record.folder].push_back({record, false});
  for (const auto& [uid, record] : pendingTombstones_)
    byFolder[record.folder].push_back({record, true});
  bool allWent = true;
  for (const auto& [folder, items] : byFolder) {
    // Fresh objects every time: an uploaded object's metadata is replaced by the store's.
    std::vector<std::shared_ptr<WebDAVFileContents>> objects;
    for (const UploadItem& item : items) {
      auto meta = std::make_shared<WebDAVFileMetaData>();
      meta->OpType = item.tombstone ? "d" : "u";
      meta->ContainerUID = item.record.container;
      meta->ParentUID = item.record.parent;
      meta->UID = item.record.uid;
      meta->Extension = item.record.folder;
      objects.push_back(std::make_shared<WebDAVFileContents>(
          meta, std::make_shared<PlistDictionary>(item.tombstone ? tombstonePayloadFor(item.record)
                                                                 : payloadFor(item.record))));
    }
    struct Outcome {
      std::vector<std::shared_ptr<WebDAVBatchUploadResult>> results;
      std::optional<Error> error;
      int calls = 0;
    };
    auto outcome = std::make_shared<Outcome>();
    auto outstanding = outstanding_;
    {
      std::lock_guard lock(outstanding->mutex);
      ++outstanding->owed;
    }
    Ledger& ledger = ledger_;
    const std::string who = id_;
    connection.uploadFileWithObjects(
        objects, settings_.uploadRetryLimit, folder, uploadAnswers_,
        [outcome, outstanding, &ledger, who](
            const std::vector<std::shared_ptr<WebDAVBatchUploadResult>>& results,
            const std::optional<Error>& error) {
          std::lock_guard lock(outstanding->mutex);
          if (++outcome->calls > 1) {
            ledger.anomaly(who + ": a batch upload's completion ran twice");
            return;
          }
          outcome->results = results;
          outcome->error = error;
          --outstanding->owed;
          outstanding->done.notify_all();
        });
    if (killAt == KillPoint::kDuringUploads) return false;
    if (!waitForCompletions("batch upload")) {
      failure = "batch upload: no completion";
      return false;
    }
    for (size_t i = 0; i < objects.size(); ++i) {
      std::shared_ptr<WebDAVBatchUploadResult> found;
      for (const auto& candidate : outcome->results) {
        if (candidate && candidate->fileContents == objects[i]) found = candidate;
      }
      if (!found || found->uploadError) {
        allWent = false;
        continue;
      }
      const UploadItem& item = items[i];
      ++result.uploaded;
      if (item.tombstone) {
        pendingTombstones_.erase(item.record.uid);
        pendingCleanup_[item.record.uid] = item.record;
      } else if (auto pending = pendingUploads_.find(item.record.uid);
                 pending != pendingUploads_.end() &&
                 pending->second.version == item.record.version) {
        pendingUploads_.erase(pending);
      }
    }
    if (!allWent && failure.empty()) failure = "batch upload: " + describe(outcome->error);
  }
  return allWent;
}

TurnResult Device::sync(KillPoint killAt) {
  TurnResult result;
  auto connection =
      WebDAVConnect::initWithConnectionType(kConnectionTypeDropbox, std::nullopt, std::nullopt);
  connection->queueToUse = answers_;
  std::optional<Error> error;
  std::optional<std::shared_ptr<WebDAVFileMetaData>> lock;
  auto killed = [&] {
    result.outcome = TurnOutcome::kKilled;
    return result;
  };
  auto fail = [&](const std::string& step) {
    result.outcome = TurnOutcome::kFailed;
    if (result.failure.empty()) result.failure = step + ": " + describe(error);
    if (lock) {  // leave the store unlocked when we can; a leftover is cleared next turn
      error.reset();
      connection->unlockDirectory((*lock)->FilePath.value_or(""), &error);
    }
    return result;
  };

  if (!connection->getAccountUsername(&error)) return fail("account");
  switch (sweepLocks(*connection, true, result, error)) {
    case LockSweep::kBusy:
      result.outcome = TurnOutcome::kLockBusy;
      return result;
    case LockSweep::kError:
      return fail("current lock");
    case LockSweep::kClear:
      break;
  }
  error.reset();
  auto taken = connection->lockDirectory(id_, &error);
  if (!taken) return fail("lock");
  lock = taken;
  if (killAt == KillPoint::kAfterLock) return killed();

  // What changed since the kept cursor, folder by folder (one fetch, then the cache).
  std::vector<std::pair<Record, std::shared_ptr<WebDAVFileMetaData>>> listed;
  for (size_t i = 0; i < kRecordFolders.size(); ++i) {
    error.reset();
    auto files =
        connection->getDeltaFileList(&error, kRecordFolders[i], cursor_, std::nullopt, i > 0);
    if (!files) return fail("delta listing");
    for (const auto& meta : *files) {
      if (auto record = listedRecord(*meta, kRecordFolders[i])) listed.emplace_back(*record, meta);
    }
  }
  if (connection->shouldResetLocalData) {
    // The store reset the cursor twice in one fetch: start again from a full listing.
    cursor_.reset();
    error = Error::withDescription("Soak", 2, "the listing asked for a reset");
    return fail("delta listing");
  }
  const std::optional<std::string> nextCursor = connection->dropboxDeltaCursor;
  if (killAt == KillPoint::kAfterListing) return killed();

  // Tombstones first: a deletion beats any version of the record.
  for (const auto& [record, meta] : listed) {
    if (meta->OpType == "d" && !isDeletionEntry(*meta)) learnDeleted(record);
  }
  std::vector<std::shared_ptr<DownloadSlot>> downloads;
  for (const auto& [record, meta] : listed) {
    if (meta->OpType != "u" || isDeletionEntry(*meta)) continue;
    if (tombstoned_.contains(record.uid)) {
      pendingCleanup_[record.uid] = record;
      continue;
    }
    if (pendingUploads_.contains(record.uid)) continue;  // our newer edit goes up below
    downloads.push_back(std::make_shared<DownloadSlot>(DownloadSlot{record, meta, {}, {}, 0}));
  }
  auto outstanding = outstanding_;
  {
    std::lock_guard guard(outstanding->mutex);
    outstanding->owed += downloads.size();
  }
  Ledger& ledger = ledger_;
  const std::string who = id_;
  for (const auto& slot : downloads) {
    connection->getContentsForFile(
        slot->meta, slot->record.folder, settings_.downloadRetryLimit,
        [slot, outstanding, &ledger, who](std::shared_ptr<WebDAVFileContents> contents,
                                          std::optional<Error> downloadError) {
          std::lock_guard guard(outstanding->mutex);
          if (++slot->calls > 1) {
            ledger.anomaly(who + ": a download's completion ran twice");
            return;
          }
          slot->contents = std::move(contents);
          slot->error = std::move(downloadError);
          --outstanding->owed;
          outstanding->done.notify_all();
        });
  }
  if (killAt == KillPoint::kDuringDownloads) return killed();
  if (!waitForCompletions("download")) {
    error = Error::withDescription("Soak", 3, "download completions missing");
    return fail("downloads");
  }
  size_t failedDownloads = 0;
  for (const auto& slot : downloads) {
    if (!slot->contents || slot->error) {
      ++failedDownloads;
      if (result.failure.empty()) result.failure = "download: " + describe(slot->error);
      continue;
    }
    applyDownload(slot->record, slot->contents, result);
  }
  // Everything listed is applied: the next turn continues from here.
  if (failedDownloads == 0) cursor_ = nextCursor;

  std::string uploadFailure;
  const bool uploaded = uploadPending(*connection, killAt, result, uploadFailure);
  if (killAt == KillPoint::kDuringUploads) return killed();
  if (!uploaded && result.failure.empty()) result.failure = uploadFailure;

  if (!pendingCleanup_.empty()) {
    std::vector<std::string> paths;
    for (const auto& [uid, record] : pendingCleanup_) {
      paths.push_back(record.folder + "/" + recordFileName(record, "u"));
    }
    error.reset();
    if (connection->deleteArbitraryFiles(paths, &error)) {
      result.filesDeleted = paths.size();
      pendingCleanup_.clear();
    } else if (result.failure.empty()) {
      result.failure = "batch delete: " + describe(error);
    }
  }
  if (killAt == KillPoint::kBeforeUnlock) return killed();

  error.reset();
  const std::string lockName = (*lock)->FilePath.value_or("");
  lock.reset();
  if (!connection->unlockDirectory(lockName, &error) && error) return fail("unlock");
  if (sweepLocks(*connection, false, result, error) == LockSweep::kError) {
    return fail("own leftover locks");
  }
  result.outcome = result.failure.empty() ? TurnOutcome::kCompleted : TurnOutcome::kFailed;
  return result;
}

}  // namespace wdc::soak
