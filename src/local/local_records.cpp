// The local-folder backend's record operations: listing, reading, writing and deleting record
// files under the root folder. Record files hold the stored payload format (gzip of a keyed
// archive with the payload under "data") and are named o_OP_k_CONTAINER_p_PARENT_i_UID_d_DEVICE.EXT.
//
// Three behaviours look like slips and are kept because hosts and stored data depend on them:
// the listing reads each entry's attributes by its bare name (resolved against the process's
// current directory, not the listed folder), an upload always writes into the root folder
// whatever folder it is given, and deleteLocalFolder (local_folders.cpp) removes the path as given.
#include <algorithm>
#include <cmath>
#include <chrono>
#include <fstream>
#include <iterator>

#include "local/local_paths.h"
#include "platform/env.h"
#include "platform/logger.h"
#include "records/record_name.h"
#include "webdavconnect/payload.h"
#include "webdavconnect/webdav_connect.h"

namespace wdc {
namespace fs = std::filesystem;

namespace {

// How the platform's string formatting prints an absent object.
constexpr const char* kAbsentText = "(null)";

std::optional<Date> modificationDate(const std::string& path, std::error_code& ec) {
  const auto written = fs::last_write_time(path, ec);
  if (ec) return std::nullopt;
  const auto system = std::chrono::file_clock::to_sys(written);
  return Date::fromUnixSeconds(std::chrono::duration<double>(system.time_since_epoch()).count());
}

std::string recordPath(const std::shared_ptr<WebDAVFileMetaData>& file,
                       const std::optional<std::string>& folder) {
  const std::string base = localFolderPath(folder);
  return file && file->FilePath ? appendingPathComponent(base, *file->FilePath) : base;
}

std::optional<Bytes> readWholeFile(const std::string& path) {
  std::error_code ec;
  if (!fs::is_regular_file(path, ec)) return std::nullopt;
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace

std::optional<FileList> WebDAVConnect::getFileListFromLocal(
    ErrorOut error, const std::optional<std::string>& fromPath,
    const std::optional<Date>& modifiedAfter,
    const std::optional<std::vector<std::string>>& withExtension) {
  const std::string folder = localFolderPath(fromPath);
  std::vector<std::string> names;
  std::error_code ec;
  for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
    names.push_back(it->path().filename().string());
  }
  if (ec) {
    const Error failure = fileSystemError(ec, folder);
    setError(error, failure);
    log::error(failure.localizedDescription());
    return std::nullopt;
  }

  // Attributes are looked up by the bare entry name; the out-parameter keeps the outcome of the
  // last lookup, success included.
  std::vector<std::pair<std::string, std::optional<Date>>> entries;
  entries.reserve(names.size());
  for (auto& name : names) {
    std::error_code lookup;
    std::optional<Date> date = modificationDate(name, lookup);
    if (error != nullptr) {
      *error = lookup ? std::optional<Error>(fileSystemError(lookup, name)) : std::nullopt;
    }
    entries.emplace_back(std::move(name), date);
  }

  const double limit = modifiedAfter ? modifiedAfter->unixSeconds() : 0;
  FileList records;
  for (const auto& [name, date] : entries) {
    if (withExtension) {
      const std::string extension(pathExtension(name));
      if (std::find(withExtension->begin(), withExtension->end(), extension) ==
          withExtension->end()) {
        continue;
      }
    }
    auto fields = parseRecordName(name);
    if (!fields) continue;
    if (modifiedAfter && date && limit > date->unixSeconds()) continue;
    auto record = std::make_shared<WebDAVFileMetaData>();
    record->ParentFolder = fromPath;
    record->FilePath = name;
    record->OpType = fields->opType;
    record->ContainerUID = fields->containerUID;
    record->ParentUID = fields->parentUID;
    record->UID = fields->uid;
    record->DeviceUDID = fields->deviceUDID;
    record->ModificationDate = date;
    record->ModificationDateAbsolute = date ? date->unixSeconds() : 0;
    records.push_back(std::move(record));
  }
  // Oldest first. An entry whose date could not be read sorts before every dated one.
  std::stable_sort(records.begin(), records.end(), [](const auto& a, const auto& b) {
    return a->ModificationDate.value_or(Date{-HUGE_VAL}) < b->ModificationDate.value_or(Date{-HUGE_VAL});
  });
  return records;
}

std::shared_ptr<WebDAVFileContents> WebDAVConnect::getContentsForLocalFile(
    const std::shared_ptr<WebDAVFileMetaData>& file, const std::optional<std::string>& inFolder,
    ErrorOut /*error*/) {
  auto contents = std::make_shared<WebDAVFileContents>();
  contents->FileMetaData = file;
  // A missing or unreadable file still yields contents, with no payload.
  if (auto bytes = readWholeFile(recordPath(file, inFolder))) {
    auto data = decodeStoredPayload(*bytes, nullptr);
    if (data && data->isDictionary()) {
      contents->FileContents = std::make_shared<PlistDictionary>(std::move(data->asDictionary()));
    }
  }
  return contents;
}

std::shared_ptr<WebDAVFileMetaData> WebDAVConnect::uploadFileWithObjectToLocal(
    const std::shared_ptr<WebDAVFileContents>& contents,
    const std::optional<std::string>& toFolder, const std::optional<std::string>& forDevice,
    ErrorOut /*error*/) {
  if (!contents) return nullptr;
  const WebDAVFileMetaData source =
      contents->FileMetaData ? *contents->FileMetaData : WebDAVFileMetaData{};
  // The op type and extension are formatted as text, so an absent one reads "(null)"; absent
  // identifiers are appended as nothing.
  const std::string baseName = "o_" + source.OpType.value_or(kAbsentText) + "_k_" +
                               source.ContainerUID.value_or("") + "_p_" +
                               source.ParentUID.value_or("") + "_i_" + source.UID.value_or("") +
                               "_d_" + forDevice.value_or("");
  const std::string fileName = baseName + "." + source.Extension.value_or(kAbsentText);

  const PlistValue payload = contents->FileContents ? PlistValue(*contents->FileContents)
                                                    : nilReferenceMarker();
  // Always the root folder: the folder argument is only recorded in the returned metadata.
  const std::string target = appendingPathComponent(localRootFolder().string(), fileName);
  if (auto stored = encodeStoredPayload(payload)) {
    std::ofstream out(target, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(stored->data()),
              static_cast<std::streamsize>(stored->size()));
    // The outcome of the write is not reported: uploads to the local folder never fail.
  }

  auto record = std::make_shared<WebDAVFileMetaData>();
  record->ParentFolder = toFolder;
  record->FilePath = fileName;
  record->OpType = source.OpType;
  record->ContainerUID = source.ContainerUID;
  record->ParentUID = source.ParentUID;
  record->UID = source.UID;
  record->DeviceUDID = forDevice;
  const Date now = Date::fromTimePoint(Env::current().now());
  record->ModificationDate = now;
  record->ModificationDateAbsolute = now.unixSeconds();
  contents->FileMetaData = record;
  return record;
}

bool WebDAVConnect::deleteFileAtPathFromLocal(const std::shared_ptr<WebDAVFileMetaData>& file,
                                              const std::optional<std::string>& inFolder,
                                              ErrorOut error) {
  const std::string path = recordPath(file, inFolder);
  std::error_code ec;
  if (!fs::exists(path, ec)) return true;
  fs::remove_all(path, ec);
  if (ec) {
    const Error failure = fileSystemError(ec, path);
    log::error(failure.localizedDescription());
    setError(error, failure);
    return false;
  }
  return true;
}

}  // namespace wdc
