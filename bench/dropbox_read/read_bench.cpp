// Pulling every record of one folder (listing, download, decode) against the TLS emulator with
// 20 ms added to every request, side by side in one run:
//   (a) through the folder snapshot: the delta listing (which marks the folder), one ZIP,
//       records read from the extraction;
//   (b) the delta listing, then per file through the asynchronous getContentsForFile, 4 slots;
//   (c) the official Python SDK listing, downloading with 4 threads and decoding the same records;
//   floor: one ZIP transfer, its extraction and the decoding of every record, timed alone.
// Each contender connects before its clock starts; the fast ones run several rounds, best counts.
// Extraction writes one file per record into the temporary directory (TMPDIR), so the file
// system decides much of (a) and the floor: on a disk where creating a file costs milliseconds,
// run with TMPDIR on a tmpfs (e.g. TMPDIR=/dev/shm), as the host's temp dir usually is.
// WDC_BENCH_PHASES=1 prints the phases of (a) and the floor to standard error.
// Usage: bench_dropbox_read [RECORDS] [SLOW_ROUNDS]
#include <fmt/format.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "dbx/clients_manager.h"
#include "dbx/token_store.h"
#include "emulator/emulator.h"
#include "platform/env.h"
#include "platform/logger.h"
#include "support/sdk_peer.h"
#include "webdavconnect/payload.h"
#include "webdavconnect/webdav_connect.h"
#include "webdavconnect/zip_snapshot.h"

