// What WebDAVConnect costs on top of the client, and whether a shared cooldown holds.
//
// 1. Overhead: users/get_current_account against the loopback emulator (TLS, keep-alive), sent
//    (a) straight through the client and waited for on a semaphore, the least any blocking call
//    can do, and (b) through the public operation getAccountUsername (cooldown check, type check,
//    retry loop, blocking call, error mapping). The difference is our overhead per operation.
// 2. Cooldown: several connections on their own threads call getAccountUsername in a loop while
//    the emulator answers a share of requests 429 with Retry-After 2. Every 429 opens the shared
//    cooldown, so no request of any connection may reach the server until it has passed. The
//    emulator notes when each request arrives; a request arriving more than the in-flight margin
//    after a 429 was answered and before that 429's cooldown ends is a violation.
#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "core/retry_loop.h"
#include "dbx/clients_manager.h"
#include "emulator/emulator.h"
#include "platform/env.h"
#include "platform/logger.h"
#include "platform/semaphore.h"
#include "support/bench_util.h"
#include "webdavconnect/webdav_connect.h"

namespace wdc::bench {
namespace {

constexpr const char* kToken = "bench-token";
constexpr const char* kRoute = "users/get_current_account";

void linkClient(const emu::Emulator& emulator, const std::filesystem::path& folder) {
  std::filesystem::create_directories(folder);
  const auto certificate = folder / "emulator.pem";
  (void)emulator.writeCertificate(certificate);
  dbx::DBTokenStoreContents store;
  store.oauth2 = dbx::DBOAuth2Token{.uid = "dbid:bench", .accessToken = kToken, .refreshToken = {}, .expiresAt = {}};
  (void)dbx::saveTokenStore(folder / "tokens.json", store);
  dbx::DBClientConfig config;
  config.apiBaseUrl = emulator.baseUrl();
  config.contentBaseUrl = emulator.baseUrl();
  config.caFile = certificate;
  config.tokenStorePath = folder / "tokens.json";
  (void)dbx::DBClientsManager::setupWithConfig(config);
}

std::shared_ptr<WebDAVConnect> newConnection() {
  auto connection =
      WebDAVConnect::initWithConnectionType(kConnectionTypeDropbox, std::nullopt, std::nullopt);
  connection->queueToUse = std::make_shared<SerialQueue>("bench.answers");
  return connection;
}

void overhead() {
  emu::Emulator emulator({.tls = true, .token = kToken});
  if (!emulator.start()) {
    fmt::print("emulator did not start\n");
    return;
  }
  linkClient(emulator, Env::current().temporaryDirectory() / "wdc-bench-core");
  auto client = dbx::DBClientsManager::authorizedClient();
  auto connection = newConnection();
  auto queue = connection->queueToUse;

  auto raw = [&] {
    CountingSemaphore done(0);
    client->usersRoutes().getCurrentAccount().setResponseBlock(
        [&](const dbx::DBUSERSFullAccount* account, const dbx::DBVoid*,
            const dbx::DBRequestError*) {
          doNotOptimize(account);
          done.signal();
        },
        queue);
    done.wait();
  };
  auto backend = [&] {
    auto name = connection->getDropboxAccountUsername(nullptr);
    doNotOptimize(&name);
  };
  auto pub = [&] {
    std::optional<Error> error;
    auto name = connection->getAccountUsername(&error);
    if (!name) fmt::print("unexpected failure\n");
  };
  for (int i = 0; i < 200; ++i) raw(), pub();  // warm the connection and the allocator

  // Interleave the three in rounds so drift in the machine's load hits all of them alike.
  std::vector<double> rawNs, backendNs, publicNs;
  for (int round = 0; round < 7; ++round) {
    rawNs.push_back(measure("raw", raw, 0, 0.4).nanosPerOp);
    backendNs.push_back(measure("backend", backend, 0, 0.4).nanosPerOp);
    publicNs.push_back(measure("public", pub, 0, 0.4).nanosPerOp);
  }
  auto median = [](std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
  };
  std::vector<Measurement> rows{{"client request + semaphore wait", median(rawNs)},
                                {"getDropboxAccountUsername (backend)", median(backendNs)},
                                {"getAccountUsername (public operation)", median(publicNs)}};
  printTable("users/get_current_account over loopback TLS, one connection (median of 7 rounds)",
             rows);
  fmt::print("  overhead of the public operation over the raw request: {:.1f} us per operation\n",
             (median(publicNs) - median(rawNs)) / 1000.0);
  fmt::print("  overhead of the backend operation over the raw request: {:.1f} us per operation\n\n",
             (median(backendNs) - median(rawNs)) / 1000.0);
  dbx::DBClientsManager::resetClients();
  emulator.stop();

  // The same machinery without the network, which is what the difference above cannot resolve
  // below its noise: the retry loop (cooldown and type checks) around an attempt that records a
  // successful answer and reads it back, as the blocking call does after its wait.
  const RetryMessages messages{.failure = [](const Error&) { return std::string(); },
                               .retry = [](const Error&, int64_t) { return std::string(); },
                               .rateLimitName = "bench"};
  auto machinery = [&] {
    std::optional<Error> error;
    std::optional<std::string> name;
    runSynchronousRetryLoop(*connection, messages, &error, [&](ErrorOut attemptError) {
      connection->setAsyncErrorIfRequired(nullptr);
      if (connection->checkIfRequestFailed(attemptError)) return false;
      name = std::string("Emu Lator");
      return name.has_value();
    });
    doNotOptimize(&name);
  };
  printTable("public-operation machinery without the network",
             {measure("retry loop + outcome record and check", machinery)});
  fmt::print("\n");
}

void cooldown(int connections, double seconds, double faultProbability) {
  WebDAVConnect::resetDropboxRateLimitStateForTesting();
  emu::Emulator emulator({.tls = true, .token = kToken, .faultSeed = 7});
  std::mutex mutex;
  struct Arrival {
    std::chrono::nanoseconds at;
    bool rateLimited;
  };
  std::vector<Arrival> arrivals;
  emulator.setArrivalObserver([&](std::string_view route, bool rateLimited, std::chrono::nanoseconds at) {
    if (route != kRoute) return;
    std::lock_guard lock(mutex);
    arrivals.push_back({at, rateLimited});
  });
  emulator.addFault(emu::FaultRule{.route = kRoute, .kind = emu::FaultKind::kTooManyRequests,
                                   .argument = 2, .probability = faultProbability});
  if (!emulator.start()) return;
  linkClient(emulator, Env::current().temporaryDirectory() / "wdc-bench-core");

  std::atomic<bool> stop{false};
  std::atomic<int64_t> succeeded{0}, failed{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < connections; ++i) {
    threads.emplace_back([&] {
      auto connection = newConnection();
      while (!stop.load()) {
        std::optional<Error> error;
        (connection->getAccountUsername(&error) ? succeeded : failed).fetch_add(1);
      }
    });
  }
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  stop = true;
  for (auto& t : threads) t.join();
  emulator.stop();
  dbx::DBClientsManager::resetClients();

  // A 429 answered at t opens a cooldown of at least 2 s from when the client reads it, a moment
  // after t. Requests already sent by then may still arrive: allow them a margin.
  constexpr auto kInFlightMargin = std::chrono::milliseconds(100);
  constexpr auto kCooldown = std::chrono::seconds(2);
  std::sort(arrivals.begin(), arrivals.end(),
            [](const Arrival& a, const Arrival& b) { return a.at < b.at; });
  int64_t violations = 0, inMargin = 0, limited = 0;
  std::chrono::nanoseconds lastLimit{};
  bool anyLimit = false;
  for (const auto& arrival : arrivals) {
    if (anyLimit) {
      auto since = arrival.at - lastLimit;
      if (since < kInFlightMargin) {
        ++inMargin;
      } else if (since < kCooldown) {
        ++violations;
      }
    }
    if (arrival.rateLimited) {
      ++limited;
      lastLimit = arrival.at;  // every 429 the client reads opens a new cooldown
      anyLimit = true;
    }
  }
  fmt::print(
      "cooldown: {} connections, {:.0f} s, 429 (Retry-After 2) on {:.0f}% of requests\n"
      "  requests {}, answered 429 {}, operations succeeded {}, failed {}\n"
      "  arrivals within {} ms after a 429 (already in flight): {}\n"
      "  violations (arrived inside a cooldown): {}\n\n",
      connections, seconds, faultProbability * 100, arrivals.size(), limited, succeeded.load(),
      failed.load(), kInFlightMargin.count(), inMargin, violations);
}

}  // namespace
}  // namespace wdc::bench

int main() {
  wdc::log::setConsoleOutput(false);
  wdc::bench::overhead();
  wdc::bench::cooldown(8, 20.0, 0.05);
  return 0;
}
