// A list_folder / list_folder/continue answer from the server, decoded as the listing decodes a
// page and filtered into records as a fetch filters its cache: never a crash, and the records
// keep the filter's promises. Input layout: byte 0 picks the folder and extension asked for,
// byte 1 the HTTP status; the rest is the answer's body.
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "dbx/client_core.h"
#include "dbx/http_response.h"
#include "dbx/route_errors.h"
#include "dbx/route_types.h"
#include "dropbox/delta_filter.h"
#include "fuzz_support.h"
#include "records/record_name.h"
#include "webdavconnect/webdav_connect.h"
#include "webdavconnect/zip_snapshot.h"

namespace {

using wdc::fuzzing::check;

using namespace wdc;

// Resolved folders as the listing builds them: "" for the root, "/" + the folder otherwise.
constexpr std::string_view kFolders[] = {"/tod", "/cal", "", "/col/sub", "/TOD", "/loc/"};
constexpr std::string_view kExtensions[] = {"tod", "cal", "cag", "", "gz"};
constexpr std::string_view kRecordExtensions[] = {"cal", "col", "cag", "cat", "loc", "tod"};

void filterAndCheck(const dbx::DBFILESListFolderResult& page, uint8_t choice) {
  const std::string_view folder = kFolders[choice % std::size(kFolders)];
  std::optional<std::string> extension;
  if ((choice / std::size(kFolders)) % 2 == 1) {
    extension = std::string(kExtensions[(choice / 16) % std::size(kExtensions)]);
  }

  std::map<std::string, bool, std::less<>> flags;
  std::optional<Error> error;
  std::optional<FileList> records =
      dropbox::filterDeltaEntries(page.entries, folder, extension, &flags, &error);
  check(records.has_value() != error.has_value());
  if (!records) {
    check(error->domain() == kDropboxSyncErrorDomain && error->code() == 100);
    return;
  }
  check(records->size() <= page.entries.size());
  for (const auto& record : *records) {
    check(record && record->FilePath && !record->FilePath->empty());
    const std::string& name = *record->FilePath;
    check(name.find('/') == std::string::npos && name.find(' ') == std::string::npos);
    if (extension) check(pathExtension(name) == *extension);
    check(record->OpType && record->ContainerUID && record->ParentUID && record->UID);
    if (*record->OpType == "d") check(record->DeletedFromDropbox);
    if (record->DeviceUDID) check(record->DeviceUDID->empty());
    // Only file entries carry a date and a revision; the others get neither.
    if (!record->ModificationDate) check(record->ModificationDateAbsolute == 0);
    if (!record->ModificationDate) check(record->FileRev == std::string());
  }
  // A successful fetch flags exactly the record extensions that some entry carries.
  for (std::string_view wanted : kRecordExtensions) {
    bool seen = false;
    for (const auto& entry : page.entries) {
      if (entry->pathLower && pathExtension(*entry->pathLower) == wanted) {
        seen = true;
      }
    }
    const auto flag = flags.find(wanted);
    check(seen == (flag != flags.end() && flag->second));
  }

  // The cache-only form of the same call answers the same records.
  std::optional<Error> cachedError;
  std::optional<FileList> cached =
      dropbox::filterDeltaEntries(page.entries, folder, extension, nullptr, &cachedError);
  check(cached && cached->size() == records->size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2 || size > 256 * 1024) return -1;
  const uint8_t choice = data[0];
  dbx::HttpResponse response;
  response.status = data[1] % 4 == 0 ? 409 : 200;
  response.body.assign(reinterpret_cast<const char*>(data) + 2, size - 2);

  dbx::detail::RawOutcome raw;
  raw.classified = dbx::classifyResponse(response, dbx::RouteStyle::kRpc);
  std::optional<dbx::DBFILESListFolderResult> page;
  std::optional<dbx::DBFILESListFolderContinueError> routeError;
  std::optional<dbx::DBRequestError> requestError;
  dbx::detail::typeOutcome(raw, page, routeError, requestError);
  // Exactly one of the three comes out of every answer.
  check(page.has_value() + routeError.has_value() + requestError.has_value() == 1);
  if (routeError) (void)routeError->description();
  if (requestError) (void)requestError->description();
  if (!page) return 0;

  filterAndCheck(*page, choice);
  WebDAVConnect::markDropboxZipSnapshotFoldersFromEntries(page->entries);
  WebDAVDropboxZipSnapshot::sharedSnapshot().reset();
  return 0;
}
