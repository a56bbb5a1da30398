// How many requests per second the emulator serves: small downloads over keep-alive TLS from 4
// concurrent libcurl clients, the same over plain HTTP, and the same work through the official
// Python SDK with 4 threads (the peer our client is compared with), side by side in one run.
#include <curl/curl.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "emulator/emulator.h"
#include "support/sdk_peer.h"
#include "platform/env.h"

namespace {

constexpr int kDownloads = 2000;
constexpr int kClients = 4;
constexpr int kFiles = 200;

size_t countBytes(char*, size_t size, size_t count, void* total) {
  *static_cast<size_t*>(total) += size * count;
  return size * count;
}

// Downloads kDownloads files with kClients threads, one keep-alive easy handle each; returns the
// elapsed seconds, or a negative value when a download failed.
double runCurl(const std::string& baseUrl, const std::string& caFile) {
  std::vector<CURL*> handles;
  const std::string url = baseUrl + "/2/files/download";
  for (int i = 0; i < kClients; ++i) {
    CURL* curl = curl_easy_init();
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_POST, 1L);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, "");
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, 0L);
    if (!caFile.empty()) curl_easy_setopt(curl, CURLOPT_CAINFO, caFile.c_str());
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, countBytes);
    handles.push_back(curl);
  }
  std::vector<int> failures(kClients, 0);
  auto download = [&](int client, int index, size_t* bytes) {
    const std::string arg =
        "Dropbox-API-Arg: {\"path\": \"/bench/f" + std::to_string(index % kFiles) + ".txt\"}";
    curl_slist* headers = curl_slist_append(nullptr, "Authorization: Bearer T");
    headers = curl_slist_append(headers, arg.c_str());
    curl_easy_setopt(handles[client], CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(handles[client], CURLOPT_WRITEDATA, bytes);
    long status = 0;
    if (curl_easy_perform(handles[client]) != CURLE_OK) ++failures[client];
    curl_easy_getinfo(handles[client], CURLINFO_RESPONSE_CODE, &status);
    if (status != 200) ++failures[client];
    curl_slist_free_all(headers);
  };
  // Connect (TCP and TLS handshakes) before the clock starts, as the SDK peer does.
  for (int client = 0; client < kClients; ++client) {
    size_t bytes = 0;
    download(client, 0, &bytes);
  }
  wdc::Env& env = wdc::Env::real();
  const auto start = env.uptime();
  std::vector<std::thread> threads;
  for (int client = 0; client < kClients; ++client) {
    threads.emplace_back([&, client] {
      size_t bytes = 0;
      for (int i = client; i < kDownloads; i += kClients) download(client, i, &bytes);
      if (bytes != static_cast<size_t>((kDownloads + kClients - 1 - client) / kClients) * 100) {
        ++failures[client];
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  const double elapsed = wdc::toSeconds(env.uptime() - start);
  for (CURL* curl : handles) curl_easy_cleanup(curl);
  for (int failed : failures) {
    if (failed) return -1;
  }
  return elapsed;
}

double runPythonSdk(const wdc::emu::Emulator& emulator, const std::string& caFile) {
  return wdc::bench::runPythonSdkPeer(emulator.hostAndPort(), caFile, kDownloads, kClients, kFiles);
}

void fill(wdc::emu::Emulator& emulator) {
  for (int i = 0; i < kFiles; ++i) {
    emulator.putFile("/bench/f" + std::to_string(i) + ".txt", std::string(100, 'a' + i % 26));
  }
}

void printRow(const char* name, double seconds, double baseline) {
  if (seconds <= 0) {
    std::printf("%-44s %12s\n", name, "FAILED");
    return;
  }
  std::printf("%-44s %10.0f/s %9.2f ms/req %8.2fx\n", name, kDownloads / seconds,
              1000.0 * seconds * kClients / kDownloads, baseline / seconds);
}

}  // namespace

int main() {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  wdc::emu::Emulator tls({.tls = true, .token = "T"});
  wdc::emu::Emulator plain({.tls = false, .token = "T"});
  std::string error;
  if (!tls.start(&error) || !plain.start(&error)) {
    std::fprintf(stderr, "cannot start the emulator: %s\n", error.c_str());
    return 1;
  }
  fill(tls);
  fill(plain);
  const std::string caFile = (wdc::Env::real().temporaryDirectory() /
                              ("emulator-bench-" + wdc::Env::real().newUUID() + ".pem"))
                                 .string();
  if (!tls.writeCertificate(caFile, &error)) {
    std::fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }
  const double curlTls = runCurl(tls.baseUrl(), caFile);
  const double curlPlain = runCurl(plain.baseUrl(), "");
  const double python = runPythonSdk(tls, caFile);
  std::remove(caFile.c_str());

  std::printf(
      "Emulator throughput: %d downloads of 100-byte files, %d clients in parallel, "
      "keep-alive\n",
      kDownloads, kClients);
  std::printf("%-44s %12s %16s %9s\n", "client", "requests", "latency", "x of TLS");
  printRow("libcurl, 4 threads, TLS (the emulator alone)", curlTls, curlTls);
  printRow("libcurl, 4 threads, plain HTTP", curlPlain, curlTls);
  printRow("official Python SDK, 4 threads, TLS", python, curlTls);
  std::printf("requests served: TLS %llu, plain %llu\n",
              static_cast<unsigned long long>(tls.requestCount("files/download")),
              static_cast<unsigned long long>(plain.requestCount("files/download")));
  tls.stop();
  plain.stop();
  curl_global_cleanup();
  return curlTls > 0 && curlPlain > 0 && python > 0 ? 0 : 1;
}
