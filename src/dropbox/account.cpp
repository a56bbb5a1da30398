// The account-level Dropbox operations: the linked account's display name, and moving OAuth 1
// tokens of an older host version to OAuth 2.
#include <fmt/format.h>

#include <array>
#include <memory>
#include <string>
#include <vector>

#include "dbx/clients_manager.h"
#include "dropbox/blocking_call.h"
#include "platform/logger.h"
#include "platform/semaphore.h"

namespace wdc {
namespace {
constexpr const char* kAppKey = WDC_DROPBOX_APP_KEY;
constexpr const char* kAppSecret = WDC_DROPBOX_APP_SECRET;
}  // namespace

std::optional<std::string> WebDAVConnect::getDropboxAccountUsername(ErrorOut error) {
  log::debug("[DROPBOX] getDropboxAccountUsername");
  std::optional<std::string> displayName;
  if (auto client = dropbox::authorizedClientFor(*this)) {
    dropbox::awaitAnswer(*this, client->usersRoutes().getCurrentAccount(),
                         [&displayName](const dbx::DBUSERSFullAccount* account, const dbx::DBVoid*) {
                           if (account != nullptr) displayName = account->name.displayName;
                         });
  }
  if (checkIfRequestFailed(error)) return std::nullopt;
  return displayName;
}

bool WebDAVConnect::migrateDropboxV1TokensToV2WithQueue() {
  log::debug("[DROPBOX] migrateDropboxV1TokensToV2WithQueue:...");
  auto migrated = std::make_shared<CountingSemaphore>(0);
  const bool started = dbx::DBClientsManager::checkAndPerformV1TokenMigration(
      [migrated](bool /*shouldRetry*/, bool invalidAppKeyOrSecret,
                 const std::vector<std::array<std::string, 4>>& unsuccessfullyMigratedTokens) {
        if (invalidAppKeyOrSecret) log::error("[DROPBOX] ** INCORRECT APP KEY / SECRET **");
        if (!unsuccessfullyMigratedTokens.empty()) {
          log::warning("[DROPBOX] The following tokens were unsucessfully migrated:");
          // The token texts are written at debug level only, for the host's diagnosis.
          for (const auto& token : unsuccessfullyMigratedTokens) {
            log::debug(fmt::format(
                "[DROPBOX] DropboxUserID: {}, AccessToken: {}, AccessTokenSecret: {}, "
                "StoredAppKey: {}",
                token[0], token[1], token[2], token[3]));
          }
        }
        migrated->signal();
      },
      queueToUse, kAppKey, kAppSecret);
  if (started) migrated->wait();
  return started;
}

}  // namespace wdc
