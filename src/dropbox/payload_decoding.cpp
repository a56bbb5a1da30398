// Payload files are a gzip stream of a keyed archive whose "data" key holds the stored object.
// A ".gz" file is first restored on disk; one that does not restore, or any other file, is
// inflated in memory, and bytes that are not compressed at all are read as a bare archive.
#include "dropbox/payload_decoding.h"

#include <fmt/format.h>

#include <cstdio>
#include <filesystem>
#include <system_error>
#include <variant>

#include "archive/bounded_inflate.h"
#include "dropbox/upload_scratch.h"
#include "platform/logger.h"
#include "webdavconnect/gzip_file_tool.h"
#include "webdavconnect/keyed_archive.h"
#include "webdavconnect/payload.h"
#include "webdavconnect/webdav_connect.h"

namespace wdc {
namespace dropbox {
namespace {

constexpr const char* kRecordDomain = "KavoWebDAV";
constexpr int64_t kRecordCode = 1800;
constexpr const char* kRecordFallback = "Unable to read Dropbox payload";
constexpr const char* kArbitraryDomain = "Dropbox Sync";
constexpr int64_t kArbitraryCode = 100;
constexpr const char* kArbitraryFallback = "Unable to read Dropbox attachment";

// What went wrong before an archive could be opened: the text the error carries.
struct Failure {
  std::string description;
};

// Steps shared by both payload kinds: restore or inflate, then open the archive. Either the
// archive's top-level values, or the reader's error (which may be empty), or a Failure for
// bytes that cannot even be handed to the reader.
struct ReaderFailure {
  std::optional<Error> error;
};
using Opened = std::variant<PlistDictionary, ReaderFailure, Failure>;

std::optional<Bytes> readFileBounded(const std::string& path, std::string& problem) {
  std::error_code ec;
  const auto size = std::filesystem::file_size(path, ec);
  // A missing file reads as nothing: the archive reader then refuses it.
  if (ec) return Bytes{};
  if (size > kMaxInflatedPayloadBytes) {
    problem = fmt::format("payload file of {} bytes is larger than the {}-byte limit", size,
                          kMaxInflatedPayloadBytes);
    return std::nullopt;
  }
  Bytes bytes(static_cast<size_t>(size));
  std::FILE* in = std::fopen(path.c_str(), "rb");
  if (in == nullptr) return Bytes{};
  const size_t got = bytes.empty() ? 0 : std::fread(bytes.data(), 1, bytes.size(), in);
  std::fclose(in);
  bytes.resize(got);
  return bytes;
}

Opened openPayloadFile(const std::string& localPath) {
  std::string path = localPath;
  bool inflateInMemory = true;
  std::filesystem::path asPath(path);
  std::string extension = asPath.extension().string();
  for (char& c : extension) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (extension == ".gz") {
    // The gzip tool opens its output by name. Where that name is the restored one, it is created
    // here first, private and exclusively, so the tool writes into our own file and never through
    // a link planted there; when that fails the payload is inflated in memory instead.
    const bool exactSuffix = path.ends_with(".gz");
    const bool outputReady =
        !exactSuffix || writeScratchFile(std::filesystem::path(path).replace_extension(), {}, nullptr);
    if (outputReady && file_uncompress(path.c_str()) == 1) {
      path = asPath.replace_extension().string();
      inflateInMemory = false;
    }
  }
  std::string problem;
  std::optional<Bytes> bytes = readFileBounded(path, problem);
  if (!bytes) return Failure{problem};
  if (inflateInMemory) {
    Bytes inflated;
    switch (inflateBounded(*bytes, kMaxInflatedPayloadBytes, inflated)) {
      case InflateOutcome::kInflated:
        bytes = std::move(inflated);
        break;
      case InflateOutcome::kNotCompressed:
        break;  // an uncompressed archive is accepted as it is
      case InflateOutcome::kTooLarge:
        return Failure{fmt::format("payload inflates past the {}-byte limit",
                                   kMaxInflatedPayloadBytes)};
    }
  }
  std::optional<Error> readerError;
  std::optional<PlistDictionary> top = unarchiveTopLevelObjects(*bytes, &readerError);
  if (!top) return ReaderFailure{std::move(readerError)};
  return std::move(*top);
}

// The "data" value, or nullopt when the archive has none (or a nil reference).
std::optional<PlistValue> takeData(PlistDictionary& top) {
  PlistValue* data = top.find("data");
  if (data == nullptr || isNilReferenceMarker(*data)) return std::nullopt;
  return std::move(*data);
}

}  // namespace

std::shared_ptr<WebDAVFileContents> decodeRecordPayloadFile(
    const std::shared_ptr<WebDAVFileMetaData>& file, const std::string& localPath, ErrorOut error) {
  Opened opened = openPayloadFile(localPath);
  if (auto* failure = std::get_if<ReaderFailure>(&opened)) {
    const std::string text =
        failure->error ? failure->error->localizedDescription() : std::string();
    log::error(fmt::format("[DROPBOX] Error getting file: {}", text));
    setError(error, Error::withDescription(kRecordDomain, kRecordCode,
                                           text.empty() ? kRecordFallback : text));
    return nullptr;
  }
  std::string problem;
  std::shared_ptr<PlistDictionary> payload;
  if (auto* failure = std::get_if<Failure>(&opened)) {
    problem = failure->description;
  } else {
    std::optional<PlistValue> data = takeData(std::get<PlistDictionary>(opened));
    if (data && data->isDictionary()) {
      payload = std::make_shared<PlistDictionary>(std::move(data->asDictionary()));
    } else if (data) {
      // A record's payload is the host's dictionary of fields; anything else cannot be one.
      problem = "Dropbox payload's data is not a dictionary";
    } else {
      log::error("[DROPBOX] CONTENTS ARE NIL");
    }
  }
  if (!problem.empty()) {
    log::error(fmt::format("[DROPBOX] Error getting file: {}", problem));
    setError(error, Error::withDescription(kRecordDomain, kRecordCode, problem));
    return nullptr;
  }
  return std::make_shared<WebDAVFileContents>(file, std::move(payload));
}

std::optional<PlistValue> decodeArbitraryPayloadFile(const std::string& localPath,
                                                     ErrorOut error) {
  Opened opened = openPayloadFile(localPath);
  if (auto* failure = std::get_if<ReaderFailure>(&opened)) {
    const std::string text =
        failure->error ? failure->error->localizedDescription() : std::string();
    setError(error, Error::withDescription(kArbitraryDomain, kArbitraryCode,
                                           text.empty() ? kArbitraryFallback : text));
    return std::nullopt;
  }
  if (auto* failure = std::get_if<Failure>(&opened)) {
    setError(error, Error::withDescription(kArbitraryDomain, kArbitraryCode, failure->description));
    return std::nullopt;
  }
  return takeData(std::get<PlistDictionary>(opened));
}

}  // namespace dropbox

std::shared_ptr<WebDAVFileContents> WebDAVConnect::decodedDropboxContentsForFile(
    const std::shared_ptr<WebDAVFileMetaData>& file, const std::string& atLocalPath,
    ErrorOut error) {
  return dropbox::decodeRecordPayloadFile(file, atLocalPath, error);
}

std::optional<PlistValue> WebDAVConnect::decodedDropboxArbitraryDataAtLocalPath(
    const std::string& localPath, ErrorOut error) {
  return dropbox::decodeArbitraryPayloadFile(localPath, error);
}

}  // namespace wdc
