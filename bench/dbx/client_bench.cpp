// Small downloads against the in-process TLS emulator, 4 in flight, in one run: our client vs
// the official Python SDK with 4 threads vs a bare libcurl multi loop doing the same requests
// (the floor: the emulator plus libcurl and nothing else). Each contender connects before its
// clock starts, and each run is repeated; the best run counts.
#include <curl/curl.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <string>
#include <vector>

#include "dbx/user_client.h"
#include "emulator/emulator.h"
#include "support/sdk_peer.h"
#include "platform/env.h"
#include "platform/logger.h"
#include "webdavconnect/operation_queue.h"

namespace {

constexpr int kDownloads = 2000;
constexpr int kInFlight = 4;
constexpr int kFiles = 200;
constexpr int kRounds = 5;
constexpr size_t kFileBytes = 100;  // what the SDK peer script checks

std::string remotePath(int index) { return "/bench/f" + std::to_string(index % kFiles) + ".txt"; }

double seconds(std::chrono::nanoseconds d) { return wdc::toSeconds(d); }

// ---- our client ----

double runClient(const std::shared_ptr<wdc::dbx::DBUserClient>& client) {
  auto queue = std::make_shared<wdc::SerialQueue>("bench-handlers");
  auto& files = client->filesRoutes();
  std::atomic<int> next{0};
  std::atomic<int> done{0};
  std::atomic<int> failures{0};
  std::promise<void> finished;
  std::function<void()> issue = [&] {
    const int index = next++;
    if (index >= kDownloads) return;
    files.downloadData(remotePath(index))
        .setResponseBlock(
            [&](const wdc::dbx::DBFILESFileMetadata* result, const wdc::dbx::DBFILESDownloadError*,
                const wdc::dbx::DBRequestError*, const std::string& data) {
              if (result == nullptr || data.size() != kFileBytes) ++failures;
              issue();
              if (++done == kDownloads) finished.set_value();
            },
            queue);
  };
  // Warm up: open the connections outside the timed part.
  {
    std::vector<std::future<void>> warm;
    for (int i = 0; i < kInFlight; ++i) {
      auto p = std::make_shared<std::promise<void>>();
      warm.push_back(p->get_future());
      files.downloadData(remotePath(i)).setResponseBlock(
          [p](const auto*, const auto*, const auto*, const std::string&) { p->set_value(); },
          queue);
    }
    for (auto& f : warm) f.wait();
  }
  wdc::Env& env = wdc::Env::real();
  const auto start = env.uptime();
  for (int i = 0; i < kInFlight; ++i) issue();
  finished.get_future().wait();
  const double elapsed = seconds(env.uptime() - start);
  queue->waitUntilAllOperationsAreFinished();
  return failures == 0 ? elapsed : -1;
}

// ---- bare libcurl multi loop ----

struct Easy {
  CURL* handle = nullptr;
  curl_slist* headers = nullptr;
  std::string body;
};

size_t collect(char* data, size_t size, size_t count, void* user) {
  static_cast<Easy*>(user)->body.append(data, size * count);
  return size * count;
}

double runBareCurl(const std::string& baseUrl, const std::string& caFile, int downloads) {
  CURLM* multi = curl_multi_init();
  std::vector<Easy> easies(kInFlight);
  const std::string url = baseUrl + "/2/files/download";
  int next = 0;
  int failures = 0;
  auto start = [&](Easy& easy) {
    if (next >= downloads) return;
    const int index = next++;
    if (easy.handle == nullptr) {
      easy.handle = curl_easy_init();
      curl_easy_setopt(easy.handle, CURLOPT_URL, url.c_str());
      curl_easy_setopt(easy.handle, CURLOPT_NOSIGNAL, 1L);
      curl_easy_setopt(easy.handle, CURLOPT_POST, 1L);
      curl_easy_setopt(easy.handle, CURLOPT_POSTFIELDS, "");
      curl_easy_setopt(easy.handle, CURLOPT_POSTFIELDSIZE, 0L);
      curl_easy_setopt(easy.handle, CURLOPT_CAINFO, caFile.c_str());
      curl_easy_setopt(easy.handle, CURLOPT_WRITEFUNCTION, collect);
      curl_easy_setopt(easy.handle, CURLOPT_WRITEDATA, &easy);
      curl_easy_setopt(easy.handle, CURLOPT_PRIVATE, &easy);
    }
    if (easy.headers != nullptr) curl_slist_free_all(easy.headers);
    easy.headers = curl_slist_append(nullptr, "Authorization: Bearer T");
    easy.headers = curl_slist_append(
        easy.headers, ("Dropbox-API-Arg: {\"path\":\"" + remotePath(index) + "\"}").c_str());
    curl_easy_setopt(easy.handle, CURLOPT_HTTPHEADER, easy.headers);
    easy.body.clear();
    curl_multi_add_handle(multi, easy.handle);
  };
  wdc::Env& env = wdc::Env::real();
  const auto begin = env.uptime();
  for (auto& easy : easies) start(easy);
  int running = 1;
  int finished = 0;
  while (finished < downloads) {
    curl_multi_perform(multi, &running);
    int left = 0;
    while (CURLMsg* message = curl_multi_info_read(multi, &left)) {
      if (message->msg != CURLMSG_DONE) continue;
      Easy* easy = nullptr;
      curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &easy);
      long status = 0;
      curl_easy_getinfo(message->easy_handle, CURLINFO_RESPONSE_CODE, &status);
      if (message->data.result != CURLE_OK || status != 200 || easy->body.size() != kFileBytes) {
        ++failures;
      }
      curl_multi_remove_handle(multi, message->easy_handle);
      ++finished;
      start(*easy);
    }
    if (finished < downloads) curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
  }
  const double elapsed = seconds(env.uptime() - begin);
  for (auto& easy : easies) {
    curl_slist_free_all(easy.headers);
    curl_easy_cleanup(easy.handle);
  }
  curl_multi_cleanup(multi);
  return failures == 0 ? elapsed : -1;
}

