// How a Dropbox client reaches its server: base URLs, trust, timeouts, limits and the app
// credentials used to refresh short-lived access tokens.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace wdc::dbx {

struct DBClientConfig {
  // Scheme, host and optional port, no trailing slash. Routes go to <base>/2/<namespace>/<route>,
  // the token refresh to <apiBaseUrl>/oauth2/token.
  std::string apiBaseUrl = "https://api.dropboxapi.com";
  std::string contentBaseUrl = "https://content.dropboxapi.com";
  // files/list_folder/longpoll only.
  std::string notifyBaseUrl = "https://notify.dropboxapi.com";
  // Extra certificate authorities (PEM). TLS peer and host verification are always on; this is
  // the only way to trust a server whose certificate the system store does not know (the
  // emulator's self-signed one).
  std::optional<std::filesystem::path> caFile;
  std::chrono::milliseconds connectTimeout{30'000};
  // A request fails as timed out (-1001) when no byte moves for this long.
  std::chrono::milliseconds idleTimeout{60'000};
  // Answers kept in memory (RPC results, error bodies, downloads into memory) are refused past
  // this size (-1103); downloads to a file past `maxDownloadBytes`.
  std::size_t maxResponseBytes = 64u << 20;
  uint64_t maxDownloadBytes = uint64_t{64} << 30;
  // App credentials for refreshing access tokens (client_id, client_secret of oauth2/token).
  std::string appKey;
  std::string appSecret;
  // An access token is refreshed this long before it expires.
  std::chrono::seconds refreshMargin{300};
  // Token store file; empty means <config dir>/webdavconnect/dropbox-tokens.json, where the config
  // dir is $XDG_CONFIG_HOME or $HOME/.config.
  std::filesystem::path tokenStorePath;
  // Batch upload: bytes per upload-session request, and whether commits try the synchronous
  // finish_batch_v2 first (falling back to finish_batch + polling when the server lacks it).
  std::size_t uploadChunkBytes = 8u << 20;
  bool preferFinishBatchV2 = true;
  std::string userAgent = "webdavconnect-dbx/0.1";
};

// The token store path `config` names, with the default filled in.
[[nodiscard]] std::filesystem::path resolvedTokenStorePath(const DBClientConfig& config);

}  // namespace wdc::dbx
