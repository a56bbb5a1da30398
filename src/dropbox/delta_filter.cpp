// The delta listing's filter: the cached change feed into the records of one folder.
//
// The filter's rules are those hosts have always relied on and are kept as they are: the folder
// is compared with the server's lower-case paths as given (capitals match nothing); only direct
// children count; a name must split into at least 8 "_" fields; a name with a device field gets
// an empty DeviceUDID, not the device; op type "d" reads as deleted.
#include "dropbox/delta_filter.h"

#include <fmt/format.h>

#include <array>

#include "platform/logger.h"
#include "records/record_name.h"
#include "webdavconnect/text_escaping.h"

namespace wdc::dropbox {
namespace {

// The record extensions, in the order their flags are recorded.
constexpr std::array<std::string_view, 6> kRecordExtensions = {"cal", "col", "cag",
                                                               "cat", "loc", "tod"};

constexpr int64_t kMissingDateCode = 100;
constexpr const char* kMissingDateText =
    "File's modification data could not be obtained when listing directory";
constexpr std::string_view kDeletedOpType = "d";

std::string textOr(const std::optional<std::string>& text) { return text.value_or("(null)"); }

std::string_view lastPathComponent(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  if (path == "/") return path;
  const size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

// `folder` joined with `name` as path components.
std::string joinedPath(std::string_view folder, std::string_view name) {
  std::string joined(folder);
  if (name.empty()) return joined;
  if (joined.empty() || joined.back() != '/') joined.push_back('/');
  joined.append(name);
  return joined;
}

// Which record extensions the entries seen so far carry; written to the connection's dictionary
// when the pass ends, however it ends.
class ExtensionFlags {
 public:
  void see(std::string_view extension) {
    if (extension.empty()) return;
    for (size_t i = 0; i < kRecordExtensions.size(); ++i) {
      if (flags_[i] != true) flags_[i] = extension == kRecordExtensions[i];
    }
  }
  void writeTo(std::map<std::string, bool, std::less<>>& dictionary) const {
    for (size_t i = 0; i < kRecordExtensions.size(); ++i) {
      if (flags_[i]) dictionary[std::string(kRecordExtensions[i])] = *flags_[i];
    }
  }

 private:
  std::array<std::optional<bool>, kRecordExtensions.size()> flags_{};
};

}  // namespace

std::optional<FileList> filterDeltaEntries(
    const std::vector<std::shared_ptr<const dbx::DBFILESMetadata>>& entries,
    std::string_view resolvedPath, const std::optional<std::string>& withExtension,
    std::map<std::string, bool, std::less<>>* extensionFlags, ErrorOut error) {
  // Formatting a line per entry costs more than the filtering itself on large feeds.
  const bool tracing = log::level() >= log::Level::kDebug;
  log::debug(fmt::format("[DROPBOX] Delta filtering... {}", entries.size()));
  ExtensionFlags flags;
  FileList records;
  for (const auto& entry : entries) {
    const std::string_view pathLower =
        entry->pathLower ? std::string_view(*entry->pathLower) : std::string_view();
    const std::string_view extension = pathExtension(pathLower);
    if (extensionFlags != nullptr) flags.see(extension);
    if (tracing) {
      log::debug(fmt::format("[DROPBOX] ... path: {}, has deleted? {}", textOr(entry->pathLower),
                             entry->isDeleted() ? 1 : 0));
    }
    if (withExtension && *withExtension != extension) {
      if (tracing) {
        log::debug(fmt::format("[DROPBOX] ...     ignoring {}, extension does not match: {}",
                               textOr(entry->pathLower), extension));
      }
      continue;
    }
    if (resolvedPath.empty() || !entry->pathLower || !pathLower.starts_with(resolvedPath)) {
      if (tracing) {
        log::debug(fmt::format("[DROPBOX] ...    ignoring {}, not under wanted path: {}",
                               textOr(entry->pathLower), resolvedPath));
      }
      continue;
    }
    const std::string_view name = lastPathComponent(pathLower);
    const std::string wantedPath = joinedPath(resolvedPath, name);
    if (!pathLower.starts_with(wantedPath)) {
      if (tracing) {
        log::debug(fmt::format(
            "[DROPBOX] ...    ignoring file as path {}, not constructed as wanted path: {}",
            pathLower, wantedPath));
      }
      continue;
    }
    if (doesContainIgnoreLower(name, " ")) {
      if (tracing) {
        log::debug(fmt::format(
            "[DROPBOX] ...    ignoring file as filepath {} has an invalid character", name));
      }
      continue;
    }
    std::optional<RecordNameFields> fields = parseRecordName(name);
    if (!fields) continue;

    std::optional<Date> date;
    const dbx::DBFILESFileMetadata* file = entry->asFile();
    if (file != nullptr) {
      if (!file->clientModified) {
        if (extensionFlags != nullptr) flags.writeTo(*extensionFlags);
        setError(error, Error::withDescription(std::string(kDropboxSyncErrorDomain),
                                               kMissingDateCode, kMissingDateText));
        return std::nullopt;
      }
      date = Date::fromTimePoint(*file->clientModified);
    }
    auto record = std::make_shared<WebDAVFileMetaData>();
    record->FilePath = std::string(name);
    record->OpType = std::move(fields->opType);
    record->ContainerUID = std::move(fields->containerUID);
    record->ParentUID = std::move(fields->parentUID);
    record->UID = std::move(fields->uid);
    // Kept as hosts know it: a name with a device field yields "", never the device's text.
    if (fields->deviceUDID) record->DeviceUDID = std::string();
    record->ModificationDate = date;
    record->ModificationDateAbsolute = date ? date->unixSeconds() : 0;
    record->FileRev = file != nullptr ? file->rev : std::string();
    record->DeletedFromDropbox = entry->isDeleted() || record->OpType == kDeletedOpType;
    records.push_back(std::move(record));
  }
  if (extensionFlags != nullptr) flags.writeTo(*extensionFlags);
  log::debug(fmt::format("[DROPBOX] Delta finally returning {} for {}", records.size(),
                         textOr(withExtension)));
  return records;
}

}  // namespace wdc::dropbox
