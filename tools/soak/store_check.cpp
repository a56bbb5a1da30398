#include "tools/soak/store_check.h"

#include <fmt/format.h>

#include <map>
#include <set>
#include <span>

#include "emulator/emulator.h"
#include "webdavconnect/payload.h"

namespace wdc::soak {

constexpr size_t kFindingsKept = 40;

void noteFinding(SeedReport& report, std::string finding) {
  if (report.findings.size() < kFindingsKept) report.findings.push_back(std::move(finding));
}

void checkRound(int round, const emu::Emulator& emulator, const Ledger& ledger,
                const std::vector<std::unique_ptr<Device>>& devices, SeedReport& report) {
  const auto truth = ledger.records();
  const auto deleted = ledger.deletedUids();
  std::map<std::string, Record> storeLive;  // uid -> record as stored
  std::map<std::string, int> uFiles;
  std::set<std::string> tombstones;
  for (const std::string& path : emulator.listPaths()) {
    const auto entry = emulator.lookup(path);
    if (!entry || entry->isFolder) continue;
    const auto slash = path.rfind('/');
    const std::string folder = path.substr(1, slash == 0 ? 0 : slash - 1);
    const std::string file = path.substr(slash + 1);
    if (folder.empty() && file.ends_with(".tsl")) {
      ++report.locksLeft;
      noteFinding(report, fmt::format("round {}: lock {} left on the store", round, file));
      continue;
    }
    const auto name = parseRecordName(file);
    if (!name || name->extension != folder) {
      ++report.duplicated;
      noteFinding(report, fmt::format("round {}: stray file {}", round, path));
      continue;
    }
    if (name->opType == "d") {
      tombstones.insert(name->uid);
      continue;
    }
    ++uFiles[name->uid];
    const auto known = truth.find(name->uid);
    const auto bytes = emulator.readFile(path);
    std::optional<Error> error;
    const auto payload =
        bytes
            ? decodeStoredPayload(
                  std::span(reinterpret_cast<const uint8_t*>(bytes->data()), bytes->size()), &error)
            : std::nullopt;
    Record record{name->uid,
                  folder,
                  name->container,
                  name->parent,
                  known == truth.end() ? "" : known->second.owner,
                  0};
    const auto version = payload && payload->isDictionary()
                             ? verifiedVersion(record, payload->asDictionary())
                             : std::nullopt;
    if (!version) {
      ++report.corrupted;
      noteFinding(report, fmt::format("round {}: {} on the store is no version of its record",
                                      round, path));
      continue;
    }
    record.version = *version;
    storeLive[name->uid] = record;
  }
  // A tombstone wins over a "u" file; devices delete the "u" file once they see the tombstone.
  for (const std::string& uid : tombstones) {
    if (storeLive.erase(uid) > 0) {
      ++report.duplicated;
      noteFinding(report,
                  fmt::format("round {}: deleted {} still has its record file", round, uid));
    }
  }
  for (const auto& [uid, count] : uFiles) {
    if (count > 1) ++report.duplicated;
  }

  // The store against what the devices meant.
  for (const auto& [uid, record] : truth) {
    const auto stored = storeLive.find(uid);
    if (deleted.contains(uid)) {
      if (!tombstones.contains(uid)) {
        ++report.lost;
        noteFinding(report, fmt::format("round {}: the deletion of {} was lost", round, uid));
      }
      continue;
    }
    if (stored == storeLive.end()) {
      ++report.lost;
      noteFinding(report,
                  fmt::format("round {}: {} v{} is not on the store", round, uid, record.version));
    } else if (stored->second.version != record.version) {
      ++report.lost;
      noteFinding(report, fmt::format("round {}: the store has {} v{}, its owner wrote v{}", round,
                                      uid, stored->second.version, record.version));
    }
  }
  for (const auto& [uid, record] : storeLive) {
    if (!truth.contains(uid) || deleted.contains(uid)) {
      ++report.duplicated;
      noteFinding(report, fmt::format("round {}: {} is on the store but was {}", round, uid,
                                      truth.contains(uid) ? "deleted" : "never created"));
    }
  }
  report.recordsChecked += storeLive.size();

  // Every device against the same truth, so that where a device and the store differ, the one
  // in the wrong is counted.
  for (const auto& device : devices) {
    for (const auto& [uid, record] : truth) {
      if (deleted.contains(uid)) continue;
      const auto held = device->live().find(uid);
      if (held == device->live().end()) {
        ++report.lost;
        noteFinding(report, fmt::format("round {}: {} lacks {}", round, device->id(), uid));
      } else if (held->second.version != record.version) {
        ++report.lost;
        noteFinding(report, fmt::format("round {}: {} holds {} v{}, its owner wrote v{}", round,
                                        device->id(), uid, held->second.version, record.version));
      }
    }
    for (const auto& [uid, record] : device->live()) {
      if (!truth.contains(uid) || deleted.contains(uid)) {
        ++report.duplicated;
        noteFinding(report,
                    fmt::format("round {}: {} still holds {}, which was {}", round, device->id(),
                                uid, truth.contains(uid) ? "deleted" : "never created"));
      }
    }
    report.recordsChecked += device->live().size();
  }
}

}  // namespace wdc::soak
