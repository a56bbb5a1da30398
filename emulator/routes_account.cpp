// users/get_current_account, and the token routes: oauth2/token (refresh) and
// auth/token/from_oauth1 (legacy migration).
#include <httplib.h>

#include <cstdio>

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

void handleOAuth2Token(Emulator::Impl& impl, Exchange& exchange, const Json&) {
  std::map<std::string, std::string> form = parseForm(exchange.body);
  auto invalid = [&](std::string_view error, std::string_view description) {
    exchange.replyJson(Json{{"error", error}, {"error_description", description}}, 400);
  };
  if (form["grant_type"] != "refresh_token") {
    return invalid("unsupported_grant_type", "grant_type must be refresh_token");
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
