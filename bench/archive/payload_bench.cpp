// Stored payload decode (gunzip + unarchive) and encode (archive + gzip) of a typical record
// (about 20 fields, ~1 KB stored) and of a ~1 MB payload, side by side with
//   - the floor of this design: zlib plus libplist parsing (decode) or writing (encode) the same
//     archive bytes, nothing else (no object graph at all);
//   - Python's plistlib decoding the same stored payloads plus a walk of the object graph (a
//     user's scripted alternative; run through python3, skipped when it is missing).
#include <plist/plist.h>

#include <cstdio>
#include <random>
#include <string>

#include "platform/virtual_env.h"
#include "support/bench_util.h"
#include "webdavconnect/data_codecs.h"
#include "webdavconnect/keyed_archive.h"
#include "webdavconnect/payload.h"

namespace wdc::bench {
namespace {

// One to-do record as the host stores it: identifiers, text, dates, numbers and flags.
PlistDictionary typicalRecord(std::mt19937& rng) {
  static const char* kTitles[] = {"Buy milk", "Call the bank about the mortgage",
                                  "Review pull request", "Book flights to Lisbon",
                                  "Water the plants", "Pay rent"};
  auto uid = [&] {
    char text[40];
    std::snprintf(text, sizeof text, "%08X-%04X-%04X-%04X-%08X%04X", static_cast<unsigned>(rng()),
                  static_cast<unsigned>(rng() & 0xFFFF), static_cast<unsigned>(rng() & 0xFFFF),
                  static_cast<unsigned>(rng() & 0xFFFF), static_cast<unsigned>(rng()),
                  static_cast<unsigned>(rng() & 0xFFFF));
    return std::string(text);
  };
  const double now = 780000000.0 + rng() % 10000000;
  return PlistDictionary{
      {"UID", uid()},
      {"ParentUID", uid()},
      {"ContainerUID", uid()},
      {"Title", kTitles[rng() % std::size(kTitles)]},
      {"Note", "Remember to bring the receipts and the signed form; ask about the fee. " +
                   std::to_string(rng())},
      {"Created", Date{now - 86400.0 * (rng() % 100)}},
      {"Modified", Date{now}},
      {"Due", Date{now + 3600.0 * (rng() % 500)}},
      {"Priority", static_cast<int>(rng() % 4)},
      {"SortOrder", static_cast<long long>(rng())},
      {"Completed", rng() % 2 == 0},
      {"Flagged", false},
      {"Progress", (rng() % 100) / 100.0},
      {"Duration", 1800.0},
      {"Repeat", "FREQ=WEEKLY;INTERVAL=1"},
      {"Tags", PlistValue::Array{"home", "errands"}},
      {"Location", "Home"},
      {"Alarm", Date{now + 7200.0}},
      {"Revision", static_cast<int>(rng() % 1000)},
      {"DeviceUDID", uid()},
  };
}

PlistValue largePayload(std::mt19937& rng, size_t archiveBytes) {
  PlistValue::Array records;
  PlistDictionary top;
  top.set("Kind", "Folder snapshot");
  while (true) {
    records.push_back(typicalRecord(rng));
    if (records.size() % 256 == 0) {
      PlistDictionary probe{{"Records", records}};
      if (archiveTopLevelObjects({{"data", probe}}, true).size() >= archiveBytes) break;
    }
  }
  top.set("Records", std::move(records));
  return top;
}

// Python's plistlib on the same stored bytes, as one measurement row (nullopt without python3).
std::optional<Measurement> pythonDecode(const Bytes& stored, int iterations) {
  VirtualEnv env;  // only for its fresh temporary directory
  const auto path = env.temporaryDirectory() / "payload";
  if (FILE* f = std::fopen(path.c_str(), "wb")) {
    std::fwrite(stored.data(), 1, stored.size(), f);
    std::fclose(f);
  }
  const std::string command = std::string("python3 ") + WDC_SOURCE_DIR +
                              "/bench/archive/plistlib_decode.py " + path.string() + " " +
                              std::to_string(iterations) + " 2>/dev/null";
  FILE* pipe = ::popen(command.c_str(), "r");
  if (!pipe) return std::nullopt;
  char line[64] = {0};
  const bool read = std::fgets(line, sizeof line, pipe) != nullptr;
  if (::pclose(pipe) != 0 || !read) return std::nullopt;
  Measurement m;
  m.name = "python3 plistlib + graph walk";
  m.nanosPerOp = std::strtod(line, nullptr);
  m.iterations = static_cast<size_t>(iterations);
  return m;
}

void compare(const std::string& label, const PlistValue& payload, int pythonIterations) {
  const Bytes stored = *encodeStoredPayload(payload);
  const Bytes archive = *gzipInflate(stored);
  std::printf("\n%s: archive %zu bytes, stored (gzip) %zu bytes\n", label.c_str(), archive.size(),
              stored.size());
  // MB/s counts archive (uncompressed) bytes in every row.
  const double bytes = static_cast<double>(archive.size());

  std::vector<Measurement> rows;
  rows.push_back(measure("floor: zlib inflate + libplist parse", [&] {
    auto plain = gzipInflate(stored);
    plist_t root = nullptr;
    plist_from_bin(reinterpret_cast<const char*>(plain->data()),
                   static_cast<uint32_t>(plain->size()), &root);
    doNotOptimize(root);
    plist_free(root);
  }, bytes));
  rows.push_back(measure("ours: decodeStoredPayload", [&] {
    auto value = decodeStoredPayload(stored, nullptr);
    doNotOptimize(&value);
  }, bytes));
  if (auto python = pythonDecode(stored, pythonIterations)) {
    python->bytesPerOp = bytes;
    rows.push_back(*python);
  }
  printTable("decode " + label, rows);

  plist_t tree = nullptr;
  plist_from_bin(reinterpret_cast<const char*>(archive.data()), static_cast<uint32_t>(archive.size()),
                 &tree);
  rows.clear();
  rows.push_back(measure("floor: libplist write + zlib deflate", [&] {
    char* bin = nullptr;
    uint32_t length = 0;
    plist_to_bin(tree, &bin, &length);
    auto gz = gzipDeflate(Bytes(bin, bin + length));
    doNotOptimize(gz->data());
    plist_to_bin_free(bin);
  }, bytes));
  rows.push_back(measure("libplist write only", [&] {
    char* bin = nullptr;
    uint32_t length = 0;
    plist_to_bin(tree, &bin, &length);
    doNotOptimize(bin);
    plist_to_bin_free(bin);
  }, bytes));
  rows.push_back(measure("ours: archive only", [&] {
    auto bin = archiveTopLevelObjects({{"data", payload}}, true);
    doNotOptimize(bin.data());
  }, bytes));
  rows.push_back(measure("ours: encodeStoredPayload", [&] {
    auto gz = encodeStoredPayload(payload);
    doNotOptimize(gz->data());
  }, bytes));
  printTable("encode " + label, rows);
  {
    char* bin = nullptr;
    uint32_t length = 0;
    plist_to_bin(tree, &bin, &length);
    std::printf("(libplist writes %u bytes for the same tree; deflate of ours takes %zu)\n", length,
                archive.size());
    plist_to_bin_free(bin);
  }
  plist_free(tree);
}

}  // namespace
}  // namespace wdc::bench

int main() {
  using namespace wdc;
  std::mt19937 rng(7);
  bench::compare("typical record (20 fields)", PlistValue(bench::typicalRecord(rng)), 2000);
  bench::compare("~1 MB payload", bench::largePayload(rng, 1 << 20), 5);
  return 0;
}
