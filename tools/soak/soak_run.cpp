#include "tools/soak/soak_run.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <memory>
#include <random>
#include <set>

#include "emulator/emulator.h"
#include "platform/env.h"
#include "tools/soak/device.h"
#include "tools/soak/dilated_env.h"
#include "tools/soak/ledger.h"
#include "tools/soak/request_audit.h"
#include "tools/soak/store_check.h"
#include "webdavconnect/dropbox_client_config.h"
#include "webdavconnect/payload.h"
#include "webdavconnect/webdav_connect.h"

namespace wdc::soak {
namespace {

constexpr const char* kToken = "soak-token";
constexpr int kMostSettlePasses = 40;

struct Kind {
  const char* rule;  // ROUTE:KIND[:ARG] without the probability
  double weight;
};
// Every kind of failure the store can answer with, weighted by how often it comes.
constexpr Kind kFaultMix[] = {
    {"*:429:1", 2.5}, {"*:429", 2}, {"*:429:1h", 1}, {"*:429:1b", 0.5},   {"*:429w:1", 1.5},
    {"*:500", 3},     {"*:503", 3}, {"*:drop", 3},   {"*:truncate", 2.5}, {"*:corrupt", 2.5},
};

// Probabilities for the mix such that a request meets one of its faults with probability
// `rate` (each rule draws in turn; the first that hits answers).
double scaleFor(double rate) {
  double total = 0;
  for (const Kind& kind : kFaultMix) total += kind.weight;
  double low = 0, high = 1 / (kFaultMix[0].weight / total);
  for (int i = 0; i < 60; ++i) {
    const double mid = (low + high) / 2;
    double clean = 1;
    for (const Kind& kind : kFaultMix) clean *= 1 - std::min(1.0, mid * kind.weight / total);
    (1 - clean < rate ? low : high) = mid;
  }
  return low / total;
}

void addFaults(emu::Emulator& emulator, const SoakOptions& options) {
  auto add = [&](const std::string& text) {
    std::string problem;
    auto rule = emu::parseFaultRule(text, &problem);
    if (!rule) throw std::runtime_error("bad fault rule " + text + ": " + problem);
    emulator.addFault(*rule);
  };
  add(fmt::format("files/list_folder/continue:reset@{}", options.resetRate));
  add(fmt::format("files/upload_session/finish_batch/entry:429w@{}", options.entryFaultRate));
  add(fmt::format("files/delete_batch/entry:429w@{}", options.entryFaultRate));
  // Downloads take a little longer, so overlapping ones are seen overlapping.
  add("files/download:latency:40@0.5");
  const double scale = scaleFor(options.faultRate);
  for (const Kind& kind : kFaultMix) add(fmt::format("{}@{:.6f}", kind.rule, kind.weight * scale));
}

}  // namespace

bool SeedReport::passed() const {
  return lost == 0 && duplicated == 0 && corrupted == 0 && locksLeft == 0 &&
         cooldownViolations == 0 && peakDownloadsInFlight <= 4 && anomalies == 0 && converged;
}

SeedReport runSeed(const SoakOptions& options) {
  SeedReport report;
  report.seed = options.seed;
  const auto began = std::chrono::steady_clock::now();
  const std::filesystem::path scratch =
      Env::real().temporaryDirectory() /
      fmt::format("wdc-soak-{}-{}", options.seed, Env::real().newUUID());
  {
    DilatedEnv env(options.timeFactor, options.seed, scratch / "tmp");
    ScopedEnv scopedEnv(env);
    // The lock file is uploaded from the current directory: a host keeps it at its temp dir.
    const auto previousDirectory = std::filesystem::current_path();
    std::filesystem::current_path(env.temporaryDirectory());

    RequestAudit audit(std::chrono::duration_cast<std::chrono::nanoseconds>(options.inFlightMargin *
                                                                            options.timeFactor));
    Ledger ledger;
    {
      emu::Emulator emulator(
          {.tls = true, .token = kToken, .faultSeed = options.seed, .env = &env});
      audit.watch(emulator);
      std::string problem;
      if (!emulator.start(&problem) ||
          !emulator.writeCertificate(scratch / "emulator.pem", &problem)) {
        throw std::runtime_error("the emulator did not start: " + problem);
      }
      DropboxClientConfig config;
      config.apiBaseUrl = config.contentBaseUrl = emulator.baseUrl();
      config.caFile = scratch / "emulator.pem";
      config.tokenStorePath = scratch / "tokens.json";
      std::optional<Error> error;
      if (!setUpDropboxClient(config, &error) ||
          !linkDropboxAccount(DropboxAccountToken{kToken, {}, {}}, &error)) {
        throw std::runtime_error("could not link the emulator: " +
                                 (error ? error->description() : std::string()));
      }
      WebDAVConnect::resetDropboxRateLimitStateForTesting();
      addFaults(emulator, options);

      std::mt19937_64 random(options.seed);
      DeviceSettings settings;
      std::vector<std::unique_ptr<Device>> devices;
      for (int i = 0; i < options.devices; ++i) {
        devices.push_back(std::make_unique<Device>(fmt::format("dev{}", i + 1), ledger, settings));
      }
      std::vector<bool> started(devices.size(), false);
      auto count = [&](const Device& device, const TurnResult& turn) {
        ++report.turns;
        switch (turn.outcome) {
          case TurnOutcome::kCompleted:
            ++report.turnsCompleted;
            break;
          case TurnOutcome::kFailed:
            ++report.turnsFailed;
            break;
          case TurnOutcome::kLockBusy:
            ++report.turnsLockBusy;
            break;
          case TurnOutcome::kKilled:
            ++report.kills;
            break;
        }
        if (options.verbose) {
          fmt::print(stderr, "  seed {} {}: {} down {} up {} del {} locks cleared {}{}\n",
                     options.seed, device.id(),
                     turn.outcome == TurnOutcome::kCompleted  ? "completed"
                     : turn.outcome == TurnOutcome::kFailed   ? "failed"
                     : turn.outcome == TurnOutcome::kLockBusy ? "lock busy"
                                                              : "killed",
                     turn.downloaded, turn.uploaded, turn.filesDeleted, turn.locksCleared,
                     turn.failure.empty() ? "" : " (" + turn.failure + ")");
        }
      };

      for (int round = 1; round <= options.rounds; ++round) {
        for (int t = 0; t < options.turnsPerRound; ++t) {
          const size_t which = random() % devices.size();
          Device& device = *devices[which];
          if (!started[which]) {
            device.createRecords(random, 15 + random() % 25);
            started[which] = true;
          } else {
            device.edit(random, random() % 6);
          }
          const bool kill = std::uniform_real_distribution<double>(0, 1)(random) < options.killRate;
          const KillPoint at =
              kill ? kKillPoints[random() % std::size(kKillPoints)] : KillPoint::kNone;
          count(device, device.sync(at));
          if (kill) device.drain();
        }
        // Settle: turns without kills (faults stay on) until every device has completed a turn
        // with nothing to do since the store last changed. A dead device's lock holds the
        // others off until it is stale.
        bool settled = false;
        int64_t tick = 0, lastChange = 0;
        std::vector<int64_t> cleanAt(devices.size(), -1);
        for (int pass = 0; pass < kMostSettlePasses && !settled; ++pass) {
          ++report.settlePasses;
          for (size_t i = 0; i < devices.size(); ++i) {
            ++tick;
            const bool hadWork = devices[i]->hasPendingWork();
            const TurnResult turn = devices[i]->sync();
            count(*devices[i], turn);
            // An upload that failed may still have landed: any attempt counts as a change.
            if (hadWork || turn.uploaded > 0 || turn.filesDeleted > 0) lastChange = tick;
            const bool clean = turn.outcome == TurnOutcome::kCompleted && !hadWork &&
                               !devices[i]->hasPendingWork();
            cleanAt[i] = clean ? tick : -1;
            if (turn.outcome == TurnOutcome::kLockBusy) env.sleepFor(settings.staleLockAfter / 2);
          }
          settled = std::all_of(cleanAt.begin(), cleanAt.end(),
                                [&](int64_t at) { return at > lastChange; });
        }
        if (!settled) {
          report.converged = false;
          noteFinding(report, fmt::format("round {}: the devices did not settle in {} passes",
                                          round, kMostSettlePasses));
        }
        checkRound(round, emulator, ledger, devices, report);
        ++report.rounds;
      }
      devices.clear();  // waits for anything still owed
      emulator.stop();
      report.requests = emulator.requestCount("*");
      report.zipRequests = emulator.requestCount("files/download_zip");
      report.downloadRequests = emulator.requestCount("files/download");
      report.faultsByKind = emulator.injectedFaultCounts();
      for (const auto& [kind, n] : report.faultsByKind) {
        if (kind.find("batch entries") == std::string::npos) report.faultedRequests += n;
      }
      unlinkDropboxAccount();
    }
    const RequestAuditFindings found = audit.findings();
    report.cooldownsNoted = found.cooldownsNoted;
    report.cooldownViolations = found.cooldownViolations;
    report.arrivedInMargin = found.arrivedInMargin;
    report.peakDownloadsInFlight = found.peakDownloadsInFlight;
    for (const std::string& example : found.examples) noteFinding(report, "cooldown: " + example);
    for (const std::string& anomaly : ledger.anomalies()) {
      ++report.anomalies;
      noteFinding(report, anomaly);
    }
    WebDAVConnect::resetDropboxRateLimitStateForTesting();
    // Empties the process-wide folder snapshot cache before the next seed's store.
    WebDAVConnect(kConnectionTypeDropbox, std::nullopt, std::nullopt).removeAllResources();
    std::filesystem::current_path(previousDirectory);
  }
  std::error_code ignored;
  std::filesystem::remove_all(scratch, ignored);
  report.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
  return report;
}

}  // namespace wdc::soak
