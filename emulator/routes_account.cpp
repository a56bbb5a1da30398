// users/get_current_account, and the token routes: oauth2/authorize (the code flow's page, which
// approves at once), oauth2/token (code exchange with PKCE, and refresh) and
// auth/token/from_oauth1 (legacy migration).
#include <httplib.h>

#include <cstdio>

#include "dbx/oauth_code_flow.h"
#include "emulator/emulator_impl.h"
#include "platform/env.h"

namespace wdc::emu {
namespace {

// The form fields of an application/x-www-form-urlencoded body ('+' and %XX decoded).
std::map<std::string, std::string> parseForm(const std::string& body) {
  httplib::Params params;
  httplib::detail::parse_query_text(body, params);
  return std::map<std::string, std::string>(params.begin(), params.end());
}

}  // namespace

void handleGetCurrentAccount(Emulator::Impl&, Exchange& exchange, const Json&) {
  // The account id must be exactly 40 characters; the SDKs check it.
  exchange.replyJson(Json{
      {"account_id", "dbid:AAEmulatorAccount000000000000000001"},
      {"name",
       {{"given_name", "Emu"},
        {"surname", "Lator"},
        {"familiar_name", "Emu"},
        {"display_name", "Emu Lator"},
        {"abbreviated_name", "EL"}}},
      {"email", "emulator@example.com"},
      {"email_verified", true},
      {"disabled", false},
      {"country", "US"},
      {"locale", "en"},
      {"referral_link", "https://www.dropbox.com/referrals/AAEmulator"},
      {"is_paired", false},
      {"account_type", tag("basic")},
      {"root_info",
       {{".tag", "user"}, {"root_namespace_id", "1234567"}, {"home_namespace_id", "1234567"}}}});
}

void handleOAuth2Authorize(Emulator::Impl& impl, Exchange& exchange, const Json&) {
  auto param = [&](const char* name) {
    auto it = exchange.query.find(name);
    return it == exchange.query.end() ? std::string() : it->second;
  };
  const std::string clientId = param("client_id");
  if (param("response_type") != "code") {
    return exchange.replyText(400, "response_type must be code");
  }
  if (clientId.empty() || (!impl.options.appKey.empty() && clientId != impl.options.appKey)) {
    return exchange.replyText(400, "Invalid client_id: \"" + clientId + "\"");
  }
  if (param("code_challenge_method") != "S256" || param("code_challenge").size() != 43) {
    return exchange.replyText(400, "code_challenge must be a S256 challenge (43 characters)");
  }
  std::lock_guard lock(impl.mutex);
  // The user approves at once; the code is the whole page, where Dropbox shows it to copy.
  const std::string code = "emu-code-" + std::to_string(++impl.tokenCounter);
  impl.authorizationCodes[code] = {clientId, param("code_challenge")};
  exchange.replyText(200, code);
}

namespace {

// The authorization-code grant: one use per code, bound to its client and PKCE challenge.
void exchangeAuthorizationCode(Emulator::Impl& impl, Exchange& exchange,
                               std::map<std::string, std::string>& form) {
  auto invalid = [&](std::string_view error, std::string_view description) {
    exchange.replyJson(Json{{"error", error}, {"error_description", description}}, 400);
  };
  std::lock_guard lock(impl.mutex);
  const auto it = impl.authorizationCodes.find(form["code"]);
  if (it == impl.authorizationCodes.end()) {
    return invalid("invalid_grant", "code doesn't exist or has expired");
  }
  const auto [clientId, challenge] = it->second;
  impl.authorizationCodes.erase(it);
  if (form["client_id"] != clientId) return invalid("invalid_grant", "client_id mismatch");
  if (dbx::pkceChallengeFor(form["code_verifier"]) != challenge) {
    return invalid("invalid_grant", "invalid code verifier");
  }
  const uint64_t serial = ++impl.tokenCounter;
  char token[64];
  std::snprintf(token, sizeof token, "sl.emulator-%08llu", static_cast<unsigned long long>(serial));
  impl.issuedTokens[token] = impl.env().uptime() + impl.accessTokenLifetime;
  const std::string refresh = "emu-refresh-" + std::to_string(serial);
  // With a fixed list of refresh tokens the new one must join it to be usable.
  if (!impl.refreshTokens.empty()) impl.refreshTokens.insert(refresh);
  exchange.replyJson(Json{{"access_token", token},
                          {"token_type", "bearer"},
                          {"expires_in", impl.accessTokenLifetime.count()},
                          {"refresh_token", refresh},
                          {"scope", ""},
                          {"uid", "1234567"},
                          {"account_id", "dbid:AAEmulatorAccount000000000000000001"}});
}

}  // namespace

void handleOAuth2Token(Emulator::Impl& impl, Exchange& exchange, const Json&) {
  std::map<std::string, std::string> form = parseForm(exchange.body);
  auto invalid = [&](std::string_view error, std::string_view description) {
    exchange.replyJson(Json{{"error", error}, {"error_description", description}}, 400);
  };
  if (form["grant_type"] == "authorization_code") return exchangeAuthorizationCode(impl, exchange, form);
  if (form["grant_type"] != "refresh_token") {
    return invalid("unsupported_grant_type",
                   "grant_type must be refresh_token or authorization_code");
  }
  const std::string& refreshToken = form["refresh_token"];
  std::lock_guard lock(impl.mutex);
  if (refreshToken.empty() ||
      (!impl.refreshTokens.empty() && !impl.refreshTokens.contains(refreshToken))) {
    return invalid("invalid_grant", "refresh token is invalid or revoked");
  }
  // Credentials come in the form (client_id, client_secret) or as Basic auth.
  const bool basicAuth = exchange.authorization.rfind("Basic ", 0) == 0;
  if (!basicAuth && ((!impl.options.appKey.empty() && form["client_id"] != impl.options.appKey) ||
                     (!impl.options.appSecret.empty() && form.contains("client_secret") &&
                      form["client_secret"] != impl.options.appSecret))) {
    return invalid("invalid_client", "invalid client_id or client_secret");
  }
  char token[64];
  std::snprintf(token, sizeof token, "sl.emulator-%08llu",
                static_cast<unsigned long long>(++impl.tokenCounter));
  impl.issuedTokens[token] = impl.env().uptime() + impl.accessTokenLifetime;
  exchange.replyJson(Json{{"access_token", token},
                          {"token_type", "bearer"},
                          {"expires_in", impl.accessTokenLifetime.count()}});
}

void handleTokenFromOAuth1(Emulator::Impl& impl, Exchange& exchange, const Json& arg) {
  ArgReader args(arg, "request body");
  const std::string token = args.string("oauth1_token");
  const std::string secret = args.string("oauth1_token_secret");
  if (args.ok() && (token.empty() || secret.empty())) args.fail("oauth1_token: too short");
  if (!args.ok()) return exchange.replyBadInput(args.problem());
  std::lock_guard lock(impl.mutex);
  const auto it = impl.oauth1Tokens.find(token);
  if (it == impl.oauth1Tokens.end() || it->second != secret) {
    return exchange.replyRouteError(tag("invalid_oauth1_token_info"));
  }
  const std::string converted = "emulator-oauth2-from-" + token;
  impl.migratedTokens.insert(converted);
  exchange.replyJson(Json{{"oauth2_token", converted}});
}

}  // namespace wdc::emu