namespace {

using wdc::WebDAVConnect;
using wdc::WebDAVDropboxZipSnapshot;
using wdc::WebDAVFileMetaData;

constexpr int kThreads = 4;
constexpr uint32_t kLatencyMs = 20;
constexpr int kFastRounds = 5;
constexpr const char* kFolder = "tod";

std::string recordName(int i) { return fmt::format("o_a_k_C1_p_P1_i_R{}_d_D1.tod", i); }

double now() { return wdc::toSeconds(wdc::Env::real().uptime()); }

// About 1 KB stored: a title, a note of random letters (so gzip cannot shrink it away), a number.
std::string storedRecord(int i, std::mt19937& random) {
  std::string note(900, ' ');
  std::uniform_int_distribution<int> letter('a', 'z');
  for (char& c : note) c = static_cast<char>(letter(random));
  wdc::PlistDictionary payload{{"title", wdc::PlistValue(fmt::format("Task {}", i))},
                               {"note", wdc::PlistValue(note)},
                               {"priority", wdc::PlistValue(int64_t{i % 5})}};
  auto stored = wdc::encodeStoredPayload(wdc::PlistValue(payload));
  return std::string(stored->begin(), stored->end());
}

// The folder's records from a fresh delta listing (the whole change feed, 1,000 a page).
std::vector<std::shared_ptr<WebDAVFileMetaData>> deltaListing(WebDAVConnect& connection) {
  auto files = connection.getDeltaFileList(nullptr, std::string("/") + kFolder, std::nullopt,
                                           std::nullopt, false);
  return files ? *files : std::vector<std::shared_ptr<WebDAVFileMetaData>>{};
}

bool hasTitle(const std::shared_ptr<wdc::WebDAVFileContents>& contents) {
  return contents && contents->FileContents && contents->FileContents->find("title") != nullptr;
}

// (a) listing, marking, then every record through the blocking getContentsForFile: the first
// one fetches the folder's ZIP, the rest are read from the extraction.
double runSnapshot(WebDAVConnect& connection, int records) {
  const double start = now();
  // The delta listing empties the snapshot cache and marks the record folders it counted.
  auto files = deltaListing(connection);
  const double listed = now();
  double warmed = listed;
  int good = 0;
  for (const auto& file : files) {
    if (hasTitle(connection.getContentsForFile(file, kFolder, nullptr))) ++good;
    if (good == 1) warmed = now();
  }
  const double elapsed = now() - start;
  if (std::getenv("WDC_BENCH_PHASES") != nullptr) {
    std::fprintf(stderr, "snapshot phases: listing %.3f s, first record %.3f s, the rest %.3f s\n",
                 listed - start, warmed - listed, now() - warmed);
  }
  return good == records ? elapsed : -1;
}

// (b) listing, then every record through the asynchronous getContentsForFile; the 4 download
// slots bound how many are in flight.
double runPerFile(WebDAVConnect& connection, int records) {
  const double start = now();
  auto files = deltaListing(connection);
  // Per file on purpose: forget the snapshot marking the listing made.
  WebDAVDropboxZipSnapshot::sharedSnapshot().reset();
  std::atomic<int> good{0};
  std::atomic<int> done{0};
  std::promise<void> finished;
  const int total = static_cast<int>(files.size());
  for (const auto& file : files) {
    connection.getContentsForFile(file, kFolder, 3, [&](auto contents, auto) {
      if (hasTitle(contents)) ++good;
      if (++done == total) finished.set_value();
    });
  }
  if (total > 0) finished.get_future().wait();
  const double elapsed = now() - start;
  return good == records ? elapsed : -1;
}

// The floor: one ZIP transfer, its extraction and every record decoded, nothing else.
double runFloor(int records) {
  auto client = wdc::dbx::DBClientsManager::authorizedClient();
  WebDAVDropboxZipSnapshot cache;
  const auto zip = wdc::Env::real().temporaryDirectory() / "floor.zip";
  const double start = now();
  std::promise<bool> answer;
  client->filesRoutes()
      .downloadZipUrl(std::string("/") + kFolder, true, zip)
      .setResponseBlock([&answer](const auto* result, const auto*, const auto*, const auto&) {
        answer.set_value(result != nullptr);
      });
  if (!answer.get_future().get()) return -1;
  const double fetched = now();
  std::string extraction;
  wdc::WebDAVZipPayloadIndex index;
  if (!cache.extractZipAtPath(zip.string(), kFolder, &extraction, &index)) return -1;
  const double extracted = now();
  int good = 0;
  for (const auto& [name, path] : index) {
    std::ifstream in(path, std::ios::binary);
    wdc::Bytes bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    auto data = wdc::decodeStoredPayload(bytes, nullptr);
    if (data && data->isDictionary() && data->asDictionary().find("title") != nullptr) ++good;
  }
  const double elapsed = now() - start;
  if (std::getenv("WDC_BENCH_PHASES") != nullptr) {
    std::fprintf(stderr, "floor phases: zip %.3f s, extract %.3f s, decode %.3f s\n",
                 fetched - start, extracted - fetched, now() - extracted);
  }
  std::error_code ignored;
  std::filesystem::remove_all(extraction, ignored);
  std::filesystem::remove(zip, ignored);
  return good == records ? elapsed : -1;
}

// (c) the official Python SDK: seconds, or -1 when it failed or decoded fewer records.
double runPythonSdk(const wdc::emu::Emulator& emulator, const std::string& caFile, int records) {
  const auto line = wdc::bench::runSdkScript(emulator.hostAndPort(), caFile,
                                             "dropbox_read/sdk_read.py",
                                             "/" + std::string(kFolder) + " " +
                                                 std::to_string(kThreads));
  double seconds = -1;
  int decoded = 0;
  const bool read = line && std::sscanf(line->c_str(), "%lf %d", &seconds, &decoded) == 2;
  return read && decoded == records ? seconds : -1;
}

double best(const std::vector<double>& runs) {
  double result = -1;
  for (double r : runs) {
    if (r < 0) return -1;  // any failed run fails the contender
    if (result < 0 || r < result) result = r;
  }
  return result;
}

void printRow(const char* name, double s, double sdk, double floor, int records) {
  if (s <= 0) {
    std::printf("%-44s %12s\n", name, "FAILED");
    return;
  }
  std::printf("%-44s %9.3f s %10.0f rec/s %10.1fx %10.2fx\n", name, s, records / s,
              sdk > 0 ? sdk / s : 0.0, floor > 0 ? s / floor : 0.0);
}

}  // namespace

