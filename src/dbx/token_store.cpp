// Store layout:
//   {"version": 1,
//    "oauth2": {"uid": "...", "access_token": "...", "refresh_token": "...", "expires_at": <unix s>},
//    "oauth1": [{"uid": "...", "token": "...", "secret": "...", "app_key": "..."}, ...]}
// Written to a sibling temporary file created with mode 0600, then renamed over the store.
#include "dbx/token_store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

#include "dbx/client_config.h"
#include "dbx/json_codec.h"

namespace wdc::dbx {
namespace {

Error storeError(std::string what) {
  return Error::withDescription(std::string(kWebDAVConnectErrorDomain), 400, std::move(what));
}

bool readString(const json::Json& object, const char* key, std::string& out) {
  auto it = object.find(key);
  if (it == object.end() || !it->is_string()) return false;
  out = it->get<std::string>();
  return true;
}

}  // namespace

std::filesystem::path resolvedTokenStorePath(const DBClientConfig& config) {
  if (!config.tokenStorePath.empty()) return config.tokenStorePath;
  std::filesystem::path base;
  if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg != nullptr && *xdg != '\0') {
    base = xdg;
  } else if (const char* home = std::getenv("HOME"); home != nullptr && *home != '\0') {
    base = std::filesystem::path(home) / ".config";
  } else {
    base = ".";
  }
  return base / "webdavconnect" / "dropbox-tokens.json";
}

std::optional<DBTokenStoreContents> loadTokenStore(const std::filesystem::path& path,
                                                   ErrorOut error) {
  std::error_code ec;
  if (!std::filesystem::exists(path, ec)) return DBTokenStoreContents{};
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    setError(error, storeError("token store cannot be read: " + path.string()));
    return std::nullopt;
  }
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  auto value = json::parse(text);
  if (!value || !value->is_object()) {
    setError(error, storeError("token store is not valid JSON: " + path.string()));
    return std::nullopt;
  }
  DBTokenStoreContents contents;
  if (auto it = value->find("oauth2"); it != value->end() && !it->is_null()) {
    DBOAuth2Token token;
    if (!it->is_object() || !readString(*it, "access_token", token.accessToken)) {
      setError(error, storeError("token store holds a malformed OAuth 2 token"));
      return std::nullopt;
    }
    readString(*it, "uid", token.uid);
    std::string refresh;
    if (readString(*it, "refresh_token", refresh)) token.refreshToken = refresh;
    if (auto expires = it->find("expires_at");
        expires != it->end() && expires->is_number_integer()) {
      token.expiresAt = timestampAfter(DBTimestamp{}, std::chrono::seconds(expires->get<int64_t>()));
      // Only a damaged or hand-edited store holds an instant the clock cannot.
      if (!token.expiresAt) {
        setError(error, storeError("token store holds an expiry out of range"));
        return std::nullopt;
      }
    }
    contents.oauth2 = std::move(token);
  }
  if (auto it = value->find("oauth1"); it != value->end() && it->is_array()) {
    for (const auto& item : *it) {
      DBOAuth1Token token;
      if (!item.is_object() || !readString(item, "token", token.accessToken) ||
          !readString(item, "secret", token.accessTokenSecret)) {
        setError(error, storeError("token store holds a malformed OAuth 1 token"));
        return std::nullopt;
      }
      readString(item, "uid", token.uid);
      readString(item, "app_key", token.appKey);
      contents.oauth1.push_back(std::move(token));
    }
  }
  return contents;
}

bool saveTokenStore(const std::filesystem::path& path, const DBTokenStoreContents& contents,
                    ErrorOut error) {
  json::Json value = {{"version", 1}};
  if (contents.oauth2) {
    json::Json token = {{"uid", contents.oauth2->uid},
                        {"access_token", contents.oauth2->accessToken}};
    if (contents.oauth2->refreshToken) token["refresh_token"] = *contents.oauth2->refreshToken;
    if (contents.oauth2->expiresAt) {
      token["expires_at"] = std::chrono::duration_cast<std::chrono::seconds>(
                                contents.oauth2->expiresAt->time_since_epoch())
                                .count();
    }
    value["oauth2"] = token;
  }
  json::Json oauth1 = json::Json::array();
  for (const auto& token : contents.oauth1) {
    oauth1.push_back({{"uid", token.uid},
                      {"token", token.accessToken},
                      {"secret", token.accessTokenSecret},
                      {"app_key", token.appKey}});
  }
  value["oauth1"] = oauth1;
  const std::string text = value.dump(2, ' ', false, json::Json::error_handler_t::replace);

  std::error_code ec;
  if (path.has_parent_path()) {
    std::filesystem::create_directories(path.parent_path(), ec);
    if (ec) {
      setError(error, storeError("token store folder cannot be created: " + ec.message()));
      return false;
    }
  }
  const std::string temporary = path.string() + ".tmp";
  ::unlink(temporary.c_str());
  int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) {
    setError(error, storeError(std::string("token store cannot be written: ") +
                               std::strerror(errno)));
    return false;
  }
  ::fchmod(fd, 0600);  // whatever the umask says
  size_t written = 0;
  while (written < text.size()) {
    ssize_t n = ::write(fd, text.data() + written, text.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    written += static_cast<size_t>(n);
  }
  const bool ok = written == text.size() && ::fsync(fd) == 0;
  ::close(fd);
  if (!ok || ::rename(temporary.c_str(), path.c_str()) != 0) {
    ::unlink(temporary.c_str());
    setError(error, storeError("token store cannot be written: " + path.string()));
    return false;
  }
  return true;
}

}  // namespace wdc::dbx
