// The tar extractor. Headers are read field by field within their fixed widths, so no header,
// however garbled, makes a read run past its 512 bytes; every count read from a header is only
// ever used to read that many blocks from the stream, and a stream that ends early is a -1.
//
// Not built on libarchive on purpose: archives out there were written to (and are accepted by)
// this reader's exact rules: names cut at white space, only "0" and "5" entries, the signed
// checksum, and the end-of-archive messages. libarchive accepts more (both checksum forms, NUL
// typeflags, long-name extensions), which would extract archives hosts have always rejected.
#include "webdavconnect/tar_extraction.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

namespace wdc {
namespace {

constexpr size_t kNameOffset = 0, kNameLength = 100;
constexpr size_t kModeOffset = 100, kModeLength = 8;
constexpr size_t kSizeOffset = 124, kSizeLength = 12;
constexpr size_t kChecksumOffset = 148, kChecksumLength = 8;
constexpr size_t kTypeflagOffset = 156;
constexpr off_t kRecordSize = 10240;  // 20 blocks

bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

// An octal number as scanf's "%<digits>o" reads it (leading white space skipped, at most
// `maxDigits` digits), but never beyond the field. nullopt when no digit is there.
std::optional<uint64_t> octalField(const char* header, size_t offset, size_t length,
                                   size_t maxDigits) {
  size_t i = offset;
  const size_t end = offset + length;
  while (i < end && isSpace(header[i])) ++i;
  uint64_t value = 0;
  size_t digits = 0;
  while (i < end && digits < maxDigits && header[i] >= '0' && header[i] <= '7') {
    value = value * 8 + static_cast<uint64_t>(header[i] - '0');
    ++i;
    ++digits;
  }
  if (digits == 0) return std::nullopt;
  return value;
}

// The name as "%s" reads it: leading white space skipped, then up to white space or NUL, and
// here never past the 100-byte field.
std::string nameField(const char* header) {
  size_t i = kNameOffset;
  const size_t end = kNameOffset + kNameLength;
  while (i < end && isSpace(header[i])) ++i;
  const size_t start = i;
  while (i < end && header[i] != '\0' && !isSpace(header[i])) ++i;
  return std::string(header + start, i - start);
}

// Refuses names that would land outside the destination.
bool isSafeName(std::string_view name) {
  if (name.empty() || name.front() == '/') return false;
  size_t start = 0;
  while (start <= name.size()) {
    size_t slash = name.find('/', start);
    if (slash == std::string_view::npos) slash = name.size();
    if (name.substr(start, slash - start) == "..") return false;
    start = slash + 1;
  }
  return true;
}

// A folder entry's name without its trailing slashes ("dir/" names "dir").
std::string trimmedFolderName(std::string name) {
  while (name.size() > 1 && name.back() == '/') name.pop_back();
  return name;
}

int signedHeaderSum(const char* header) {
  int sum = 0;
  for (size_t i = 0; i < kTarBlockSize; ++i) {
    const bool inChecksum = i >= kChecksumOffset && i < kChecksumOffset + kChecksumLength;
    sum += inChecksum ? ' ' : static_cast<int>(static_cast<signed char>(header[i]));
  }
  return sum;
}

// True when no byte is left to read. feof() alone only turns true after a read has failed.
bool atEnd(std::FILE* stream) {
  const int c = std::getc(stream);
  if (c == EOF) return true;
  std::ungetc(c, stream);
  return false;
}

void vreport(const char* format, va_list args, bool withErrno) {
  const int savedErrno = errno;
  char text[512];
  const int length = std::vsnprintf(text, sizeof text, format, args);
  if (length < 0 || static_cast<size_t>(length) >= sizeof text) std::abort();
  if (withErrno) {
    std::fprintf(stderr, "%s: %s\n", text, std::strerror(savedErrno));
  } else {
    std::fputs(text, stderr);
  }
}

// The folder that holds entry `name` below `destination`, opened one component at a time without
// following links, so that a link planted in the destination (or made by an earlier archive)
// cannot carry an entry outside it. The destination itself is the caller's and may be a link.
// Returns the descriptor and the entry's last component, or -1.
int openParentOfEntry(const char* destination, const std::string& name, std::string& leaf) {
  int dir = ::open(destination, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  size_t start = 0;
  for (size_t slash = name.find('/'); dir >= 0 && slash != std::string::npos;
       slash = name.find('/', start)) {
    const std::string component = name.substr(start, slash - start);
    start = slash + 1;
    if (component.empty() || component == ".") continue;
    const int next = ::openat(dir, component.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    ::close(dir);
    dir = next;
  }
  leaf = name.substr(start);
  if (leaf.empty() || leaf == ".") {  // "dir/" or "dir/.": the entry is the folder itself
    if (dir >= 0) ::close(dir);
    return -1;
  }
  return dir;
}

int extractFile(std::FILE* stream, const char* destination, const std::string& name,
                const std::string& path, mode_t mode, int32_t size) {
  std::string leaf;
  const int parent = openParentOfEntry(destination, name, leaf);
  if (parent < 0) return -1;
  ::unlinkat(parent, leaf.c_str(), 0);
  const int fd = ::openat(parent, leaf.c_str(),
                          O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, mode);
  ::close(parent);
  if (fd < 0) return -1;
  std::FILE* out = ::fdopen(fd, "w");
  if (out == nullptr) {
    ::close(fd);
    return -1;
  }
  char block[kTarBlockSize];
  for (int32_t remaining = size; remaining > 0; remaining -= kTarBlockSize) {
    const size_t wanted = remaining < kTarBlockSize ? static_cast<size_t>(remaining) : kTarBlockSize;
    // The output is closed on these failures too, so a long run of bad archives cannot use up
    // the process's descriptors.
    if (std::fread(block, 1, kTarBlockSize, stream) != kTarBlockSize ||
        std::fwrite(block, 1, wanted, out) != wanted) {
      std::fclose(out);
      return -1;
    }
  }
  // Through the descriptor, not the name: the name could be swapped for a link meanwhile.
  const int modeResult = ::fchmod(fd, 0644);
  if (std::fclose(out) != 0) return -1;
  if (modeResult != 0) sys_warning("tar: cannot chmod on %s", path.c_str());
  return 0;
}

}  // namespace

void usr_fatal(int /*unused*/, const char* format, ...) {
  va_list args;
  va_start(args, format);
  vreport(format, args, false);
  va_end(args);
}

void usr_warning(const char* format, ...) {
  va_list args;
  va_start(args, format);
  vreport(format, args, false);
  va_end(args);
}

void sys_fatal(int /*unused*/, const char* format, ...) {
  va_list args;
  va_start(args, format);
  vreport(format, args, true);
  va_end(args);
}

void sys_warning(const char* format, ...) {
  va_list args;
  va_start(args, format);
  vreport(format, args, true);
  va_end(args);
}

int is_zero_block(const char* block) {
  for (size_t i = 0; i < kTarBlockSize; ++i) {
    if (block[i] != 0) return 0;
  }
  return 1;
}

int untar_it(std::FILE* stream, const char* header, const char* destination) {
  if (stream == nullptr || header == nullptr || destination == nullptr) return -1;
  const std::string name = nameField(header);
  const auto mode = octalField(header, kModeOffset, kModeLength, 6);
  const auto size = octalField(header, kSizeOffset, kSizeLength, 11);
  const auto checksum = octalField(header, kChecksumOffset, kChecksumLength, 6);
  if (!mode || !size || !checksum) return -1;
  if (static_cast<int64_t>(*checksum) != signedHeaderSum(header)) return -1;
  if (!isSafeName(name)) return -1;

  ::mkdir(destination, 0755);  // an existing folder is fine; a real problem shows up below
  if (::chmod(destination, 0755) != 0) sys_warning("tar: cannot chmod on %s", destination);

  // "%6ho" keeps 16 bits; only permission bits reach the file system.
  const auto entryMode = static_cast<mode_t>(static_cast<uint16_t>(*mode) & 07777);
  const std::string path = std::string(destination) + "/" + name;
  switch (header[kTypeflagOffset]) {
    case '5': {
      std::string leaf;
      const int parent = openParentOfEntry(destination, trimmedFolderName(name), leaf);
      if (parent < 0) return -1;
      int result = -1;
      if (::mkdirat(parent, leaf.c_str(), entryMode) == 0) {
        result = 0;
        // Directories end up without search permission; hosts have always received them so.
        // AT_SYMLINK_NOFOLLOW is not offered for modes; the folder was just made by us.
        if (::fchmodat(parent, leaf.c_str(), 0644, 0) != 0) {
          sys_warning("tar: cannot chmod on %s", path.c_str());
        }
      }
      ::close(parent);
      return result;
    }
    case '0':
      return extractFile(stream, destination, name, path, entryMode,
                         static_cast<int32_t>(static_cast<uint32_t>(*size & 0xFFFFFFFFu)));
    default:
      return -1;
  }
}

int untar(std::FILE* stream, const char* archivePath, const char* destination) {
  if (stream == nullptr || archivePath == nullptr || destination == nullptr) return -1;
  char block[kTarBlockSize];
  while (!atEnd(stream)) {
    if (std::fread(block, 1, kTarBlockSize, stream) != kTarBlockSize) return -1;
    if (is_zero_block(block)) break;
    if (untar_it(stream, block, destination) == -1) return -1;
  }
  if (atEnd(stream)) usr_warning("tar: zero blocks not found\n");
  if (std::fread(block, 1, kTarBlockSize, stream) != kTarBlockSize) return -1;
  if (!is_zero_block(block)) usr_warning("tar: not enough zero blocks\n");

  struct stat info;
  if (::fstat(::fileno(stream), &info) != 0) return -1;
  if (info.st_size % kRecordSize != 0) usr_warning("tar: not eough padding blocks at the end\n");
  ::unlink(archivePath);
  return 0;
}

}  // namespace wdc
