// Folder snapshot cost: extracting and indexing a folder archive of 2,000 small records (mark,
// warm, then reset, which deletes the extraction) against two floors doing the same unpack and
// delete: libarchive's minimal extraction loop without our checks, and the `unzip` program
// (process start included) when it is installed. Then payloadPathForFile lookups per second
// against a bare hash-map find of an already lower-cased name.
#include <archive.h>
#include <archive_entry.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
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
  std::vector<Measurement> rows;
  const bool haveUnzip = runUnzip(zip, scratch);
  fs::remove_all(scratch);
  if (haveUnzip) {
    rows.push_back(measure("unzip -qq (process) + delete", [&] {
      runUnzip(zip, scratch);
      fs::remove_all(scratch);
    }, folderBytes, 3.0));
  }
  rows.push_back(measure("libarchive minimal loop + delete", [&] {
    libarchiveExtract(zip, scratch);
    fs::remove_all(scratch);
  }, folderBytes, 3.0));

  WebDAVDropboxZipSnapshot snapshot;
  rows.push_back(measure("mark + warm + reset (ours)", [&] {
    snapshot.markFolder("tod", kRecords);
    if (!snapshot.warmFolder("tod", zip)) std::fprintf(stderr, "warm failed\n");
    snapshot.reset();
  }, folderBytes, 3.0));
  fs::create_directories(scratch);
  extractZipFile(zip, scratch, {}, nullptr);
  rows.push_back(measure("  of which: index walk", [&] {
    auto index = indexExtractedFiles(scratch);
    doNotOptimize(&index);
  }, 0, 1.0));
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
  extractZipFile(zip, scratch, {}, nullptr);
  bare = indexExtractedFiles(scratch);
  std::vector<std::string> lowered;
  for (const auto& q : queries) lowered.push_back(WebDAVDropboxZipSnapshot::normalizedFolder(q));

  size_t next = 0;
  size_t hits = 0;
  std::vector<Measurement> lookups;
  lookups.push_back(measure("unordered_map::find, lower-cased", [&] {
    hits += bare.count(lowered[next]);
    if (++next == lowered.size()) next = 0;
  }));
  lookups.push_back(measure("payloadPathForFile (ours)", [&] {
    auto path = snapshot.payloadPathForFile(queries[next], "/Tod/");
    hits += path.has_value();
    if (++next == queries.size()) next = 0;
  }));
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
