// Server answers are untrusted: any status, headers and body must classify and decode into a
// value or a request error, never crash or hang. Input layout: byte 0 picks the status, byte 1
// the route style, then a Dropbox-API-Result header value up to the first NUL, then the body.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "dbx/http_response.h"
#include "dbx/json_codec.h"

namespace {

using namespace wdc::dbx;

constexpr long kStatuses[] = {200, 409, 400, 401, 403, 422, 429, 500, 503, 302, 404, 206};

template <typename T>
void decodeAs(const json::Json& value) {
  if (auto decoded = json::decodeAs<T>(value)) {
    if constexpr (requires { decoded->description(); }) (void)decoded->description();
  }
}

void decodeEverything(const json::Json& value) {
  decodeAs<DBUSERSFullAccount>(value);
  decodeAs<DBFILESMetadataRef>(value);
  decodeAs<DBFILESFileMetadata>(value);
  decodeAs<DBFILESListFolderResult>(value);
  decodeAs<DBFILESSearchResult>(value);
  decodeAs<DBFILESCreateFolderResult>(value);
  decodeAs<DBFILESUploadSessionStartResult>(value);
  decodeAs<DBFILESUploadSessionFinishBatchResult>(value);
  decodeAs<DBFILESUploadSessionFinishBatchLaunch>(value);
  decodeAs<DBFILESUploadSessionFinishBatchJobStatus>(value);
  decodeAs<DBFILESDownloadZipResult>(value);
  decodeAs<DBFILESDeleteResult>(value);
  decodeAs<DBFILESDeleteBatchLaunch>(value);
  decodeAs<DBFILESDeleteBatchJobStatus>(value);
  decodeAs<DBFILESListFolderError>(value);
  decodeAs<DBFILESListFolderContinueError>(value);
  decodeAs<DBFILESSearchError>(value);
  decodeAs<DBFILESCreateFolderError>(value);
  decodeAs<DBFILESUploadError>(value);
  decodeAs<DBFILESUploadSessionAppendError>(value);
  decodeAs<DBFILESUploadSessionFinishError>(value);
  decodeAs<DBFILESDownloadError>(value);
  decodeAs<DBFILESDownloadZipError>(value);
  decodeAs<DBFILESDeleteError>(value);
  decodeAs<DBASYNCPollError>(value);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2 || size > (1u << 20)) return 0;
  std::string_view input(reinterpret_cast<const char*>(data), size);
  HttpResponse response;
  response.status = kStatuses[static_cast<uint8_t>(input[0]) % std::size(kStatuses)];
  const RouteStyle style = static_cast<RouteStyle>(static_cast<uint8_t>(input[1]) % 3);
  input.remove_prefix(2);
  const size_t split = input.find('\0');
  if (split != std::string_view::npos) {
    response.headers["dropbox-api-result"] = std::string(input.substr(0, split));
    response.headers["retry-after"] = std::string(input.substr(0, std::min<size_t>(split, 12)));
    input.remove_prefix(split + 1);
  }
  response.body = std::string(input);

  ClassifiedResponse classified = classifyResponse(response, style);
  if (classified.requestError) (void)classified.requestError->description();
  if (classified.kind != ClassifiedResponse::Kind::kRequestError) decodeEverything(classified.value);
  if (auto value = json::parse(response.body)) decodeEverything(*value);
  return 0;
}
