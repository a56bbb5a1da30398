// Uploading 1,000 records of about 1 KB to the TLS emulator with 20 ms added to every request, side
// by side in one run: the retrying batch (upload sessions and one commit per 1,000), 1,000
// blocking uploadFileWithObject calls (one files/upload each), and the official Python SDK's own
// batch pattern (4 threads of upload sessions, then finish_batch and its check). Also the encode
// side alone: archive + gzip of the 1,000 payloads in memory, and the scratch files the uploads
// write (archive, file_compress) without any network.
//
// Every upload first writes its scratch files into the Env's temporary directory, so the disk's
// cost of creating and removing small files is part of every figure. Both upload contenders are
// therefore run twice: with the temporary directory as the process has it (TMPDIR, else /tmp) and
// with it on tmpfs (/dev/shm), and the file system of each is printed.
#include <sys/vfs.h>

#include <cstdio>
#include <cstdlib>
#include <future>
#include <string>
#include <vector>

#include "dbx/clients_manager.h"
#include "dbx/token_store.h"
#include "dropbox/upload_scratch.h"
#include "emulator/emulator.h"
#include "platform/env.h"
#include "platform/logger.h"
#include "support/sdk_peer.h"
#include "webdavconnect/payload.h"
#include "webdavconnect/webdav_connect.h"

