#include "emulator/zip_writer.h"

#include <archive.h>
#include <archive_entry.h>

#include <memory>

namespace wdc::emu {
namespace {

la_ssize_t appendToString(archive*, void* target, const void* data, size_t length) {
  static_cast<std::string*>(target)->append(static_cast<const char*>(data), length);
  return static_cast<la_ssize_t>(length);
}

}  // namespace

std::optional<std::string> buildZip(const std::vector<ZipItem>& items, std::string* error) {
  std::string output;
  std::unique_ptr<archive, int (*)(archive*)> writer(archive_write_new(), archive_write_free);
  std::unique_ptr<archive_entry, void (*)(archive_entry*)> entry(archive_entry_new(),
                                                                 archive_entry_free);
  auto fail = [&](const char* what) -> std::optional<std::string> {
    if (error) {
      const char* detail = writer ? archive_error_string(writer.get()) : nullptr;
      *error = std::string(what) + (detail ? std::string(": ") + detail : std::string());
    }
    return std::nullopt;
  };
  if (!writer || !entry) return fail("cannot allocate the archive");
  if (archive_write_set_format_zip(writer.get()) != ARCHIVE_OK ||
      // Names are stored as UTF-8 with the ZIP's UTF-8 flag, whatever the process locale.
      archive_write_set_format_option(writer.get(), "zip", "hdrcharset", "UTF-8") != ARCHIVE_OK ||
      archive_write_set_bytes_in_last_block(writer.get(), 1) != ARCHIVE_OK ||
      archive_write_open(writer.get(), &output, nullptr, appendToString, nullptr) != ARCHIVE_OK) {
    return fail("cannot open the ZIP writer");
  }
  for (const ZipItem& item : items) {
    archive_entry_clear(entry.get());
    const bool folder = !item.path.empty() && item.path.back() == '/';
    archive_entry_set_pathname_utf8(entry.get(), item.path.c_str());
    archive_entry_set_filetype(entry.get(), folder ? AE_IFDIR : AE_IFREG);
    archive_entry_set_perm(entry.get(), folder ? 0755 : 0644);
    archive_entry_set_size(entry.get(), folder ? 0 : static_cast<la_int64_t>(item.contents.size()));
    archive_entry_set_mtime(entry.get(), std::chrono::system_clock::to_time_t(item.modified), 0);
    if (archive_write_header(writer.get(), entry.get()) != ARCHIVE_OK) {
      return fail("cannot write a ZIP entry header");
    }
    if (!folder && !item.contents.empty() &&
        archive_write_data(writer.get(), item.contents.data(), item.contents.size()) < 0) {
      return fail("cannot write ZIP entry data");
    }
  }
  if (archive_write_close(writer.get()) != ARCHIVE_OK) return fail("cannot finish the ZIP");
  return output;
}

}  // namespace wdc::emu
