#include "dropbox/blocking_call.h"

#include "dbx/clients_manager.h"

namespace wdc::dropbox {

std::shared_ptr<dbx::DBUserClient> authorizedClientFor(WebDAVConnect& connection) {
  auto client = dbx::DBClientsManager::authorizedClient();
  if (client) return client;
  dbx::DBRequestError notLinked;
  notLinked.kind = dbx::DBRequestError::Kind::kAuth;
  notLinked.statusCode = 401;
  notLinked.errorContent = "No Dropbox account is linked";
  notLinked.message = "no authorized client";
  connection.setAsyncErrorIfRequired(&notLinked);
  return nullptr;
}

}  // namespace wdc::dropbox
