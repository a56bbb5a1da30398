// A first sync from an empty device against the TLS emulator: 10,000 records spread over the six
// record folders; one delta listing (one fetch, then cache-only calls for the other folders) and
// every record downloaded and decoded through the synchronous getContentsForFile. The listing
// marks each folder for a snapshot, so each folder is fetched as one ZIP. Aim: under 2 seconds.
// Extraction writes one file per record into TMPDIR; run with TMPDIR on a tmpfs when the disk is
// slow to create files. Usage: bench_dropbox_first_sync [RECORDS]
#include <fmt/format.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>

#include "dbx/clients_manager.h"
#include "dbx/token_store.h"
#include "emulator/emulator.h"
#include "platform/env.h"
#include "platform/logger.h"
#include "webdavconnect/payload.h"
#include "webdavconnect/webdav_connect.h"
#include "webdavconnect/zip_snapshot.h"

namespace {

constexpr std::array<const char*, 6> kFolders = {"cal", "col", "cag", "cat", "loc", "tod"};
constexpr double kAimSeconds = 2.0;

double now() { return wdc::toSeconds(wdc::Env::real().uptime()); }

// About 300 bytes stored: a title, a short note of random letters and a number.
std::string storedRecord(int i, std::mt19937& random) {
  std::string note(200, ' ');
  std::uniform_int_distribution<int> letter('a', 'z');
  for (char& c : note) c = static_cast<char>(letter(random));
  wdc::PlistDictionary payload{{"title", wdc::PlistValue(fmt::format("Record {}", i))},
                               {"note", wdc::PlistValue(note)},
                               {"priority", wdc::PlistValue(int64_t{i % 5})}};
  auto stored = wdc::encodeStoredPayload(wdc::PlistValue(payload));
  return std::string(stored->begin(), stored->end());
}

}  // namespace

int main(int argc, char** argv) {
  const int records = argc > 1 ? std::atoi(argv[1]) : 10'000;
  wdc::log::setConsoleOutput(false);
  wdc::emu::Emulator emulator({.tls = true, .token = "T"});
  std::string reason;
  if (!emulator.start(&reason)) {
    std::fprintf(stderr, "cannot start the emulator: %s\n", reason.c_str());
    return 1;
  }
  std::mt19937 random(7);
  for (int i = 0; i < records; ++i) {
    const char* folder = kFolders[i % kFolders.size()];
    emulator.putFile(fmt::format("/{}/o_a_k_c1_p_p1_i_r{}_d_d1.{}", folder, i, folder),
                     storedRecord(i, random));
  }
  wdc::Env& env = wdc::Env::real();
  const std::string caFile =
      (env.temporaryDirectory() / ("sync-bench-" + env.newUUID() + ".pem")).string();
  const std::string tokenStore =
      (env.temporaryDirectory() / ("sync-bench-" + env.newUUID() + ".json")).string();
  wdc::dbx::DBTokenStoreContents store;
  store.oauth2 = wdc::dbx::DBOAuth2Token{
      .uid = "dbid:bench", .accessToken = "T", .refreshToken = {}, .expiresAt = {}};
  wdc::dbx::DBClientConfig config;
  config.apiBaseUrl = emulator.baseUrl();
  config.contentBaseUrl = emulator.baseUrl();
  config.caFile = caFile;
  config.tokenStorePath = tokenStore;
  if (!emulator.writeCertificate(caFile, &reason) || !wdc::dbx::saveTokenStore(tokenStore, store) ||
      !wdc::dbx::DBClientsManager::setupWithConfig(config)) {
    std::fprintf(stderr, "cannot set up the client\n");
    return 1;
  }
  auto connection = wdc::WebDAVConnect::initWithConnectionType(wdc::kConnectionTypeDropbox,
                                                               std::nullopt, std::nullopt);
  connection->queueToUse = std::make_shared<wdc::SerialQueue>("bench-answers");
  // Connect outside the timed part.
  if (!connection->getAccountUsername(nullptr)) {
    std::fprintf(stderr, "the account call failed\n");
    return 1;
  }

  const double start = now();
  size_t listed = 0;
  size_t decoded = 0;
  size_t failed = 0;
  double listingSeconds = 0;
  for (size_t f = 0; f < kFolders.size(); ++f) {
    const char* folder = kFolders[f];
    const double listStart = now();
    auto list = connection->getDeltaFileList(nullptr, folder, std::nullopt, folder, f != 0);
    listingSeconds += now() - listStart;
    if (!list) {
      std::fprintf(stderr, "listing %s failed\n", folder);
      return 1;
    }
    listed += list->size();
    for (const auto& record : *list) {
      auto contents = connection->getContentsForFile(record, folder, nullptr);
      if (contents != nullptr && contents->FileContents) {
        ++decoded;
      } else {
        ++failed;
      }
    }
  }
  const double total = now() - start;

  std::printf(
      "First sync from an empty device: %d records of ~300 bytes stored in 6 folders, TLS "
      "emulator in process\n",
      records);
  std::printf("listed %zu, decoded %zu, failed %zu; ZIP requests %llu, per-file downloads %llu\n",
              listed, decoded, failed,
              static_cast<unsigned long long>(emulator.requestCount("files/download_zip")),
              static_cast<unsigned long long>(emulator.requestCount("files/download")));
  std::printf(
      "listing %.3f s, downloads and decoding %.3f s, total %.3f s (aim < %.1f s: %.2fx "
      "of the aim)\n",
      listingSeconds, total - listingSeconds, total, kAimSeconds, total / kAimSeconds);
  connection->removeAllResources();
  wdc::dbx::DBClientsManager::resetClients();
  emulator.stop();
  std::remove(caFile.c_str());
  std::remove(tokenStore.c_str());
  return failed == 0 && decoded == static_cast<size_t>(records) ? 0 : 1;
}
