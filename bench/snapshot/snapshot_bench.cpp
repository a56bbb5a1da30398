// Folder snapshot cost: extracting and indexing a folder archive of 2,000 small records (mark,
// warm, then reset, which deletes the extraction) against two floors doing the same unpack and
// delete: libarchive's minimal extraction loop without our checks, and the `unzip` program
// (process start included) when it is installed. Then payloadPathForFile lookups per second
// against a bare hash-map find of an already lower-cased name, and against the same lower-casing,
// find and copy without the lock and the folder map. File creation dominates the first table:
// run it with TMPDIR=/dev/shm as well to see the CPU side.
#include <archive.h>
#include <archive_entry.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "platform/env.h"
#include "snapshot/zip_extractor.h"
#include "snapshot/zip_writer.h"
#include "support/bench_util.h"
#include "webdavconnect/zip_snapshot.h"

extern char** environ;

namespace wdc::bench {
namespace {

namespace fs = std::filesystem;

constexpr int kRecords = 2000;
constexpr size_t kRecordBytes = 600;

std::string recordName(std::mt19937& rng, int i) {
  char name[160];
  std::snprintf(name, sizeof name, "o_1_k_%08X-0000-4000-8000-%012X_p__i_%08X-%04X_d_Device%d.tod",
                static_cast<unsigned>(rng()), i, static_cast<unsigned>(rng()),
                static_cast<unsigned>(rng() & 0xFFFF), i % 3);
  return name;
}

// Stored records are gzip streams, so their bytes hardly compress: random bytes stand in.
std::vector<ZipWriterEntry> folderEntries(std::vector<std::string>* names) {
  std::mt19937 rng(7);
  std::vector<ZipWriterEntry> entries = {{"tod/", ZipWriterEntry::Kind::kDirectory}};
  for (int i = 0; i < kRecords; ++i) {
    std::string data(kRecordBytes, '\0');
    for (char& c : data) c = static_cast<char>(rng());
    names->push_back(recordName(rng, i));
    entries.push_back({"tod/" + names->back(), ZipWriterEntry::Kind::kFile, std::move(data)});
  }
  return entries;
}

// libarchive's own example loop, trimmed: no name checks, no limits, no index.
void libarchiveExtract(const std::string& zip, const fs::path& dir) {
  archive* reader = archive_read_new();
  archive_read_support_format_zip(reader);
  archive* disk = archive_write_disk_new();
  archive_read_open_filename(reader, zip.c_str(), 64 * 1024);
  archive_entry* entry = nullptr;
  while (archive_read_next_header(reader, &entry) == ARCHIVE_OK) {
    archive_entry_copy_pathname(entry, (dir / archive_entry_pathname(entry)).c_str());
    archive_write_header(disk, entry);
    const void* block = nullptr;
    size_t size = 0;
    la_int64_t offset = 0;
    while (archive_read_data_block(reader, &block, &size, &offset) == ARCHIVE_OK) {
      archive_write_data_block(disk, block, size, offset);
    }
    archive_write_finish_entry(disk);
  }
  archive_write_free(disk);
  archive_read_free(reader);
}

bool runUnzip(const std::string& zip, const fs::path& dir) {
  const std::string target = dir.string();
  const char* argv[] = {"unzip", "-qq", "-o", zip.c_str(), "-d", target.c_str(), nullptr};
  pid_t pid = 0;
  if (posix_spawnp(&pid, "unzip", nullptr, nullptr, const_cast<char* const*>(argv), environ) != 0) {
    return false;
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

size_t countFiles(const fs::path& dir) {
  size_t count = 0;
  std::error_code ec;
  for (fs::recursive_directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
    count += it->is_regular_file() ? 1 : 0;
  }
  return count;
}

struct Contender {
  std::string name;
  std::function<void()> body;
};

// One call of each contender per round, in turn, until the budget is spent; median per contender.
std::vector<Measurement> takeTurns(const std::vector<Contender>& contenders, double bytesPerOp,
                                   double budgetSeconds) {
  Env& env = Env::current();
  std::vector<std::vector<double>> samples(contenders.size());
  const auto begin = env.uptime();
  while (toSeconds(env.uptime() - begin) < budgetSeconds || samples[0].size() < 3) {
    for (size_t i = 0; i < contenders.size(); ++i) {
      const auto start = env.uptime();
      contenders[i].body();
      samples[i].push_back(static_cast<double>((env.uptime() - start).count()));
    }
  }
  std::vector<Measurement> rows;
  for (size_t i = 0; i < contenders.size(); ++i) {
    auto& s = samples[i];
    std::sort(s.begin(), s.end());
    rows.push_back({contenders[i].name, s[s.size() / 2], bytesPerOp, s.size()});
  }
  return rows;
}

void run() {
  Env& env = Env::current();
  const fs::path work = env.temporaryDirectory() / ("wdc-snapshot-bench-" + env.newUUID());
  fs::create_directories(work);
  const std::string zip = (work / "tod.zip").string();
  std::vector<std::string> names;
  const auto entries = folderEntries(&names);
  if (!writeZipFile(zip, entries)) {
    std::fprintf(stderr, "cannot write %s\n", zip.c_str());
    return;
  }
  const double folderBytes = static_cast<double>(kRecords * kRecordBytes);
  std::printf("folder archive: %d records of %zu bytes, %ju bytes zipped\n", kRecords, kRecordBytes,
              static_cast<uintmax_t>(fs::file_size(zip)));

  const fs::path scratch = work / "floor";
  const bool haveUnzip = runUnzip(zip, scratch);
  const size_t unzipFiles = haveUnzip ? countFiles(scratch) : 0;
  fs::remove_all(scratch);
  libarchiveExtract(zip, scratch);
  const size_t libarchiveFiles = countFiles(scratch);
  fs::remove_all(scratch);
  WebDAVDropboxZipSnapshot snapshot;
  snapshot.markFolder("tod", kRecords);
  snapshot.warmFolder("tod", zip);
  std::printf("files extracted: unzip %zu, libarchive loop %zu, ours %zu (indexed)\n", unzipFiles,
              libarchiveFiles, snapshot.indexedEntryCountForFolder("tod"));
  snapshot.reset();

  // The disk here is shared and its speed drifts, so the contenders take turns.
  std::vector<Contender> contenders;
  if (haveUnzip) {
    contenders.push_back({"unzip -qq (process) + delete", [&] {
                            runUnzip(zip, scratch);
                            fs::remove_all(scratch);
                          }});
  }
  contenders.push_back({"libarchive minimal loop + delete", [&] {
                          libarchiveExtract(zip, scratch);
                          fs::remove_all(scratch);
                        }});
  contenders.push_back({"mark + warm + reset (ours)", [&] {
                          snapshot.markFolder("tod", kRecords);
                          if (!snapshot.warmFolder("tod", zip))
                            std::fprintf(stderr, "warm failed\n");
                          snapshot.reset();
                        }});
  std::vector<Measurement> rows = takeTurns(contenders, folderBytes, 9.0);
  fs::create_directories(scratch);
  extractZipFile(zip, scratch, {}, nullptr);
  rows.push_back(measure(
      "  of which: index walk",
      [&] {
        auto index = indexExtractedFiles(scratch);
        doNotOptimize(&index);
      },
      0, 1.0));
  fs::remove_all(scratch);
  printTable("Extract and index one folder archive (MB/s of record bytes)", rows,
             haveUnzip ? "unzip -qq (process) + delete" : "");

  // Lookups: names in the case the listing reports them, some of them misses.
  snapshot.markFolder("tod", kRecords);
  snapshot.warmFolder("tod", zip);
  std::vector<std::string> queries;
  for (size_t i = 0; i < names.size(); ++i) {
    std::string q = names[i];
    if (i % 2 == 0) q[0] = 'O';  // hosts may ask in another case
    if (i % 10 == 0) q += ".missing";
    queries.push_back(std::move(q));
  }
  WebDAVZipPayloadIndex bare;
  fs::create_directories(scratch);
  extractZipFile(zip, scratch, {}, nullptr);
  bare = indexExtractedFiles(scratch);
  std::printf("\nlookups: %zu indexed by us, %zu in the bare map, %zu queries\n",
              snapshot.indexedEntryCountForFolder("tod"), bare.size(), queries.size());
  std::vector<std::string> lowered;
  for (const auto& q : queries) lowered.push_back(WebDAVDropboxZipSnapshot::normalizedFolder(q));

  // Each turn looks every query up once; figures are per lookup.
  size_t hits = 0;
  const double perTurn = static_cast<double>(queries.size());
  const std::vector<Contender> lookupContenders = {
      {"unordered_map::find, lower-cased",
       [&] {
         for (const auto& q : lowered) hits += bare.count(q);
       }},
      // The work any such lookup must do: lower-case the asked name, find it, copy the path out.
      {"lower-case + find + copy, no lock",
       [&] {
         for (const auto& q : queries) {
           const auto it = bare.find(WebDAVDropboxZipSnapshot::normalizedFolder(q));
           std::optional<std::string> path;
           if (it != bare.end()) path = it->second;
           hits += path.has_value();
         }
       }},
      {"payloadPathForFile (ours)",
       [&] {
         for (const auto& q : queries) hits += snapshot.payloadPathForFile(q, "/Tod/").has_value();
       }},
  };
  std::vector<Measurement> lookups = takeTurns(lookupContenders, 0, 3.0);
  for (auto& row : lookups) row.nanosPerOp /= perTurn;
  printTable("payloadPathForFile lookups", lookups);
  std::printf("(%zu hits)\n", hits);
  snapshot.reset();
  fs::remove_all(work);
}

}  // namespace
}  // namespace wdc::bench

int main() {
  wdc::bench::run();
  return 0;
}
