// An authorized Dropbox client: one account's access token, its route objects, and one curl multi
// handle driven by one I/O thread that carries every request of this client (keep-alive
// connections, HTTP/2 where the server offers it, TLS always verified, redirects never followed).
// Access tokens are refreshed before they expire and once when the server calls one expired.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "dbx/client_config.h"
#include "dbx/routes.h"
#include "dbx/token_store.h"

namespace wdc::dbx {

// Thread-safe. Created by DBClientsManager (or directly, by tests and tools); shared by reference
// count, so a backend may hold it across a request while the host unlinks the account.
class DBUserClient {
 public:
  // Starts the I/O thread. When `tokenStore` is given, refreshed tokens are written there
  // (keeping any OAuth 1 tokens in it); otherwise they live in memory only.
  static std::shared_ptr<DBUserClient> create(
      DBClientConfig config, DBOAuth2Token token,
      std::optional<std::filesystem::path> tokenStore = std::nullopt);
  ~DBUserClient();  // closes
  DBUserClient(const DBUserClient&) = delete;
  DBUserClient& operator=(const DBUserClient&) = delete;

  [[nodiscard]] DBUSERSUserAuthRoutes& usersRoutes() { return usersRoutes_; }
  [[nodiscard]] DBFILESUserAuthRoutes& filesRoutes() { return filesRoutes_; }

  // True while the client holds an access token and has not been closed.
  [[nodiscard]] bool isAuthorized() const;
  // The account id the token belongs to ("" when unknown).
  [[nodiscard]] std::string uid() const;
  // The token as it stands now (after any refresh). Never logged.
  [[nodiscard]] DBOAuth2Token currentToken() const;

  // Cancels every request in flight (each handler gets kURLErrorCancelled), closes the client's
  // connections and stops its I/O thread before returning. Later calls fail at once. Idempotent.
  // REQUIRES: not called from the client's own I/O thread.
  void close();

 private:
  explicit DBUserClient(std::shared_ptr<detail::ClientCore> core);

  std::shared_ptr<detail::ClientCore> core_;
  DBUSERSUserAuthRoutes usersRoutes_;
  DBFILESUserAuthRoutes filesRoutes_;
};

}  // namespace wdc::dbx
