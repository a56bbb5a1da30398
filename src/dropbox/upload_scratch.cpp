// Scratch files of the uploads: one archive per object, gzipped in place, in the Env's temporary
// directory. Every step that can fail is logged and the upload goes on with what exists, but only
// a file we wrote completely is ever marked sendable.
#include "dropbox/upload_scratch.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/env.h"
#include "platform/logger.h"
#include "util/unicode_case.h"
#include "webdavconnect/data_codecs.h"
#include "webdavconnect/gzip_file_tool.h"
#include "webdavconnect/keyed_archive.h"
#include "webdavconnect/webdav_connect.h"

namespace wdc::dropbox {
namespace {

constexpr std::string_view kNullText = "(null)";
constexpr std::string_view kGzipSuffix = ".gz";
// file_compress derives "<path>.gz" in a buffer of this size and aborts the process past it.
constexpr size_t kGzipToolNameBuffer = 1024;
constexpr const char* kCompressMode = "wb";

void appendLowered(std::string& out, const std::optional<std::string>& identifier) {
  if (identifier) out += lowercaseUnicode(*identifier);
}

std::string posixErrorText(int code, const std::filesystem::path& path) {
  return Error::withDescription("NSPOSIXErrorDomain", code,
                                fmt::format("{}: {}", path.string(), std::strerror(code)))
      .description();
}

bool isHexDigit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return c - 'A' + 10;
}

}  // namespace

std::string uploadFileName(const WebDAVFileMetaData& metaData) {
  std::string name = "o_";
  name += metaData.OpType ? *metaData.OpType : std::string(kNullText);
  name += "_k_";
  appendLowered(name, metaData.ContainerUID);
  name += "_p_";
  appendLowered(name, metaData.ParentUID);
  name += "_i_";
  appendLowered(name, metaData.UID);
  name += "_d_";
  name += ".";
  name += metaData.Extension ? *metaData.Extension : std::string(kNullText);
  return name;
}

std::filesystem::path scratchPathFor(const std::string& name) {
  std::string safe;
  safe.reserve(name.size());
  for (char c : name) {
    switch (c) {
      case '/': safe += "%2F"; break;
      case '%': safe += "%25"; break;
      case '\0': safe += "%00"; break;
      default: safe += c;
    }
  }
  return Env::current().temporaryDirectory() / safe;
}

std::string fileUrlForPath(const std::filesystem::path& path) {
  std::string url = "file://";
  for (unsigned char c : path.string()) {
    const bool plain = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                       c == '-' || c == '.' || c == '_' || c == '~' || c == '/';
    if (plain) {
      url += static_cast<char>(c);
    } else {
      url += fmt::format("%{:02X}", c);
    }
  }
  return url;
}

std::filesystem::path pathForFileUrl(const std::string& fileUrl) {
  std::string_view rest = fileUrl;
  if (rest.starts_with("file://")) rest.remove_prefix(7);
  std::string path;
  for (size_t i = 0; i < rest.size(); ++i) {
    if (rest[i] == '%' && i + 2 < rest.size() && isHexDigit(rest[i + 1]) &&
        isHexDigit(rest[i + 2])) {
      path += static_cast<char>(hexValue(rest[i + 1]) * 16 + hexValue(rest[i + 2]));
      i += 2;
    } else {
      path += rest[i];
    }
  }
  return path;
}

bool writeScratchFile(const std::filesystem::path& path, const Bytes& bytes, std::string* reason) {
  auto fail = [&](int code) {
    if (reason != nullptr) *reason = posixErrorText(code, path);
    return false;
  };
  // Whatever sits there goes first; a link is removed itself, never followed.
  // Not ours to remove (or a folder): the exclusive create below then refuses the path.
  ::unlink(path.c_str());
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) return fail(errno);
  size_t written = 0;
  while (written < bytes.size()) {
    const ssize_t n = ::write(fd, bytes.data() + written, bytes.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      const int code = n < 0 ? errno : ENOSPC;
      ::close(fd);
      ::unlink(path.c_str());  // a half-written scratch file must never be sent
      return fail(code);
    }
    written += static_cast<size_t>(n);
  }
  if (::close(fd) != 0) {
    const int code = errno;
    ::unlink(path.c_str());
    return fail(code);
  }
  return true;
}

