// The emulator's request pipeline on arbitrary input, without sockets: a route picked by the
// first byte, then a Dropbox-API-Arg header text and a body split at the first newline, through
// authentication, argument decoding and the route itself. The whole input is also parsed as a
// fault rule, and a rule that parses is injected. Every answer must be a well-formed HTTP answer:
// a known status, JSON bodies that parse, and a Dropbox-API-Result header in ASCII.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "emulator/emulator_impl.h"
#include "platform/virtual_env.h"

namespace {

constexpr std::string_view kRoutes[] = {"users/get_current_account",
                                        "files/list_folder",
                                        "files/list_folder/continue",
                                        "files/search",
                                        "files/search_v2",
                                        "files/search/continue_v2",
                                        "files/create_folder_v2",
                                        "files/upload",
                                        "files/upload_session/start",
                                        "files/upload_session/append_v2",
                                        "files/upload_session/finish_batch",
                                        "files/upload_session/finish_batch/check",
                                        "files/upload_session/finish_batch_v2",
                                        "files/download",
                                        "files/download_zip",
                                        "files/delete_v2",
                                        "files/delete_batch",
                                        "files/delete_batch/check",
                                        "auth/token/from_oauth1",
                                        "oauth2/token",
                                        "no/such/route"};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2 || size > 64 * 1024) return 0;
  static wdc::VirtualEnv env;  // latency faults pass in virtual time
  env.setRealGrace(std::chrono::milliseconds(0));
  wdc::emu::EmulatorOptions options;
  options.env = &env;
  options.batchCheckPolls = 0;
  options.zipMaxEntries = 50;
  wdc::emu::Emulator::Impl impl(options);
  impl.store.writeFile("/Notes/a.txt", std::make_shared<const std::string>("abc"), std::nullopt,
                       wdc::emu::WriteMode{wdc::emu::WriteMode::kOverwrite}, env.now());
  impl.store.createFolder("/Empty", false, env.now());

  const std::string_view input(reinterpret_cast<const char*>(data), size);
  if (std::optional<wdc::emu::FaultRule> rule = wdc::emu::parseFaultRule(input)) {
    if (rule->probability < 0.0 || rule->probability > 1.0) __builtin_trap();
    impl.faults.add(*rule);
  }

  wdc::emu::Exchange exchange;
  exchange.route = std::string(kRoutes[data[0] % std::size(kRoutes)]);
  const uint8_t flags = data[1];
  exchange.method = (flags & 1) ? "GET" : "POST";
  if (flags & 2)
    exchange.contentType = (flags & 4) ? "application/json" : "application/octet-stream";
  exchange.authorization = (flags & 8) ? "Basic a2V5OnNlY3JldA==" : "Bearer token";
  const std::string_view rest = input.substr(2);
  const size_t newline = rest.find('\n');
  if (newline != std::string_view::npos) {
    exchange.apiArg = std::string(rest.substr(0, newline));
    exchange.body = std::string(rest.substr(newline + 1));
  } else {
    exchange.body = std::string(rest);
  }

  // Twice, so a second request sees the state (cursors, sessions, jobs) the first one left.
  for (int round = 0; round < 2; ++round) {
    wdc::emu::Exchange attempt = exchange;
    impl.serve(attempt);
    if (attempt.status < 200 || attempt.status > 599) __builtin_trap();
    if (attempt.replyType == "application/json" && !wdc::emu::parseJson(attempt.replyBody)) {
      __builtin_trap();
    }
    for (const auto& [name, value] : attempt.replyHeaders) {
      for (char c : value) {
        if (static_cast<unsigned char>(c) >= 0x7f || c == '\r' || c == '\n') __builtin_trap();
      }
    }
  }
  return 0;
}
