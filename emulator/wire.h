// The emulator's side of the wire: a transport-neutral request/answer pair, argument decoding with
// Dropbox's defaults and 400 texts, and the JSON shapes of metadata and error envelopes.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "dbx/json_codec.h"
#include "emulator/store.h"

namespace wdc::emu {

using Json = nlohmann::json;

// One request as the routes see it, and the answer they fill in. The HTTP adapter (and the fuzz
// target) build it; nothing here touches a socket.
struct Exchange {
  std::string method = "POST";
  std::string route;  // without the leading "/2/": "files/download", or "oauth2/token"
  std::optional<std::string> contentType;
  std::string authorization;          // the Authorization header, or "Bearer " + ?authorization=
  std::optional<std::string> apiArg;  // Dropbox-API-Arg header, or the ?arg= parameter
  std::string body;
  // Query parameters (the authorize page reads them).
  std::map<std::string, std::string> query;

  int status = 200;
  std::string replyType;
  std::string replyBody;
  std::vector<std::pair<std::string, std::string>> replyHeaders;

  void replyJson(const Json& value, int statusCode = 200);
  void replyText(int statusCode, std::string text);
  // 409 with the route error `error` and its tag-chain summary.
  void replyRouteError(const Json& error);
  // 400 "Error in call to API function "<route>": <message>".
  void replyBadInput(std::string_view message);
  // 401 auth.AuthError.
  void replyAuthError(std::string_view tag);
};

// The client's codec serves both sides of the wire: compact JSON with every character from U+007F
// up written as \uXXXX (so it survives HTTP headers), and non-throwing, depth-limited parsing.
[[nodiscard]] inline std::string headerSafeJson(const Json& value) {
  return dbx::json::headerSafe(value);
}
[[nodiscard]] inline std::optional<Json> parseJson(std::string_view text) {
  return dbx::json::parse(text);
}
// "path/not_found/.." from a Stone union value: the chain of tags, outermost first.
[[nodiscard]] std::string errorSummary(const Json& error);
// "%Y-%m-%dT%H:%M:%SZ" in UTC, and back (nullopt when the text is not in that form).
[[nodiscard]] std::string formatTimestamp(TimePoint time);
[[nodiscard]] std::optional<TimePoint> parseTimestamp(std::string_view text);

// Metadata shapes. `tagged` adds ".tag" (where the declared type is the polymorphic Metadata).
[[nodiscard]] Json entryJson(const StoredEntry& entry, bool tagged);
[[nodiscard]] Json deletedJson(std::string_view pathDisplay);
[[nodiscard]] Json tag(std::string_view name);

// Reads a route's argument object field by field, applying defaults, and remembers the first
// problem as the 400 text Dropbox would give ("path: expected string, got integer").
// Unknown fields are ignored. Use from one thread.
class ArgReader {
 public:
  // `where` prefixes problems: "request body" or "HTTP header \"Dropbox-API-Arg\"".
  ArgReader(const Json& value, std::string where);

  [[nodiscard]] bool ok() const { return problem_.empty(); }
  [[nodiscard]] const std::string& problem() const { return problem_; }

  std::string string(std::string_view field);  // required
  std::optional<std::string> optionalString(std::string_view field);
  bool boolean(std::string_view field, bool fallback);
  uint64_t number(std::string_view field, uint64_t fallback, uint64_t min, uint64_t max);
  std::optional<uint64_t> optionalNumber(std::string_view field, uint64_t min, uint64_t max);
  // A required number (no default).
  uint64_t requiredNumber(std::string_view field, uint64_t min, uint64_t max);
  // A union value: returns its tag (bare string or {".tag": ...}) and, via `value`, the object.
  std::optional<std::string> unionTag(std::string_view field, const Json** value = nullptr);
  // A nested object, or nullptr (and a problem when required).
  const Json* object(std::string_view field, bool required);
  // A list, or nullptr (and a problem when required or too long).
  const Json* list(std::string_view field, bool required, size_t maxItems);
  // Reports a problem found by the caller (first one wins).
  void fail(std::string message);

 private:
  const Json* field(std::string_view name);
  static const char* typeName(const Json& value);

  const Json& value_;
  const std::string where_;
  std::string problem_;
};

}  // namespace wdc::emu
