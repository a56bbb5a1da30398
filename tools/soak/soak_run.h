// One seed of the fault soak: an emulator with faults on every route, several devices taking
// turns to edit and sync (some turns killed mid-sync), and after each round a settling phase and
// a record-by-record check of the store and every device against the ledger.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace wdc::soak {

struct SoakOptions {
  uint64_t seed = 1;
  int devices = 4;
  int rounds = 3;
  int turnsPerRound = 12;
  // Share of requests answered with a fault (429 with and without Retry-After, 429w, 500, 503,
  // dropped connections, truncated and corrupted bodies), spread over the kinds.
  double faultRate = 0.22;
  // Share of list_folder/continue requests answered with a cursor reset, and of batch entries
  // failed with too_many_write_operations.
  double resetRate = 0.15;
  double entryFaultRate = 0.03;
  // Share of turns killed at a random point.
  double killRate = 0.25;
  // How much faster the soak's clocks run than real time (back-offs shrink by as much).
  double timeFactor = 10;
  // Real time a request sent just before the library noted a cooldown may take to reach the
  // server (a TLS handshake on a loaded machine); arrivals that late are not counted against it.
  std::chrono::milliseconds inFlightMargin{100};
  bool verbose = false;
};

struct SeedReport {
  uint64_t seed = 0;
  int rounds = 0;
  uint64_t turns = 0, turnsCompleted = 0, turnsFailed = 0, turnsLockBusy = 0, kills = 0;
  uint64_t settlePasses = 0;
  uint64_t requests = 0, faultedRequests = 0;
  uint64_t zipRequests = 0, downloadRequests = 0;  // files/download_zip, files/download
  std::map<std::string, uint64_t> faultsByKind;
  uint64_t recordsChecked = 0;  // live records compared, on the store and on each device
  uint64_t lost = 0, duplicated = 0, corrupted = 0, locksLeft = 0;
  uint64_t cooldownsNoted = 0, cooldownViolations = 0, arrivedInMargin = 0;
  uint64_t peakDownloadsInFlight = 0;
  uint64_t anomalies = 0;  // broken promises seen during sync (see findings)
  bool converged = true;
  double seconds = 0;
  std::vector<std::string> findings;  // what went wrong, described (capped)

  [[nodiscard]] bool passed() const;
};

SeedReport runSeed(const SoakOptions& options);

}  // namespace wdc::soak