ScratchUpload prepareScratchFile(const std::string& fileName, const PlistValue& object,
                                 ScratchUse use) {
  const bool isRecord = use != ScratchUse::kArbitraryObject;
  ScratchUpload scratch;
  scratch.fileName = fileName;
  scratch.scratchPath = scratchPathFor(fileName);
  PlistDictionary top;
  top.set("data", object);
  const Bytes archive = archiveTopLevelObjects(top, /*mutableTopDictionaries=*/true);

  if (isRecord) {
    log::debug(fmt::format("[DROPBOX] Copying file to local directory first before upload: {}",
                           scratch.scratchPath.string()));
  }
  std::string reason;
  const bool archiveWritten = writeScratchFile(scratch.scratchPath, archive, &reason);
  if (!archiveWritten && use == ScratchUse::kBatchRecord) {
    log::error(fmt::format("[DROPBOX] ERROR - Local file was NOT written: {}, {}", fileName,
                           reason));
  }

  std::filesystem::path gzipPath = scratch.scratchPath;
  gzipPath += kGzipSuffix;
  // The compressed file is created by us before the gzip tool opens it by name, so the tool
  // writes into our own file rather than through whatever was planted there.
  const bool gzipReady = writeScratchFile(gzipPath, {}, nullptr);
  const bool nameFits = gzipPath.native().size() < kGzipToolNameBuffer;
  if (archiveWritten && gzipReady && nameFits &&
      file_compress(scratch.scratchPath.c_str(), kCompressMode) == 1) {
    scratch.uploadPath = gzipPath;
    scratch.complete = true;
  } else {
    scratch.uploadPath = scratch.scratchPath;
    if (std::optional<Bytes> compressed = gzipDeflate(archive)) {
      scratch.complete = writeScratchFile(scratch.scratchPath, *compressed, nullptr);
    } else {
      // The plain archive is still a readable stored payload.
      scratch.complete = archiveWritten;
    }
  }

  struct stat info {};
  if (isRecord && ::lstat(scratch.uploadPath.c_str(), &info) != 0) {
    // Both placeholders take the stored name, as this line always has.
    log::error(fmt::format("[DROPBOX] ERROR - Local file does NOT exist: {} (Unencoded: {})",
                           fileName, fileName));
  }
  return scratch;
}

RecordUpload prepareRecordUpload(const WebDAVFileContents& contents,
                                 const std::optional<std::string>& toFolder, ScratchUse use) {
  static const WebDAVFileMetaData kNoMetaData;
  const WebDAVFileMetaData& source = contents.FileMetaData ? *contents.FileMetaData : kNoMetaData;
  const std::string fileName = uploadFileName(source);
  const PlistValue payload =
      contents.FileContents ? PlistValue(*contents.FileContents) : nilReferenceMarker();

  RecordUpload upload;
  upload.scratch = prepareScratchFile(fileName, payload, use);

  auto meta = std::make_shared<WebDAVFileMetaData>();
  meta->ParentFolder = toFolder;
  meta->FilePath = fileName;
  meta->OpType = source.OpType;
  meta->ContainerUID = source.ContainerUID;
  meta->ParentUID = source.ParentUID;
  meta->UID = source.UID;
  const Date now = Date::fromTimePoint(Env::current().now());
  meta->ModificationDate = now;
  meta->ModificationDateAbsolute = now.unixSeconds();
  upload.newMetaData = std::move(meta);

  upload.remotePath = remotePathFor(toFolder, fileName);
  return upload;
}

std::string remotePathFor(const std::optional<std::string>& folder, const std::string& name) {
  std::string remote = WebDAVConnect::getResolvedDropboxFolderPath(folder);
  if (remote.empty() || remote.back() != '/') remote += '/';
  return remote + name;
}

dbx::DBRequestError incompleteScratchError(const ScratchUpload& scratch) {
  return dbx::DBRequestError::transport(
      dbx::kURLErrorFileDoesNotExist,
      "upload: no complete local file at " + scratch.uploadPath.string());
}

void removeScratchFile(const std::filesystem::path& path) {
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
    log::debug(fmt::format("[DROPBOX] Could not remove uploaded scratch file {}: {}",
                             path.string(), std::strerror(errno)),
                 log::Delivery::kAsync);
  }
}

}  // namespace wdc::dropbox
