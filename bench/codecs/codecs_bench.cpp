// Codec throughput: our whole-buffer inflate/deflate against zlib's own one-shot uncompress and
// compress2 (level 9) on 1 KB, 64 KB, 1 MB and 8 MB of record-like text, and Base64 against OpenSSL's block
// coder. MB/s counts the plain (uncompressed / unencoded) bytes in every row.
#include <openssl/evp.h>
#include <zlib.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <string>

#include "support/bench_util.h"
#include "webdavconnect/data_codecs.h"

namespace wdc::bench {
namespace {

// Property-list-like text with identifiers, dates and notes: compresses like real payloads
// (about 4-6:1), not like zeros.
Bytes recordText(size_t size) {
  static const char* kTitles[] = {"Buy milk", "Call the bank", "Review pull request",
                                  "Book flights to Lisbon", "Water the plants", "Pay rent"};
  std::mt19937 rng(42);
  std::string out;
  while (out.size() < size) {
    char uid[40];
    std::snprintf(uid, sizeof(uid), "%08X-%04X-%04X", static_cast<unsigned>(rng()),
                  static_cast<unsigned>(rng() & 0xFFFF), static_cast<unsigned>(rng() & 0xFFFF));
    out += "<dict><key>UID</key><string>";
    out += uid;
    out += "</string><key>Title</key><string>";
    out += kTitles[rng() % std::size(kTitles)];
    out += "</string><key>Due</key><real>" + std::to_string(700000000 + rng() % 100000000);
    out += "</real><key>Priority</key><integer>" + std::to_string(rng() % 4) + "</integer>";
    out += "<key>Note</key><string>" + std::to_string(rng()) + "</string></dict>\n";
  }
  out.resize(size);
  return Bytes(out.begin(), out.end());
}

Bytes zlibCompress2(const Bytes& plain) {
  uLongf size = compressBound(plain.size());
  Bytes out(size);
  compress2(out.data(), &size, plain.data(), plain.size(), Z_BEST_COMPRESSION);
  out.resize(size);
  return out;
}

void compressionTables(const std::string& label, size_t size) {
  const Bytes plain = recordText(size);
  const Bytes zl = *zlibDeflate(plain);
  const Bytes gz = *gzipDeflate(plain);
  const Bytes ref = zlibCompress2(plain);
  const double bytes = static_cast<double>(size);

  std::vector<Measurement> rows;
  rows.push_back(measure("zlib uncompress", [&] {
    Bytes out(size);
    uLongf length = size;
    uncompress(out.data(), &length, ref.data(), ref.size());
    doNotOptimize(out.data());
  }, bytes));
  rows.push_back(measure("zlibInflate", [&] {
    auto out = zlibInflate(zl);
    doNotOptimize(out->data());
  }, bytes));
  rows.push_back(measure("gzipInflate", [&] {
    auto out = gzipInflate(gz);
    doNotOptimize(out->data());
  }, bytes));
  printTable("inflate " + label + " (MB/s of plain output)", rows);

  rows.clear();
  rows.push_back(measure("zlib compress2 level 9", [&] {
    auto out = zlibCompress2(plain);
    doNotOptimize(out.data());
  }, bytes));
  rows.push_back(measure("zlibDeflate", [&] {
    auto out = zlibDeflate(plain);
    doNotOptimize(out->data());
  }, bytes));
  rows.push_back(measure("gzipDeflate", [&] {
    auto out = gzipDeflate(plain);
    doNotOptimize(out->data());
  }, bytes));
  printTable("deflate " + label + " (MB/s of plain input)", rows);
  std::printf("  compression ratio (plain/compressed): compress2 %.2f, zlibDeflate %.2f, "
              "gzipDeflate %.2f\n",
              bytes / static_cast<double>(ref.size()), bytes / static_cast<double>(zl.size()),
              bytes / static_cast<double>(gz.size()));
}

void base64Tables(size_t size) {
  std::mt19937 rng(7);
  Bytes plain(size);
  for (auto& b : plain) b = static_cast<uint8_t>(rng());
  const std::string text = base64Encoded(plain);
  const Bytes textBytes(text.begin(), text.end());
  const double bytes = static_cast<double>(size);

  std::vector<Measurement> rows;
  rows.push_back(measure("OpenSSL EVP_EncodeBlock", [&] {
    std::string out(text.size() + 1, '\0');
    EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()), plain.data(),
                    static_cast<int>(plain.size()));
    doNotOptimize(out.data());
  }, bytes));
  rows.push_back(measure("base64Encoded", [&] {
    auto out = base64Encoded(plain);
    doNotOptimize(out.data());
  }, bytes));
  printTable("base64 encode 1 MB (MB/s of plain input)", rows);

  rows.clear();
  rows.push_back(measure("OpenSSL EVP_DecodeBlock", [&] {
    Bytes out(textBytes.size());
    EVP_DecodeBlock(out.data(), textBytes.data(), static_cast<int>(textBytes.size()));
    doNotOptimize(out.data());
  }, bytes));
  rows.push_back(measure("base64Decoded", [&] {
    auto out = base64Decoded(textBytes);
    doNotOptimize(out.data());
  }, bytes));
  printTable("base64 decode 1 MB (MB/s of plain output)", rows);
}

}  // namespace
}  // namespace wdc::bench

int main() {
  wdc::bench::compressionTables("1 KB", 1024);
  wdc::bench::compressionTables("64 KB", 64 << 10);
  wdc::bench::compressionTables("1 MB", 1 << 20);
  wdc::bench::compressionTables("8 MB", 8 << 20);
  wdc::bench::base64Tables(1 << 20);
  return 0;
}