int main(int argc, char** argv) {
  const int records = argc > 1 ? std::atoi(argv[1]) : 2000;
  const int slowRounds = argc > 2 ? std::atoi(argv[2]) : 1;
  wdc::log::setConsoleOutput(false);
  wdc::log::setLevel(wdc::log::Level::kWarning);

  wdc::emu::Emulator emulator({.tls = true, .token = "T", .latencyMs = kLatencyMs});
  std::string error;
  if (!emulator.start(&error)) {
    std::fprintf(stderr, "emulator: %s\n", error.c_str());
    return 1;
  }
  const auto scratch = wdc::Env::real().temporaryDirectory() / "dropbox_read_bench";
  std::filesystem::create_directories(scratch);
  const std::string caFile = (scratch / "emulator.pem").string();
  if (!emulator.writeCertificate(caFile, &error)) {
    std::fprintf(stderr, "certificate: %s\n", error.c_str());
    return 1;
  }
  std::mt19937 random(7);
  for (int i = 0; i < records; ++i) {
    emulator.putFile(fmt::format("/{}/{}", kFolder, recordName(i)), storedRecord(i, random));
  }

  wdc::dbx::DBTokenStoreContents tokens;
  tokens.oauth2 = wdc::dbx::DBOAuth2Token{.uid = "dbid:bench", .accessToken = "T",
                                          .refreshToken = {}, .expiresAt = {}};
  const auto tokenStore = scratch / "tokens.json";
  if (!wdc::dbx::saveTokenStore(tokenStore, tokens)) {
    std::fprintf(stderr, "cannot write the token store\n");
    return 1;
  }
  wdc::dbx::DBClientConfig config;
  config.apiBaseUrl = emulator.baseUrl();
  config.contentBaseUrl = emulator.baseUrl();
  config.caFile = caFile;
  config.tokenStorePath = tokenStore;
  if (!wdc::dbx::DBClientsManager::setupWithConfig(config)) {
    std::fprintf(stderr, "client setup failed\n");
    return 1;
  }
  auto connection = WebDAVConnect::initWithConnectionType(wdc::kConnectionTypeDropbox,
                                                          std::nullopt, std::nullopt);
  connection->queueToUse = std::make_shared<wdc::SerialQueue>("bench.dropbox.answers");
  connection->getAccountUsername(nullptr);  // connect before any clock starts

  std::vector<double> snapshot, floor, perFile, sdk;
  for (int round = 0; round < kFastRounds; ++round) {
    floor.push_back(runFloor(records));
    snapshot.push_back(runSnapshot(*connection, records));
  }
  const uint64_t zipRequestsBefore = emulator.requestCount("files/download_zip");
  for (int round = 0; round < slowRounds; ++round) {
    perFile.push_back(runPerFile(*connection, records));
    sdk.push_back(runPythonSdk(emulator, caFile, records));
  }
  const bool perFileStayedPerFile =
      emulator.requestCount("files/download_zip") == zipRequestsBefore;

  const double a = best(snapshot);
  const double b = perFileStayedPerFile ? best(perFile) : -1;
  const double c = best(sdk);
  const double f = best(floor);
  std::printf("Pull %d records of ~1 KB from one folder, %u ms added per request (best of %d/%d "
              "rounds)\n",
              records, kLatencyMs, kFastRounds, slowRounds);
  double load = 0;
  if (FILE* loadavg = std::fopen("/proc/loadavg", "r")) {
    if (std::fscanf(loadavg, "%lf", &load) != 1) load = 0;
    std::fclose(loadavg);
  }
  std::printf("temporary directory %s; load average %.1f on %u cores\n",
              wdc::Env::real().temporaryDirectory().c_str(), load,
              std::thread::hardware_concurrency());
  std::printf("%-44s %11s %16s %11s %11s\n", "", "time", "throughput", "x of SDK", "of floor");
  printRow("(a) folder snapshot (getContentsForFile)", a, c, f, records);
  printRow("(b) per file, async getContentsForFile, 4 slots", b, c, f, records);
  printRow("(c) Python SDK, 4 threads", c, c, f, records);
  printRow("floor: one ZIP + extraction + decoding", f, c, f, records);
  if (a > 0 && c > 0 && f > 0) {
    std::printf("aim: (a) >= 50x faster than (c): %.1fx %s; (a) within 2x of the floor: %.2fx %s\n",
                c / a, c / a >= 50 ? "met" : "NOT met", a / f, a / f <= 2 ? "met" : "NOT met");
  }
  WebDAVDropboxZipSnapshot::sharedSnapshot().reset();
  wdc::dbx::DBClientsManager::resetClients();
  emulator.stop();
  std::error_code ignored;
  std::filesystem::remove_all(scratch, ignored);
  return a > 0 && b > 0 && c > 0 && f > 0 ? 0 : 1;
}