// ---- the official Python SDK ----

double runPythonSdk(const wdc::emu::Emulator& emulator, const std::string& caFile) {
  return wdc::bench::runPythonSdkPeer(emulator.hostAndPort(), caFile, kDownloads, kInFlight, kFiles);
}

void printRow(const char* name, double s, double sdk, double floor) {
  if (s <= 0) {
    std::printf("%-38s %12s\n", name, "FAILED");
    return;
  }
  std::printf("%-38s %9.0f req/s %8.3f s %9.2fx %12.2fx\n", name, kDownloads / s, s,
              sdk > 0 ? sdk / s : 0.0, s / floor);
}

}  // namespace

int main() {
  wdc::log::setConsoleOutput(false);
  curl_global_init(CURL_GLOBAL_DEFAULT);
  wdc::emu::Emulator emulator({.tls = true, .token = "T"});
  std::string error;
  if (!emulator.start(&error)) {
    std::fprintf(stderr, "cannot start the emulator: %s\n", error.c_str());
    return 1;
  }
  for (int i = 0; i < kFiles; ++i) {
    emulator.putFile(remotePath(i), std::string(kFileBytes, static_cast<char>('a' + i % 26)));
  }
  wdc::Env& env = wdc::Env::real();
  const std::string caFile =
      (env.temporaryDirectory() / ("dbx-bench-" + env.newUUID() + ".pem")).string();
  if (!emulator.writeCertificate(caFile, &error)) {
    std::fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }

  wdc::dbx::DBClientConfig config;
  config.apiBaseUrl = emulator.baseUrl();
  config.contentBaseUrl = emulator.baseUrl();
  config.caFile = caFile;
  auto client = wdc::dbx::DBUserClient::create(config, {"", "T", std::nullopt, std::nullopt});

  runBareCurl(emulator.baseUrl(), caFile, kInFlight);  // warm the emulator's workers
  // Interleaved rounds, so neither side gets the warmer machine.
  double floor = -1;
  double ours = -1;
  for (int round = 0; round < kRounds; ++round) {
    const double f = runBareCurl(emulator.baseUrl(), caFile, kDownloads);
    const double o = runClient(client);
    if (f <= 0 || o <= 0) {
      floor = ours = -1;
      break;
    }
    if (floor < 0 || f < floor) floor = f;
    if (ours < 0 || o < ours) ours = o;
    std::printf("round %d: floor %.3f s, ours %.3f s\n", round + 1, f, o);
  }
  const double sdk = runPythonSdk(emulator, caFile);
  client->close();
  std::remove(caFile.c_str());
  std::printf("downloads served: %llu\n",
               static_cast<unsigned long long>(emulator.requestCount("files/download")));

  std::printf("Dropbox client: %d downloads of %zu-byte files, %d in flight, TLS keep-alive, "
              "best of %d (SDK: one run)\n",
              kDownloads, kFileBytes, kInFlight, kRounds);
  std::printf("%-38s %15s %10s %10s %13s\n", "client", "throughput", "time", "x of SDK",
              "time / floor");
  printRow("bare libcurl multi loop (floor)", floor, sdk, floor);
  printRow("webdavconnect dbx client", ours, sdk, floor);
  printRow("official Python SDK, 4 threads", sdk, sdk, floor);
  if (ours > 0 && sdk > 0 && floor > 0) {
    std::printf("our client: %.2fx the SDK's throughput (aim >= 3x), %.2fx the floor's time "
                "(aim <= 1.3x)\n",
                sdk / ours, ours / floor);
  }
  emulator.stop();
  curl_global_cleanup();
  return ours > 0 && sdk > 0 && floor > 0 ? 0 : 1;
}
