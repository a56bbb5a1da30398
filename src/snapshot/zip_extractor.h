// Safe extraction of a ZIP archive into a directory, and the index of what landed there. The
// archive comes from the network, so it is treated as hostile: only regular files and
// directories are written, every entry must stay inside the destination (no absolute name, no
// ".." component, no path through a symbolic link), and entry count and written bytes are capped.
// The first offending entry stops the extraction with a reason; cleaning up is the caller's job.
#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <string>

#include "webdavconnect/zip_snapshot.h"

namespace wdc {

// Extracts the ZIP file at `zipPath` into `destination`, which must exist. Returns true when
// every entry was written; otherwise false with the reason in `*whyNot` (when non-null), e.g.
// "entry escapes the extraction directory: ../x". Files written before a failure stay.
bool extractZipFile(const std::filesystem::path& zipPath, const std::filesystem::path& destination,
                    const WebDAVZipExtractionLimits& limits, std::string* whyNot);

// The same for an archive held in memory.
bool extractZipBytes(std::span<const uint8_t> zip, const std::filesystem::path& destination,
                     const WebDAVZipExtractionLimits& limits, std::string* whyNot);

// Every non-directory under `directory`, recursively, keyed by its file name in lower case. Two
// files whose names differ only in case, or that share a name in different subdirectories, take
// one slot: the one the walk meets last wins.
WebDAVZipPayloadIndex indexExtractedFiles(const std::filesystem::path& directory);

// Whether an archive entry name may be extracted: relative, non-empty, no ".." component.
// Returns the reason it may not, or "" when it may.
std::string unsafeEntryNameReason(std::string_view name);

}  // namespace wdc
