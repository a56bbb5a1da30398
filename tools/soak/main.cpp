// wdc-soak: the multi-device fault soak. For each seed, several devices edit and sync against an
// in-process emulator that fails a share of every route's requests, some syncs are killed
// half way, and after each round the store and every device must agree record by record with
// what the devices wrote. Prints one line per seed and the totals; exits non-zero on any loss,
// duplicate, corruption, leftover lock, cooldown violation or more than 4 downloads in flight.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <iostream>
#include <nlohmann/json.hpp>

#include "platform/logger.h"
#include "tools/soak/soak_run.h"

namespace {

using wdc::soak::SeedReport;

void printSeed(const SeedReport& r) {
  fmt::print(
      "seed {:>4}: {} rounds, {} turns ({} completed, {} failed, {} lock busy, {} killed), "
      "{} requests, {:.1f}% faulted, {} records checked, lost {} dup {} corrupt {} locks {}, "
      "cooldowns {} violations {}, peak downloads {}, anomalies {}{}  [{:.1f} s] {}\n",
      r.seed, r.rounds, r.turns, r.turnsCompleted, r.turnsFailed, r.turnsLockBusy, r.kills,
      r.requests, r.requests ? 100.0 * r.faultedRequests / r.requests : 0.0, r.recordsChecked,
      r.lost, r.duplicated, r.corrupted, r.locksLeft, r.cooldownsNoted, r.cooldownViolations,
      r.peakDownloadsInFlight, r.anomalies, r.converged ? "" : ", DID NOT SETTLE", r.seconds,
      r.passed() ? "ok" : "FAILED");
  for (const std::string& finding : r.findings) fmt::print("    {}\n", finding);
  std::fflush(stdout);  // one line per seed as it ends, also into a file
}

nlohmann::ordered_json toJson(const SeedReport& r) {
  return {{"seed", r.seed},
          {"passed", r.passed()},
          {"rounds", r.rounds},
          {"turns", r.turns},
          {"turnsCompleted", r.turnsCompleted},
          {"turnsFailed", r.turnsFailed},
          {"turnsLockBusy", r.turnsLockBusy},
          {"kills", r.kills},
          {"settlePasses", r.settlePasses},
          {"requests", r.requests},
          {"faultedRequests", r.faultedRequests},
          {"faultsByKind", r.faultsByKind},
          {"zipRequests", r.zipRequests},
          {"downloadRequests", r.downloadRequests},
          {"recordsChecked", r.recordsChecked},
          {"lost", r.lost},
          {"duplicated", r.duplicated},
          {"corrupted", r.corrupted},
          {"locksLeft", r.locksLeft},
          {"cooldownsNoted", r.cooldownsNoted},
          {"cooldownViolations", r.cooldownViolations},
          {"arrivedInMargin", r.arrivedInMargin},
          {"peakDownloadsInFlight", r.peakDownloadsInFlight},
          {"anomalies", r.anomalies},
          {"converged", r.converged},
          {"seconds", r.seconds},
          {"findings", r.findings}};
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Multi-device fault soak against an in-process emulator"};
  wdc::soak::SoakOptions options;
  uint64_t firstSeed = 1;
  uint64_t seedCount = 4;
  std::vector<uint64_t> seeds;
  bool json = false;
  app.add_option("--seed", seeds, "Run exactly these seeds (repeatable)");
  app.add_option("--first-seed", firstSeed, "First of --seeds consecutive seeds")
      ->capture_default_str();
  app.add_option("--seeds", seedCount, "How many consecutive seeds")->capture_default_str();
  app.add_option("--devices", options.devices, "Devices per seed")
      ->capture_default_str()
      ->check(CLI::Range(2, 16));
  app.add_option("--rounds", options.rounds, "Rounds per seed (each ends with a full check)")
      ->capture_default_str()
      ->check(CLI::Range(1, 1000));
  app.add_option("--turns", options.turnsPerRound, "Device turns per round before settling")
      ->capture_default_str()
      ->check(CLI::Range(1, 10000));
  app.add_option("--fault-rate", options.faultRate, "Share of requests answered with a fault")
      ->capture_default_str()
      ->check(CLI::Range(0.0, 0.6));
  app.add_option("--reset-rate", options.resetRate, "Share of list_folder/continue answered reset")
      ->capture_default_str()
      ->check(CLI::Range(0.0, 0.9));
  app.add_option("--entry-fault-rate", options.entryFaultRate,
                 "Share of batch entries failed with too_many_write_operations")
      ->capture_default_str()
      ->check(CLI::Range(0.0, 0.9));
  app.add_option("--kill-rate", options.killRate, "Share of turns killed mid-sync")
      ->capture_default_str()
      ->check(CLI::Range(0.0, 1.0));
  app.add_option("--time-factor", options.timeFactor, "How much faster the soak's clocks run")
      ->capture_default_str()
      ->check(CLI::Range(1.0, 100.0));
  int64_t marginMs = options.inFlightMargin.count();
  app.add_option("--in-flight-margin-ms", marginMs,
                 "Real time a request sent before a cooldown was noted may take to arrive")
      ->capture_default_str()
      ->check(CLI::Range(0, 10'000));
  app.add_flag("--verbose", options.verbose, "Print every turn");
  app.add_flag("--json", json, "One JSON document with every seed's report");
  CLI11_PARSE(app, argc, argv);
  options.inFlightMargin = std::chrono::milliseconds(marginMs);
  if (seeds.empty()) {
    for (uint64_t i = 0; i < seedCount; ++i) seeds.push_back(firstSeed + i);
  }
  wdc::log::setConsoleOutput(false);

  std::vector<SeedReport> reports;
  bool allPassed = true;
  for (uint64_t seed : seeds) {
    options.seed = seed;
    try {
      reports.push_back(wdc::soak::runSeed(options));
    } catch (const std::exception& e) {
      std::cerr << "wdc-soak: seed " << seed << ": " << e.what() << "\n";
      return 2;
    }
    allPassed = allPassed && reports.back().passed();
    if (!json) printSeed(reports.back());
  }

  SeedReport total;
  for (const SeedReport& r : reports) {
    total.rounds += r.rounds;
    total.turns += r.turns;
    total.turnsCompleted += r.turnsCompleted;
    total.turnsFailed += r.turnsFailed;
    total.turnsLockBusy += r.turnsLockBusy;
    total.kills += r.kills;
    total.requests += r.requests;
    total.faultedRequests += r.faultedRequests;
    total.zipRequests += r.zipRequests;
    total.downloadRequests += r.downloadRequests;
    for (const auto& [kind, n] : r.faultsByKind) total.faultsByKind[kind] += n;
    total.recordsChecked += r.recordsChecked;
    total.lost += r.lost;
    total.duplicated += r.duplicated;
    total.corrupted += r.corrupted;
    total.locksLeft += r.locksLeft;
    total.cooldownsNoted += r.cooldownsNoted;
    total.cooldownViolations += r.cooldownViolations;
    total.arrivedInMargin += r.arrivedInMargin;
    total.anomalies += r.anomalies;
    total.seconds += r.seconds;
    total.peakDownloadsInFlight = std::max(total.peakDownloadsInFlight, r.peakDownloadsInFlight);
  }
  if (json) {
    nlohmann::ordered_json all = nlohmann::ordered_json::array();
    for (const SeedReport& r : reports) all.push_back(toJson(r));
    std::cout << nlohmann::ordered_json{{"devices", options.devices},
                                        {"passed", allPassed},
                                        {"seeds", all}}
                     .dump(2)
              << "\n";
    return allPassed ? 0 : 1;
  }
  fmt::print(
      "\n{} seeds, {} devices each: {} rounds, {} turns ({} killed mid-sync, {} failed "
      "after retries, {} waited for a lock)\n",
      reports.size(), options.devices, total.rounds, total.turns, total.kills, total.turnsFailed,
      total.turnsLockBusy);
  fmt::print("requests {}, answered with a fault {} ({:.1f}%)\n", total.requests,
             total.faultedRequests,
             total.requests ? 100.0 * total.faultedRequests / total.requests : 0.0);
  for (const auto& [kind, n] : total.faultsByKind) fmt::print("  {:<38} {:>7}\n", kind, n);
  fmt::print("folder snapshot requests {}, single downloads {}\n", total.zipRequests,
             total.downloadRequests);
  fmt::print("records checked {}: lost {}, duplicated {}, corrupted {}; locks left {}\n",
             total.recordsChecked, total.lost, total.duplicated, total.corrupted, total.locksLeft);
  fmt::print(
      "cooldowns noted {}: requests inside one {} (in flight when noted: {}); peak "
      "downloads in flight {}\n",
      total.cooldownsNoted, total.cooldownViolations, total.arrivedInMargin,
      total.peakDownloadsInFlight);
  fmt::print("anomalies {}; {:.1f} s\n{}\n", total.anomalies, total.seconds,
             allPassed ? "PASSED" : "FAILED");
  return allPassed ? 0 : 1;
}
