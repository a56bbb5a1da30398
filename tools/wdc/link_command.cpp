// `wdc link`: links an account with the OAuth 2 code flow with PKCE and keeps the refresh token
// in the token store (mode 0600). `wdc unlink` forgets it.
#include <CLI/CLI.hpp>

#include <filesystem>
#include <iostream>
#include <string>

#include "dbx/clients_manager.h"
#include "dbx/oauth_code_flow.h"
#include "dbx/token_store.h"
#include "tools/wdc/cli_context.h"
#include "tools/wdc/output.h"
#include "tools/wdc/store_commands.h"

namespace wdc::cli {
namespace {

constexpr const char* kDefaultAuthorizeBase = "https://www.dropbox.com";

struct LinkOptions {
  std::string appKey = WDC_DROPBOX_APP_KEY;
  std::string authorizeBase;
};

std::string trimmed(std::string text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return {};
  const auto last = text.find_last_not_of(" \t\r\n");
  return text.substr(first, last - first + 1);
}

void runLink(const GlobalOptions& options, const LinkOptions& link) {
  applyLogLevel(options.logLevel);
  const dbx::DBClientConfig config = clientConfig(options);
  // Against another API host (the emulator) the authorize page is served there too.
  std::string authorizeBase = link.authorizeBase;
  if (authorizeBase.empty()) {
    authorizeBase =
        options.apiUrl == GlobalOptions{}.apiUrl ? kDefaultAuthorizeBase : options.apiUrl;
  }
  const dbx::DBPkcePair pkce = dbx::makePkcePair();
  const std::string url = dbx::authorizeUrl(authorizeBase, link.appKey, pkce.challenge);
  if (options.json) {
    printJson({{"authorizeUrl", url}});
  } else {
    std::cout << "Open this address, allow access, and paste the code it shows:\n  " << url
              << std::endl;
    std::cerr << "Code: " << std::flush;
  }
  std::string code;
  if (!std::getline(std::cin, code) || trimmed(code).empty()) {
    throw CommandFailure("no code was given: nothing linked");
  }
  std::optional<Error> error;
  auto token = dbx::exchangeAuthorizationCode(config, link.appKey, trimmed(code), pkce.verifier,
                                              &error);
  if (!token) throw CommandFailure(failureText("linking failed", error));
  dbx::DBClientsManager::setupWithConfig(config);
  if (!dbx::DBClientsManager::authorizeWithToken(*token, &error)) {
    throw CommandFailure(failureText("the token could not be stored", error));
  }
  // Refreshes of this token must name the app it was issued to.
  const std::filesystem::path store = dbx::resolvedTokenStorePath(config);
  auto contents = dbx::loadTokenStore(store, &error);
  if (contents) {
    contents->oauth2AppKey = link.appKey;
    if (!dbx::saveTokenStore(store, *contents, &error)) contents.reset();
  }
  if (!contents) throw CommandFailure(failureText("the token could not be stored", error));
  if (options.json) {
    printJson({{"linked", true}, {"accountId", token->uid}, {"tokenStore", store.string()}});
  } else {
    std::cout << "Linked. The refresh token is kept in " << store.string() << "\n";
  }
}

void runUnlink(const GlobalOptions& options) {
  applyLogLevel(options.logLevel);
  const dbx::DBClientConfig config = clientConfig(options);
  std::optional<Error> error;
  if (!dbx::DBClientsManager::setupWithConfig(config, &error)) {
    throw CommandFailure(failureText("cannot read the token store", error));
  }
  dbx::DBClientsManager::unlinkAndResetClients();
  const std::filesystem::path store = dbx::resolvedTokenStorePath(config);
  if (auto contents = dbx::loadTokenStore(store); contents && contents->oauth2AppKey) {
    contents->oauth2AppKey.reset();
    if (!dbx::saveTokenStore(store, *contents, &error)) {
      throw CommandFailure(failureText("the token store could not be updated", error));
    }
  }
  if (options.json) {
    printJson({{"linked", false}});
  } else {
    std::cout << "Unlinked.\n";
  }
}

}  // namespace

void registerLinkCommands(CLI::App& app, GlobalOptions& options) {
  auto link = std::make_shared<LinkOptions>();
  auto* linkCommand = app.add_subcommand(
      "link", "Link an account (OAuth 2 code flow with PKCE); reads the code from standard input");
  linkCommand->add_option("--app-key", link->appKey, "The app's key (client_id)")
      ->capture_default_str();
  linkCommand->add_option("--authorize-url", link->authorizeBase,
                          "Base of the authorize page (default: the Dropbox web site, or --api "
                          "when that is not the default)");
  linkCommand->callback([&options, link] { runLink(options, *link); });

  auto* unlinkCommand =
      app.add_subcommand("unlink", "Forget the linked account (removes its token from the store)");
  unlinkCommand->callback([&options] { runUnlink(options); });
}

}  // namespace wdc::cli
