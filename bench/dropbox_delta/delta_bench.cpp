// A delta listing of 100,000 record files against the TLS emulator, side by side in one run:
//   - webdavconnect's getDeltaFileList fetch (every page, the cache, the extension flags, the
//     snapshot marking and the filter for one folder);
//   - the floor: our Dropbox client paging list_folder/continue alone, entries decoded and
//     dropped (what any listing costs before our work on it);
//   - the official Python SDK paging the same listing.
// Then the cache-only calls a sync makes after one fetch (one per record extension), per second,
// and the process's peak resident memory. The emulator runs in a child process, so the memory
// figures are the client's alone.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <string>
#include <vector>

#include "dbx/clients_manager.h"
#include "dbx/routes.h"
#include "emulator/emulator.h"
#include "platform/env.h"
#include "platform/logger.h"
#include "support/sdk_peer.h"
#include "platform/semaphore.h"
#include "webdavconnect/operation_queue.h"
#include "webdavconnect/webdav_connect.h"

namespace {

constexpr int kEntries = 100'000;
constexpr int kRounds = 3;
constexpr int kCacheOnlyRounds = 20;
constexpr std::array<const char*, 6> kFolders = {"cal", "col", "cag", "cat", "loc", "tod"};

double seconds(std::chrono::nanoseconds d) { return wdc::toSeconds(d); }
double now() { return seconds(wdc::Env::real().uptime()); }

double peakResidentMegabytes() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_maxrss) / 1024.0;  // Linux reports kilobytes
}

std::string recordPath(int index) {
  char path[96];
  std::snprintf(path, sizeof path, "/%s/o_a_k_c%d_p_p%d_i_u%06d_d_dev.%s",
                kFolders[index % kFolders.size()], index % 7, index % 13, index,
                kFolders[index % kFolders.size()]);
  return path;
}

// ---- the emulator, in a child process ----

struct Child {
  pid_t pid = -1;
  int keepAlive = -1;  // closing it tells the child to stop
  uint16_t port = 0;
};

Child startEmulatorChild(const std::string& certificatePath) {
  int ready[2];
  int stop[2];
  if (pipe(ready) != 0 || pipe(stop) != 0) return {};
  const pid_t pid = fork();
  if (pid == 0) {
    close(ready[0]);
    close(stop[1]);
    wdc::log::setConsoleOutput(false);
    wdc::emu::Emulator emulator({.tls = true, .token = "T"});
    if (!emulator.start()) _exit(1);
    for (int i = 0; i < kEntries; ++i) emulator.putFile(recordPath(i), "x");
    if (!emulator.writeCertificate(certificatePath)) _exit(1);
    const std::string port = std::to_string(emulator.port()) + "\n";
    if (write(ready[1], port.data(), port.size()) < 0) _exit(1);
    char byte;
    while (read(stop[0], &byte, 1) > 0) {
    }
    emulator.stop();
    _exit(0);
  }
  close(ready[1]);
  close(stop[0]);
  char line[16] = {};
  ssize_t got = 0;
  while (got < static_cast<ssize_t>(sizeof line) - 1) {
    const ssize_t n = read(ready[0], line + got, 1);
    if (n <= 0 || line[got] == '\n') break;
    ++got;
  }
  close(ready[0]);
  return Child{pid, stop[1], static_cast<uint16_t>(std::atoi(line))};
}

void stopEmulatorChild(const Child& child) {
  close(child.keepAlive);
  int status = 0;
  waitpid(child.pid, &status, 0);
}

// ---- the floor: the client paging alone ----

double runClientPaging(size_t* entries) {
  auto client = wdc::dbx::DBClientsManager::authorizedClient();
  auto queue = std::make_shared<wdc::SerialQueue>("bench-floor");
  wdc::dbx::DBFILESListFolderArg arg;
  arg.recursive = true;
  arg.includeMountedFolders = false;
  arg.limit = 1000;
  arg.includeNonDownloadableFiles = false;
  size_t count = 0;
  bool ok = true;
  std::string cursor;
  bool more = false;
  const double start = now();
  auto page = [&](auto task) {
    // Shared with the handler, which may still be unwinding when the wait returns.
    auto answered = std::make_shared<wdc::CountingSemaphore>(0);
    task.setResponseBlock(
        [&, answered](const wdc::dbx::DBFILESListFolderResult* result, const auto*, const auto*) {
          if (result == nullptr) {
            ok = false;
          } else {
            count += result->entries.size();
            cursor = result->cursor;
            more = result->hasMore;
          }
          answered->signal();
        },
        queue);
    answered->wait();
  };
  page(client->filesRoutes().listFolder(arg));
  while (ok && more) page(client->filesRoutes().listFolderContinue(cursor));
  const double elapsed = now() - start;
  *entries = count;
  return ok ? elapsed : -1;
}

// ---- ours ----

double runFetch(wdc::WebDAVConnect& connection, size_t* records) {
  std::optional<wdc::Error> error;
  const double start = now();
  auto list = connection.getDeltaFileList(&error, "tod", std::nullopt, "tod", false);
  const double elapsed = now() - start;
  if (!list) {
    std::fprintf(stderr, "fetch failed: %s\n", error ? error->description().c_str() : "?");
    return -1;
  }
  *records = list->size();
  return elapsed;
}

// ---- the official Python SDK ----

double runPythonSdk(uint16_t port, const std::string& caFile) {
  const auto line = wdc::bench::runSdkScript("127.0.0.1:" + std::to_string(port), caFile,
                                             "dropbox_delta/sdk_list.py", std::to_string(kEntries));
  return line ? std::atof(line->c_str()) : -1;
}

