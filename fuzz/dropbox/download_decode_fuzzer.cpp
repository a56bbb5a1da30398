// A files/download answer from the server: its Dropbox-API-Result header into file metadata, the
// body checked against the stated content hash, and the body decoded as a record payload the way
// a download decodes its ".gz" scratch file (restored on disk, else inflated in memory, else read
// as a bare archive). Never a crash, a leak or a file left outside the scratch directory; the
// one exception is the gzip tool's streams left open by a failed restore, which it keeps
// (cmake/lsan.supp; scripts/fuzz-campaign.sh passes it to LeakSanitizer).
// Input layout: the header value up to the first NUL, then the body. Run with TMPDIR on a memory
// file system: every input writes and deletes real files.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "dbx/client_core.h"
#include "dbx/content_hash.h"
#include "dbx/http_response.h"
#include "dbx/route_errors.h"
#include "dropbox/payload_decoding.h"
#include "fuzz_support.h"
#include "platform/env.h"
#include "webdavconnect/payload.h"

namespace {

using wdc::fuzzing::check;

namespace fs = std::filesystem;
using namespace wdc;

const fs::path& scratch() {
  static const fs::path path = [] {
    fs::path p =
        Env::current().temporaryDirectory() / ("wdc-fuzz-download-" + std::to_string(::getpid()));
    fs::create_directories(p);
    return p;
  }();
  return path;
}

void writeFile(const fs::path& path, std::string_view bytes) {
  std::FILE* out = std::fopen(path.c_str(), "wb");
  check(out != nullptr);
  check(std::fwrite(bytes.data(), 1, bytes.size(), out) == bytes.size());
  check(std::fclose(out) == 0);
}

// A record decode: contents or an error, never both, never neither.
void decodeRecord(const std::string& path) {
  auto file = std::make_shared<WebDAVFileMetaData>();
  file->FilePath = "o_n_k_c_p_p_i_u_d_x.tod";
  std::optional<Error> error;
  auto contents = dropbox::decodeRecordPayloadFile(file, path, &error);
  check((contents != nullptr) != error.has_value());
  if (contents) {
    check(contents->FileMetaData == file);
    if (contents->FileContents) {
      check(encodeStoredPayload(PlistValue(*contents->FileContents)).has_value());
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 256 * 1024) return -1;
  std::string_view input(reinterpret_cast<const char*>(data), size);
  const size_t split = input.find('\0');
  if (split == std::string_view::npos) return -1;
  const std::string_view body = input.substr(split + 1);

  // The client writes a download's body to a scratch file and hands that over with the answer.
  const fs::path bodyFile = scratch() / "answer.part";
  writeFile(bodyFile, body);
  dbx::HttpResponse response;
  response.status = 200;
  response.headers["dropbox-api-result"] = std::string(input.substr(0, split));
  response.bodyFile = bodyFile;

  dbx::detail::RawOutcome raw;
  raw.classified = dbx::classifyResponse(response, dbx::RouteStyle::kDownload);
  raw.bodyFile = bodyFile;
  const bool wasResult = raw.classified.kind == dbx::ClassifiedResponse::Kind::kResult;
  std::optional<std::string> stated;
  if (wasResult && raw.classified.value.is_object()) {
    const auto hash = raw.classified.value.find("content_hash");
    if (hash != raw.classified.value.end() && hash->is_string()) stated = hash->get<std::string>();
  }
  dbx::detail::checkContentHash(raw, "files/download");
  if (stated) {
    // Kept exactly when the body hashes to what the answer states; a damaged body is dropped.
    const bool matches = dbx::contentHashOf(body) == *stated;
    check(matches == (raw.classified.kind == dbx::ClassifiedResponse::Kind::kResult));
    check(matches == fs::exists(bodyFile));
  }

  std::optional<dbx::DBFILESFileMetadata> metadata;
  std::optional<dbx::DBFILESDownloadError> routeError;
  std::optional<dbx::DBRequestError> requestError;
  dbx::detail::typeOutcome(raw, metadata, routeError, requestError);
  check(metadata.has_value() != requestError.has_value());
  if (requestError) (void)requestError->description();

  // Decoded as the download decodes its scratch file whatever the header said, so that payload
  // bytes are explored even when the header does not parse.
  const fs::path gzPath = scratch() / "record.tod.gz";
  writeFile(gzPath, body);
  decodeRecord(gzPath.string());
  const fs::path plainPath = scratch() / "record.tod";
  writeFile(plainPath, body);
  decodeRecord(plainPath.string());
  std::optional<Error> arbitraryError;
  (void)dropbox::decodeArbitraryPayloadFile(plainPath.string(), &arbitraryError);

  for (const auto& entry : fs::directory_iterator(scratch())) fs::remove_all(entry.path());
  return 0;
}