namespace {

using Objects = std::vector<std::shared_ptr<wdc::WebDAVFileContents>>;

constexpr int kRecords = 1000;
constexpr uint32_t kLatencyMs = 20;
constexpr int kSdkThreads = 4;
constexpr size_t kNoteBytes = 900;  // with the other fields, about 1 KB of payload
constexpr int kRounds = 3;

double secondsSince(std::chrono::nanoseconds start) {
  return wdc::toSeconds(wdc::Env::real().uptime() - start);
}

// Fresh objects per round: a stored object's metadata is replaced by the new one.
Objects makeRecords(const std::string& tag) {
  Objects objects;
  for (int i = 0; i < kRecords; ++i) {
    auto meta = std::make_shared<wdc::WebDAVFileMetaData>();
    meta->OpType = "1";
    meta->ContainerUID = "LIST" + tag;
    meta->ParentUID = "P" + std::to_string(i % 17);
    meta->UID = tag + "-" + std::to_string(i);
    meta->Extension = "tod";
    auto payload = std::make_shared<wdc::PlistDictionary>();
    payload->set("title", wdc::PlistValue("Task number " + std::to_string(i)));
    std::string note;
    for (size_t n = 0; note.size() < kNoteBytes; ++n) note += std::to_string(n * 7919 + i) + ' ';
    payload->set("note", wdc::PlistValue(note));
    payload->set("priority", wdc::PlistValue(static_cast<int64_t>(i % 4)));
    payload->set("due", wdc::PlistValue(wdc::Date{800000000.0 + i}));
    payload->set("done", wdc::PlistValue(i % 3 == 0));
    objects.push_back(std::make_shared<wdc::WebDAVFileContents>(meta, payload));
  }
  return objects;
}

// A batch keeps its scratch files. They are removed once every figure is taken: removing a
// thousand small files keeps some disks busy long enough to slow whatever is measured next.
std::vector<std::filesystem::path>& keptScratchFiles() {
  static std::vector<std::filesystem::path> files;
  return files;
}

void noteBatchScratchFiles(const Objects& objects) {
  for (const auto& object : objects) {
    auto path = wdc::dropbox::scratchPathFor(*object->FileMetaData->FilePath);
    path += ".gz";
    keptScratchFiles().push_back(std::move(path));
  }
}

void removeKeptScratchFiles() {
  for (const auto& path : keptScratchFiles()) std::remove(path.c_str());
  keptScratchFiles().clear();
}

double runBatch(wdc::WebDAVConnect& connection, const Objects& objects, const std::string& folder,
                const std::shared_ptr<wdc::OperationQueue>& queue) {
  std::promise<bool> done;
  const auto start = wdc::Env::real().uptime();
  connection.uploadFileWithObjects(
      objects, 3, folder, queue,
      [&done](const std::vector<std::shared_ptr<wdc::WebDAVBatchUploadResult>>& results,
              const std::optional<wdc::Error>& error) {
        bool ok = !error && results.size() == kRecords;
        for (const auto& result : results) ok = ok && !result->uploadError;
        done.set_value(ok);
      });
  const bool ok = done.get_future().get();
  const double elapsed = secondsSince(start);
  noteBatchScratchFiles(objects);
  return ok ? elapsed : -1;
}

double runSingles(wdc::WebDAVConnect& connection, const Objects& objects,
                  const std::string& folder) {
  const auto start = wdc::Env::real().uptime();
  for (const auto& object : objects) {
    std::optional<wdc::Error> error;
    if (!connection.uploadFileWithObject(object, folder, &error)) return -1;
  }
  return secondsSince(start);
}

double runPythonSdk(const wdc::emu::Emulator& emulator, const std::string& caFile,
                    size_t bytes) {
  const auto line = wdc::bench::runSdkScript(
      emulator.hostAndPort(), caFile, "dropbox_write/sdk_upload_peer.py",
      std::to_string(kRecords) + " " + std::to_string(kSdkThreads) + " " + std::to_string(bytes) +
          " /bench-sdk");
  return line ? std::atof(line->c_str()) : -1;
}

std::string temporaryDirectoryLabel();

// The encode side: archive + gzip in memory, and the scratch files the uploads write.
void runEncodeSide() {
  const Objects objects = makeRecords("enc");
  double inMemory = -1;
  double scratch = -1;
  size_t encodedBytes = 0;
  for (int round = 0; round < kRounds; ++round) {
    auto start = wdc::Env::real().uptime();
    encodedBytes = 0;
    for (const auto& object : objects) {
      auto bytes = wdc::encodeStoredPayload(wdc::PlistValue(*object->FileContents));
      encodedBytes += bytes ? bytes->size() : 0;
    }
    const double m = secondsSince(start);
    std::vector<std::filesystem::path> written;
    written.reserve(objects.size());
    // New names every round, so no round removes the files of the one before.
    const Objects fresh = makeRecords("enc" + std::to_string(round));
    start = wdc::Env::real().uptime();
    for (const auto& object : fresh) {
      auto upload =
          wdc::dropbox::prepareRecordUpload(*object, "enc", wdc::dropbox::ScratchUse::kBatchRecord);
      written.push_back(upload.scratch.uploadPath);
    }
    const double s = secondsSince(start);
    keptScratchFiles().insert(keptScratchFiles().end(), written.begin(), written.end());
    if (inMemory < 0 || m < inMemory) inMemory = m;
    if (scratch < 0 || s < scratch) scratch = s;
  }
  std::printf("encode side, %d records (best of %d), %.0f bytes stored per record:\n", kRecords,
              kRounds, static_cast<double>(encodedBytes) / kRecords);
  std::printf("  %-52s %8.1f ms %9.1f us/record\n", "archive + gzip in memory", inMemory * 1e3,
              inMemory * 1e6 / kRecords);
  std::printf("  %-52s %8.1f ms %9.1f us/record\n",
              "scratch files, one thread (archive, file_compress, ...)", scratch * 1e3,
              scratch * 1e6 / kRecords);
  std::printf("  (scratch files in %s)\n", temporaryDirectoryLabel().c_str());
}

// "/tmp (ext4)": where the Env puts scratch files, and on what.
std::string temporaryDirectoryLabel() {
  const auto dir = wdc::Env::real().temporaryDirectory();
  struct statfs info {};
  std::string kind = "unknown file system";
  if (::statfs(dir.c_str(), &info) == 0) {
    if (info.f_type == 0x01021994) kind = "tmpfs";
    else if (info.f_type == 0xEF53) kind = "ext4";
    else if (info.f_type == 0x794c7630) kind = "overlayfs";
    else if (info.f_type == 0x58465342) kind = "xfs";
  }
  return dir.string() + " (" + kind + ")";
}

void printRow(const char* name, double seconds, double batch, uint64_t requests) {
  if (seconds <= 0) {
    std::printf("  %-52s %12s\n", name, "FAILED");
    return;
  }
  std::printf("  %-52s %8.3f s %9.0f rec/s %9llu req %10.2fx\n", name, seconds,
              kRecords / seconds, static_cast<unsigned long long>(requests),
              batch > 0 ? seconds / batch : 0.0);
}

}  // namespace

