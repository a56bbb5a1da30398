// What a batch delete saves over single deletes when every request pays a round trip.
//
// 1,000 record files are deleted from the loopback emulator (TLS, keep-alive), which adds 20 ms to
// every request like a distant server: once as one batch (deleteArbitraryFiles: one
// files/delete_batch and its polls) and once one by one (deleteArbitraryFile: 1,000
// files/delete_v2). Both run in the same process against the same emulator, side by side; the
// store is refilled before each run and checked empty after it.
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "dbx/clients_manager.h"
#include "dbx/token_store.h"
#include "emulator/emulator.h"
#include "platform/env.h"
#include "platform/logger.h"
#include "webdavconnect/operation_queue.h"
#include "webdavconnect/webdav_connect.h"

namespace wdc::bench {
namespace {

constexpr const char* kToken = "bench-token";
constexpr const char* kFolder = "Bench";
constexpr int kFiles = 1000;
constexpr uint32_t kLatencyMs = 20;
constexpr int kBatchRounds = 3;

bool linkClient(const emu::Emulator& emulator, const std::filesystem::path& folder) {
  std::filesystem::create_directories(folder);
  const auto certificate = folder / "emulator.pem";
  if (!emulator.writeCertificate(certificate)) return false;
  dbx::DBTokenStoreContents store;
  store.oauth2 = dbx::DBOAuth2Token{
      .uid = "dbid:bench", .accessToken = kToken, .refreshToken = {}, .expiresAt = {}};
  if (!dbx::saveTokenStore(folder / "tokens.json", store)) return false;
  dbx::DBClientConfig config;
  config.apiBaseUrl = emulator.baseUrl();
  config.contentBaseUrl = emulator.baseUrl();
  config.caFile = certificate;
  config.tokenStorePath = folder / "tokens.json";
  return dbx::DBClientsManager::setupWithConfig(config);
}

std::string recordName(int i) {
  return WebDAVFileMetaData::createEncodedPathWithOpType("u", "C1", "P1", fmt::format("R{:04}", i),
                                                         "tod");
}

void fill(emu::Emulator& emulator) {
  for (int i = 0; i < kFiles; ++i) {
    (void)emulator.putFile(fmt::format("/{}/{}", kFolder, recordName(i)), "payload");
  }
}

bool emptied(const emu::Emulator& emulator) {
  return emulator.listPaths() == std::vector<std::string>{fmt::format("/{}", kFolder)};
}

double secondsSince(std::chrono::nanoseconds start) {
  return toSeconds(Env::current().uptime() - start);
}

}  // namespace
}  // namespace wdc::bench

int main() {
  using namespace wdc;
  using namespace wdc::bench;
  log::setConsoleOutput(false);
  emu::Emulator emulator({.tls = true, .token = kToken, .latencyMs = kLatencyMs});
  if (!emulator.start() ||
      !linkClient(emulator, Env::current().temporaryDirectory() / "wdc-bench-delete")) {
    fmt::print("emulator did not start or the client could not be linked\n");
    return 1;
  }
  auto connection =
      WebDAVConnect::initWithConnectionType(kConnectionTypeDropbox, std::nullopt, std::nullopt);
  connection->queueToUse = std::make_shared<SerialQueue>("bench.delete.answers");

  std::vector<std::string> paths;
  for (int i = 0; i < kFiles; ++i) paths.push_back(fmt::format("{}/{}", kFolder, recordName(i)));

  std::vector<double> batchSeconds;
  uint64_t batchRequests = 0;
  for (int round = 0; round < kBatchRounds; ++round) {
    fill(emulator);
    emulator.resetRequestCounts();
    std::optional<Error> error;
    const auto start = Env::current().uptime();
    const bool ok = connection->deleteArbitraryFiles(paths, &error);
    batchSeconds.push_back(secondsSince(start));
    batchRequests = emulator.requestCount("*");
    if (!ok || !emptied(emulator)) {
      fmt::print("batch delete failed: {}\n", error ? error->description() : "files left over");
      return 1;
    }
  }
  std::sort(batchSeconds.begin(), batchSeconds.end());
  const double batch = batchSeconds[batchSeconds.size() / 2];

  fill(emulator);
  emulator.resetRequestCounts();
  const auto start = Env::current().uptime();
  for (int i = 0; i < kFiles; ++i) {
    std::optional<Error> error;
    if (!connection->deleteArbitraryFile(recordName(i), std::string(kFolder), &error)) {
      fmt::print("single delete {} failed: {}\n", i, error ? error->description() : "not deleted");
      return 1;
    }
  }
  const double single = secondsSince(start);
  const uint64_t singleRequests = emulator.requestCount("*");
  if (!emptied(emulator)) {
    fmt::print("single deletes left files over\n");
    return 1;
  }

  fmt::print("Deleting {} records, emulator over TLS with {} ms added per request\n", kFiles,
             kLatencyMs);
  fmt::print("{:<34} {:>10} {:>10} {:>12} {:>12}\n", "", "seconds", "requests", "ms/record",
             "x of single");
  fmt::print("{:<34} {:>10.3f} {:>10} {:>12.3f} {:>12.1f}\n", "1,000 single deletes (delete_v2)",
             single, singleRequests, single * 1000 / kFiles, 1.0);
  fmt::print("{:<34} {:>10.3f} {:>10} {:>12.3f} {:>12.1f}\n", "one batch (delete_batch + polls)",
             batch, batchRequests, batch * 1000 / kFiles, single / batch);
  fmt::print("batch: median of {} rounds\n", kBatchRounds);
  emulator.stop();
  return 0;
}
