// libarchive reads the ZIP (central directory when it can seek) and writes to disk. Our own checks
// come first, with readable reasons: a name must be relative without "..", and only files and
// directories are written, so the archive cannot plant a link to walk through. libarchive's
// NODOTDOT guard stays on beneath them. Its SYMLINKS guard is off: it inspects every component of
// every name on disk and doubled the extraction time, and the caller extracts into a fresh
// directory that no other user can write to (see zip_snapshot.cpp), so no link can be there.
// Its NOABSOLUTEPATHS guard cannot be used, because every name we hand it is the destination plus
// the entry name.
#include "snapshot/zip_extractor.h"

#include <archive.h>
#include <archive_entry.h>

#include <memory>
#include <system_error>

#include "util/unicode_case.h"

namespace wdc {
namespace {

namespace fs = std::filesystem;

struct ReadCloser {
  void operator()(archive* a) const { archive_read_free(a); }
};
struct WriteCloser {
  void operator()(archive* a) const { archive_write_free(a); }
};
using ArchiveReader = std::unique_ptr<archive, ReadCloser>;
using DiskWriter = std::unique_ptr<archive, WriteCloser>;

constexpr size_t kReadBlockSize = 64 * 1024;

bool fail(std::string* whyNot, std::string reason) {
  if (whyNot != nullptr) *whyNot = std::move(reason);
  return false;
}

std::string archiveMessage(archive* a) {
  const char* text = archive_error_string(a);
  return text != nullptr ? text : "unknown libarchive error";
}

ArchiveReader newZipReader() {
  ArchiveReader reader(archive_read_new());
  // ZIP only: a tar or cpio stream posing as a folder archive is refused, not unpacked.
  archive_read_support_format_zip(reader.get());
  return reader;
}

// Copies one regular file's data, counting the bytes against the archive-wide budget.
bool copyData(archive* reader, archive* disk, const std::string& name, uint64_t maxTotalBytes,
              uint64_t* totalBytes, std::string* whyNot) {
  for (;;) {
    const void* block = nullptr;
    size_t size = 0;
    la_int64_t offset = 0;
    const int r = archive_read_data_block(reader, &block, &size, &offset);
    if (r == ARCHIVE_EOF) return true;
    // A warning here is a checksum or length mismatch: the data is damaged, so it is refused.
    if (r != ARCHIVE_OK) return fail(whyNot, "cannot read " + name + ": " + archiveMessage(reader));
    *totalBytes += size;
    if (*totalBytes > maxTotalBytes) {
      return fail(whyNot, "archive holds more than " + std::to_string(maxTotalBytes) + " bytes");
    }
    if (archive_write_data_block(disk, block, size, offset) < ARCHIVE_WARN) {
      return fail(whyNot, "cannot write " + name + ": " + archiveMessage(disk));
    }
  }
}

bool extractFrom(archive* reader, const fs::path& destination,
                 const WebDAVZipExtractionLimits& limits, std::string* whyNot) {
  std::error_code ec;
  if (!fs::is_directory(destination, ec)) {
    return fail(whyNot, "no extraction directory " + destination.string());
  }
  const std::string prefix = destination.string() + "/";

  DiskWriter disk(archive_write_disk_new());
  archive_write_disk_set_options(disk.get(), ARCHIVE_EXTRACT_SECURE_NODOTDOT);

  uint64_t entries = 0;
  uint64_t totalBytes = 0;
  for (;;) {
    archive_entry* entry = nullptr;
    const int r = archive_read_next_header(reader, &entry);
    if (r == ARCHIVE_EOF) break;
    if (r < ARCHIVE_WARN) return fail(whyNot, "unreadable archive: " + archiveMessage(reader));
    if (++entries > limits.maxEntries) {
      return fail(whyNot, "archive holds more than " + std::to_string(limits.maxEntries) +
                              " entries");
    }
    // Names are taken as UTF-8 bytes, whatever the process locale, and written as such.
    const char* utf8 = archive_entry_pathname_utf8(entry);
    if (utf8 == nullptr) utf8 = archive_entry_pathname(entry);
    if (utf8 == nullptr) return fail(whyNot, "entry " + std::to_string(entries) + " has no name");
    const std::string name = utf8;
    if (std::string reason = unsafeEntryNameReason(name); !reason.empty()) {
      return fail(whyNot, std::move(reason));
    }
    const auto type = archive_entry_filetype(entry);
    if ((type != AE_IFREG && type != AE_IFDIR) || archive_entry_hardlink(entry) != nullptr) {
      return fail(whyNot, "entry is neither a file nor a directory: " + name);
    }
    if (archive_entry_size_is_set(entry) != 0 && archive_entry_size(entry) > 0 &&
        static_cast<uint64_t>(archive_entry_size(entry)) > limits.maxTotalBytes - totalBytes) {
      return fail(whyNot, "archive holds more than " + std::to_string(limits.maxTotalBytes) +
                              " bytes");
    }

    archive_entry_copy_pathname(entry, (prefix + name).c_str());
    // Modes from the archive are not trusted: an unreadable directory could not be cleaned up.
    archive_entry_set_perm(entry, type == AE_IFDIR ? 0755 : 0644);
    if (archive_write_header(disk.get(), entry) < ARCHIVE_WARN) {
      return fail(whyNot, "cannot create " + name + ": " + archiveMessage(disk.get()));
    }
    if (type == AE_IFREG &&
        !copyData(reader, disk.get(), name, limits.maxTotalBytes, &totalBytes, whyNot)) {
      return false;
    }
    if (archive_write_finish_entry(disk.get()) < ARCHIVE_WARN) {
      return fail(whyNot, "cannot finish " + name + ": " + archiveMessage(disk.get()));
    }
  }
  if (archive_write_close(disk.get()) < ARCHIVE_WARN) {
    return fail(whyNot, "cannot finish extraction: " + archiveMessage(disk.get()));
  }
  return true;
}

}  // namespace

std::string unsafeEntryNameReason(std::string_view name) {
  if (name.empty()) return "entry without a name";
  if (name.front() == '/') return "entry with an absolute name: " + std::string(name);
  size_t start = 0;
  while (start <= name.size()) {
    size_t end = name.find('/', start);
    if (end == std::string_view::npos) end = name.size();
    if (name.substr(start, end - start) == "..") {
      return "entry escapes the extraction directory: " + std::string(name);
    }
    start = end + 1;
  }
  return {};
}

bool extractZipFile(const fs::path& zipPath, const fs::path& destination,
                    const WebDAVZipExtractionLimits& limits, std::string* whyNot) {
  ArchiveReader reader = newZipReader();
  if (archive_read_open_filename(reader.get(), zipPath.c_str(), kReadBlockSize) != ARCHIVE_OK) {
    return fail(whyNot, "cannot open " + zipPath.string() + ": " + archiveMessage(reader.get()));
  }
  return extractFrom(reader.get(), destination, limits, whyNot);
}

bool extractZipBytes(std::span<const uint8_t> zip, const fs::path& destination,
                     const WebDAVZipExtractionLimits& limits, std::string* whyNot) {
  ArchiveReader reader = newZipReader();
  if (archive_read_open_memory(reader.get(), zip.data(), zip.size()) != ARCHIVE_OK) {
    return fail(whyNot, "cannot open archive: " + archiveMessage(reader.get()));
  }
  return extractFrom(reader.get(), destination, limits, whyNot);
}

WebDAVZipPayloadIndex indexExtractedFiles(const fs::path& directory) {
  WebDAVZipPayloadIndex index;
  std::error_code ec;
  fs::recursive_directory_iterator it(directory, ec);
  for (const fs::recursive_directory_iterator end; !ec && it != end; it.increment(ec)) {
    std::error_code statusError;
    const fs::file_status status = it->status(statusError);
    if (statusError || !fs::exists(status) || fs::is_directory(status)) continue;
    const fs::path& path = it->path();
    index.insert_or_assign(lowercaseUnicode(path.filename().string()), path.string());
  }
  return index;
}

}  // namespace wdc
