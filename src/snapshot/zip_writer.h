// Builds ZIP archives with libarchive: what a folder archive looks like on the wire. The
// loopback store serves these, and tests and benchmarks make their archives with it, including
// hostile ones (names with "..", absolute names, symbolic links), since nothing here checks names.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "webdavconnect/plist_value.h"

namespace wdc {

struct ZipWriterEntry {
  enum class Kind { kFile, kDirectory, kSymlink };
  // NOLINTNEXTLINE(google-explicit-constructor): lists of entries read best as braced lists.
  ZipWriterEntry(std::string entryName, Kind entryKind = Kind::kFile, std::string contents = {},
                 std::string target = {})
      : name(std::move(entryName)),
        kind(entryKind),
        data(std::move(contents)),
        linkTarget(std::move(target)) {}

  std::string name;  // stored as given, "/"-separated
  Kind kind;
  std::string data;        // file contents
  std::string linkTarget;  // for kSymlink
};

// Deflate-compressed unless `store` is set. Returns nullopt when libarchive refuses an entry.
[[nodiscard]] std::optional<Bytes> buildZipArchive(const std::vector<ZipWriterEntry>& entries,
                                                   bool store = false);

// buildZipArchive written to `path`. Returns false when it cannot be built or written.
bool writeZipFile(const std::filesystem::path& path, const std::vector<ZipWriterEntry>& entries,
                  bool store = false);

}  // namespace wdc