int main() {
  wdc::log::setConsoleOutput(false);
  wdc::Env& env = wdc::Env::real();
  runEncodeSide();

  wdc::emu::Emulator emulator({.tls = true, .token = "T", .latencyMs = kLatencyMs});
  std::string reason;
  if (!emulator.start(&reason)) {
    std::fprintf(stderr, "cannot start the emulator: %s\n", reason.c_str());
    return 1;
  }
  const auto scratchDir = env.temporaryDirectory() / ("write-bench-" + env.newUUID());
  std::filesystem::create_directories(scratchDir);
  const auto caFile = scratchDir / "emulator.pem";
  const auto tokens = scratchDir / "tokens.json";
  if (!emulator.writeCertificate(caFile, &reason) ||
      !wdc::dbx::saveTokenStore(tokens, {.oauth2 = wdc::dbx::DBOAuth2Token{"dbid:bench", "T",
                                                                           std::nullopt,
                                                                           std::nullopt},
                                         .oauth1 = {},
                                         .oauth2AppKey = {}})) {
    std::fprintf(stderr, "cannot set up: %s\n", reason.c_str());
    return 1;
  }
  wdc::dbx::DBClientConfig config;
  config.apiBaseUrl = emulator.baseUrl();
  config.contentBaseUrl = emulator.baseUrl();
  config.caFile = caFile;
  config.tokenStorePath = tokens;
  if (!wdc::dbx::DBClientsManager::setupWithConfig(config)) {
    std::fprintf(stderr, "cannot set up the client\n");
    return 1;
  }
  auto connection =
      wdc::WebDAVConnect::initWithConnectionType(wdc::kConnectionTypeDropbox, {}, {});
  connection->queueToUse = std::make_shared<wdc::SerialQueue>("bench.answers");
  auto batchQueue = std::make_shared<wdc::SerialQueue>("bench.batch");

  // Warm up: connections open and the emulator's workers running before any clock starts.
  runBatch(*connection, makeRecords("warm"), "warm", batchQueue);

  // The Python SDK writes no scratch files: one run serves both comparisons.
  const size_t storedBytes = 975;
  emulator.resetRequestCounts();
  const double sdk = runPythonSdk(emulator, caFile.string(), storedBytes);
  const uint64_t sdkRequests = emulator.requestCount("*");

  bool allRan = sdk > 0;
  auto compare = [&](const std::string& label) {
    double batch = -1;
    uint64_t batchRequests = 0;
    for (int round = 0; round < kRounds; ++round) {
      emulator.resetRequestCounts();
      const double b = runBatch(*connection, makeRecords("b" + std::to_string(round)),
                                "bench-batch", batchQueue);
      if (b <= 0) {
        batch = -1;
        break;
      }
      batchRequests = emulator.requestCount("*");
      if (batch < 0 || b < batch) batch = b;
    }
    emulator.resetRequestCounts();
    const double singles = runSingles(*connection, makeRecords("single"), "bench-single");
    const uint64_t singleRequests = emulator.requestCount("*");

    std::printf("\nupload %d records (~%zu bytes stored each), %u ms added per request, TLS "
                "keep-alive, scratch files on %s (batch: best of %d; others: one run)\n",
                kRecords, storedBytes, kLatencyMs, label.c_str(), kRounds);
    std::printf("  %-52s %10s %15s %13s %11s\n", "contender", "time", "throughput", "requests",
                "x batch time");
    printRow("retrying batch (uploadFileWithObjects)", batch, batch, batchRequests);
    printRow("1,000 x uploadFileWithObject", singles, batch, singleRequests);
    printRow("official Python SDK, sessions + finish_batch, 4 thr", sdk, batch, sdkRequests);
    if (batch > 0 && singles > 0 && sdk > 0) {
      std::printf("batch: %.1fx faster than the singles (aim >= 10x), %.1fx faster than the SDK "
                  "(aim >= 3x)\n",
                  singles / batch, sdk / batch);
    }
    allRan = allRan && batch > 0 && singles > 0;
  };

  compare(temporaryDirectoryLabel());
  const std::filesystem::path shm = "/dev/shm";
  if (std::filesystem::is_directory(shm)) {
    const auto onTmpfs = shm / ("write-bench-" + env.newUUID());
    std::filesystem::create_directories(onTmpfs);
    const char* previous = std::getenv("TMPDIR");
    const std::string restore = previous ? previous : "";
    ::setenv("TMPDIR", onTmpfs.c_str(), 1);
    compare(temporaryDirectoryLabel());
    if (previous) {
      ::setenv("TMPDIR", restore.c_str(), 1);
    } else {
      ::unsetenv("TMPDIR");
    }
    removeKeptScratchFiles();
    std::filesystem::remove_all(onTmpfs);
  }
  removeKeptScratchFiles();
  wdc::dbx::DBClientsManager::resetClients();
  emulator.stop();
  std::filesystem::remove_all(scratchDir);
  return allRan ? 0 : 1;
}
