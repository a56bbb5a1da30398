#include "snapshot/zip_writer.h"

#include <archive.h>
#include <archive_entry.h>

#include <fstream>
#include <memory>

namespace wdc {
namespace {

struct WriterCloser {
  void operator()(archive* a) const { archive_write_free(a); }
};
struct EntryCloser {
  void operator()(archive_entry* e) const { archive_entry_free(e); }
};

la_ssize_t appendToBytes(archive* /*a*/, void* clientData, const void* buffer, size_t length) {
  auto* out = static_cast<Bytes*>(clientData);
  const auto* bytes = static_cast<const uint8_t*>(buffer);
  out->insert(out->end(), bytes, bytes + length);
  return static_cast<la_ssize_t>(length);
}

}  // namespace

std::optional<Bytes> buildZipArchive(const std::vector<ZipWriterEntry>& entries, bool store) {
  Bytes out;
  std::unique_ptr<archive, WriterCloser> writer(archive_write_new());
  archive* a = writer.get();
  if (archive_write_set_format_zip(a) != ARCHIVE_OK) return std::nullopt;
  archive_write_set_options(a, store ? "zip:compression=store" : "zip:compression=deflate");
  // No padding after the central directory: the archive ends where its last record does.
  archive_write_set_bytes_in_last_block(a, 1);
  if (archive_write_open(a, &out, nullptr, appendToBytes, nullptr) != ARCHIVE_OK) {
    return std::nullopt;
  }
  for (const auto& item : entries) {
    std::unique_ptr<archive_entry, EntryCloser> entry(archive_entry_new());
    archive_entry* e = entry.get();
    archive_entry_copy_pathname(e, item.name.c_str());
    archive_entry_set_mtime(e, 1'700'000'000, 0);
    switch (item.kind) {
      case ZipWriterEntry::Kind::kFile:
        archive_entry_set_filetype(e, AE_IFREG);
        archive_entry_set_perm(e, 0644);
        archive_entry_set_size(e, static_cast<la_int64_t>(item.data.size()));
        break;
      case ZipWriterEntry::Kind::kDirectory:
        archive_entry_set_filetype(e, AE_IFDIR);
        archive_entry_set_perm(e, 0755);
        archive_entry_set_size(e, 0);
        break;
      case ZipWriterEntry::Kind::kSymlink:
        archive_entry_set_filetype(e, AE_IFLNK);
        archive_entry_set_perm(e, 0777);
        archive_entry_copy_symlink(e, item.linkTarget.c_str());
        archive_entry_set_size(e, 0);
        break;
    }
    if (archive_write_header(a, e) < ARCHIVE_WARN) return std::nullopt;
    if (item.kind == ZipWriterEntry::Kind::kFile && !item.data.empty() &&
        archive_write_data(a, item.data.data(), item.data.size()) < 0) {
      return std::nullopt;
    }
  }
  if (archive_write_close(a) != ARCHIVE_OK) return std::nullopt;
  return out;
}

bool writeZipFile(const std::filesystem::path& path, const std::vector<ZipWriterEntry>& entries,
                  bool store) {
  const auto bytes = buildZipArchive(entries, store);
  if (!bytes) return false;
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(reinterpret_cast<const char*>(bytes->data()),
             static_cast<std::streamsize>(bytes->size()));
  return static_cast<bool>(file);
}

}  // namespace wdc
