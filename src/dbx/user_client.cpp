#include "dbx/user_client.h"

#include "dbx/client_core.h"

namespace wdc::dbx {

std::shared_ptr<DBUserClient> DBUserClient::create(DBClientConfig config, DBOAuth2Token token,
                                                   std::optional<std::filesystem::path> tokenStore) {
  auto core = std::make_shared<detail::ClientCore>(std::move(config), std::move(token),
                                                   std::move(tokenStore));
  return std::shared_ptr<DBUserClient>(new DBUserClient(std::move(core)));
}

DBUserClient::DBUserClient(std::shared_ptr<detail::ClientCore> core)
    : core_(std::move(core)), usersRoutes_(core_), filesRoutes_(core_) {}

DBUserClient::~DBUserClient() { close(); }

bool DBUserClient::isAuthorized() const { return core_->isAuthorized(); }
std::string DBUserClient::uid() const { return core_->token().uid; }
DBOAuth2Token DBUserClient::currentToken() const { return core_->token(); }
void DBUserClient::close() { core_->close(); }

}  // namespace wdc::dbx