void printRow(const char* name, double s, double sdk, double floor) {
  if (s <= 0) {
    std::printf("%-44s %s\n", name, "failed");
    return;
  }
  std::printf("%-44s %10.0f entries/s %8.3f s %9.2fx %12.2fx\n", name, kEntries / s, s,
              sdk > 0 ? sdk / s : 0.0, floor > 0 ? s / floor : 0.0);
}

}  // namespace

int main() {
  wdc::Env& env = wdc::Env::real();
  const std::string caFile =
      (env.temporaryDirectory() / ("delta-bench-" + env.newUUID() + ".pem")).string();
  const std::string tokenStore =
      (env.temporaryDirectory() / ("delta-bench-" + env.newUUID() + ".json")).string();
  // Fork before this process starts any thread.
  const Child child = startEmulatorChild(caFile);
  if (child.port == 0) {
    std::fprintf(stderr, "the emulator did not start\n");
    return 1;
  }
  wdc::log::setConsoleOutput(false);
  const double baselineMegabytes = peakResidentMegabytes();

  wdc::dbx::DBTokenStoreContents store;
  store.oauth2 = wdc::dbx::DBOAuth2Token{
      .uid = "dbid:bench", .accessToken = "T", .refreshToken = {}, .expiresAt = {}};
  wdc::dbx::DBClientConfig config;
  config.apiBaseUrl = "https://127.0.0.1:" + std::to_string(child.port);
  config.contentBaseUrl = config.apiBaseUrl;
  config.caFile = caFile;
  config.tokenStorePath = tokenStore;
  if (!wdc::dbx::saveTokenStore(tokenStore, store) ||
      !wdc::dbx::DBClientsManager::setupWithConfig(config)) {
    std::fprintf(stderr, "cannot set up the client\n");
    stopEmulatorChild(child);
    return 1;
  }
  auto connection = wdc::WebDAVConnect::initWithConnectionType(wdc::kConnectionTypeDropbox,
                                                               std::nullopt, std::nullopt);
  connection->queueToUse = std::make_shared<wdc::SerialQueue>("bench-answers");

  // Ours first, so the peak it leaves is its own and not the floor's.
  size_t records = 0;
  double ours = runFetch(*connection, &records);
  const double afterFetchMegabytes = peakResidentMegabytes();
  double floor = -1;
  size_t floorEntries = 0;
  for (int round = 0; round < kRounds && ours > 0; ++round) {
    const double f = runClientPaging(&floorEntries);
    const double o = round == 0 ? ours : runFetch(*connection, &records);
    if (f <= 0 || o <= 0) {
      ours = floor = -1;
      break;
    }
    if (floor < 0 || f < floor) floor = f;
    if (o < ours) ours = o;
    std::printf("round %d: floor %.3f s, ours %.3f s\n", round + 1, f, o);
  }

  // Cache-only calls: every record folder with its own extension, then an absent extension.
  size_t answered = 0;
  double start = now();
  for (int round = 0; round < kCacheOnlyRounds; ++round) {
    for (const char* folder : kFolders) {
      auto list = connection->getDeltaFileList(nullptr, folder, std::nullopt, folder, true);
      answered += list ? list->size() : 0;
    }
  }
  const double cacheOnly = (now() - start) / (kCacheOnlyRounds * kFolders.size());
  start = now();
  constexpr int kAbsentCalls = 100'000;
  for (int i = 0; i < kAbsentCalls; ++i) {
    auto list = connection->getDeltaFileList(nullptr, "tod", std::nullopt, "txt", true);
    answered += list ? list->size() : 0;
  }
  const double absent = (now() - start) / kAbsentCalls;
  const double finalMegabytes = peakResidentMegabytes();

  const double sdk = runPythonSdk(child.port, caFile);
  wdc::dbx::DBClientsManager::resetClients();
  stopEmulatorChild(child);
  std::remove(caFile.c_str());
  std::remove(tokenStore.c_str());

  std::printf(
      "\nDelta listing: %d record files in 6 folders (+6 folder entries), pages of 1,000, "
      "TLS keep-alive, emulator in a child process; best of %d (SDK: one run)\n",
      kEntries, kRounds);
  std::printf("%-44s %21s %10s %10s %13s\n", "listing", "throughput", "time", "x of SDK",
              "time / floor");
  printRow("client paging alone (floor)", floor, sdk, floor);
  printRow("webdavconnect getDeltaFileList fetch", ours, sdk, floor);
  printRow("official Python SDK list_folder/continue", sdk, sdk, floor);
  std::printf("entries seen: floor %zu; records returned for tod: %zu\n", floorEntries, records);
  std::printf(
      "cache-only call, one folder of ~%d records: %.3f ms (%.0f calls/s, %.0f entries "
      "filtered/s)\n",
      kEntries / 6, cacheOnly * 1e3, 1 / cacheOnly, (kEntries + 6) / cacheOnly);
  std::printf("cache-only call, extension not seen: %.3f us (%.0f calls/s)\n", absent * 1e6,
              1 / absent);
  std::printf(
      "peak resident memory: %.1f MB before the fetch, %.1f MB after the first fetch "
      "(+%.1f MB), %.1f MB at the end\n",
      baselineMegabytes, afterFetchMegabytes, afterFetchMegabytes - baselineMegabytes,
      finalMegabytes);
  std::printf("(records answered by cache-only calls: %zu)\n", answered);
  return ours > 0 && floor > 0 ? 0 : 1;
}
