// What every store command shares: the global options, the one connection they open, and the way
// they report. A command throws CommandFailure for a failure the user must see; main prints its
// one line and exits non-zero.
#pragma once

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "dbx/client_config.h"
#include "webdavconnect/error.h"
#include "webdavconnect/webdav_connect.h"

namespace wdc::cli {

struct GlobalOptions {
  std::string apiUrl = "https://api.dropboxapi.com";
  std::string contentUrl = "https://content.dropboxapi.com";
  // Empty: the API host when --api was changed (the emulator serves every host), else Dropbox's.
  std::string notifyUrl;
  // Empty: the environment's WDC_TOKEN, else the token store.
  std::string token;
  std::string caFile;
  std::string tokenStore;
  std::string logLevel = "off";
  bool json = false;
  // Set by `delta --watch`: a longpoll answer may take the poll's timeout plus server jitter.
  bool longWaits = false;
};

class CommandFailure : public std::runtime_error {
 public:
  explicit CommandFailure(const std::string& message, int exitCode = 1)
      : std::runtime_error(message), exitCode_(exitCode) {}
  [[nodiscard]] int exitCode() const { return exitCode_; }

 private:
  int exitCode_;
};

// "what: the error's description", for a failed operation.
[[nodiscard]] std::string failureText(const std::string& what, const std::optional<Error>& error);

// The Dropbox client configuration the options describe.
[[nodiscard]] dbx::DBClientConfig clientConfig(const GlobalOptions& options);

// Configures the process's Dropbox client from the options (base URLs, CA file, token) and opens
// a Dropbox connection whose answers arrive on a queue of its own. Throws CommandFailure when no
// account is linked or the token store cannot be read.
[[nodiscard]] std::shared_ptr<WebDAVConnect> openStore(const GlobalOptions& options);

// Applies --log-level ("off", "error", "warning", "info", "debug", "verbose"); throws on others.
void applyLogLevel(const std::string& level);

}  // namespace wdc::cli
