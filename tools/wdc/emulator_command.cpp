// `wdc emulator`: runs the loopback Dropbox API v2 emulator until SIGINT or SIGTERM.
#include <signal.h>

#include <CLI/CLI.hpp>
#include <iostream>
#include <string>
#include <vector>

#include "emulator/emulator.h"
#include "tools/wdc/commands.h"

namespace wdc::cli {
namespace {

struct EmulatorCommandOptions {
  emu::EmulatorOptions emulator;
  std::string certOut;
  std::string mirror;
  std::vector<std::string> faults;
  std::vector<std::string> refreshTokens;
  std::vector<std::string> oauth1Tokens;
  uint32_t accessTokenLifetime = 14'400;
  uint64_t searchIndexDelayMs = 0;
};

int runEmulator(EmulatorCommandOptions& options) {
  std::vector<emu::FaultRule> rules;
  for (const std::string& text : options.faults) {
    std::string error;
    std::optional<emu::FaultRule> rule = emu::parseFaultRule(text, &error);
    if (!rule) {
      std::cerr << "wdc emulator: " << error << "\n";
      return 2;
    }
    rules.push_back(std::move(*rule));
  }
  if (!options.mirror.empty()) options.emulator.mirrorDirectory = options.mirror;
  options.emulator.accessTokenLifetime = std::chrono::seconds(options.accessTokenLifetime);
  options.emulator.searchIndexDelay = std::chrono::milliseconds(options.searchIndexDelayMs);

  // Block the stop signals before any server thread exists, so only sigwait below sees them.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  emu::Emulator emulator(options.emulator);
  for (emu::FaultRule& rule : rules) emulator.addFault(std::move(rule));
  for (std::string& token : options.refreshTokens) emulator.addRefreshToken(std::move(token));
  for (const std::string& pair : options.oauth1Tokens) {
    const size_t colon = pair.find(':');
    if (colon == std::string::npos) {
      std::cerr << "wdc emulator: --oauth1 takes TOKEN:SECRET\n";
      return 2;
    }
    emulator.addOAuth1Token(pair.substr(0, colon), pair.substr(colon + 1));
  }
  std::string error;
  if (!emulator.start(&error)) {
    std::cerr << "wdc emulator: " << error << "\n";
    return 1;
  }
  if (!options.certOut.empty() && !emulator.writeCertificate(options.certOut, &error)) {
    std::cerr << "wdc emulator: " << error << "\n";
    return 1;
  }
  std::cout << "listening on " << emulator.baseUrl() << std::endl;
  int received = 0;
  sigwait(&stopSignals, &received);
  emulator.stop();
  return 0;
}

}  // namespace

void registerEmulatorCommand(CLI::App& app) {
  auto options = std::make_shared<EmulatorCommandOptions>();
  CLI::App* command =
      app.add_subcommand("emulator", "Serve the Dropbox API v2 emulator on 127.0.0.1 until killed");
  command->add_flag("--tls", options->emulator.tls, "Serve HTTPS with a self-signed certificate");
  command->add_option("--cert-out", options->certOut,
                      "Write the certificate (PEM) here for clients to trust");
  command->add_option("--token", options->emulator.token,
                      "Accept only this bearer token (default: any non-empty one)");
  command->add_option("--port", options->emulator.port, "Port; 0 picks a free one")->default_val(0);
  command
      ->add_option("--fault", options->faults,
                   "ROUTE:KIND[:ARG][@P][#N]; KIND 429|429w|500|503|drop|truncate|corrupt|reset|"
                   "latency|toomanyfiles")
      ->take_all();
  command->add_option("--fault-seed", options->emulator.faultSeed, "Seed of the fault draws");
  command->add_option("--latency-ms", options->emulator.latencyMs, "Added to every request");
  command->add_option("--mirror", options->mirror, "Also write the store below this directory");
  command->add_option("--zip-max-entries", options->emulator.zipMaxEntries,
                      "download_zip entry limit (too_many_files)");
  command->add_option("--zip-max-bytes", options->emulator.zipMaxBytes,
                      "download_zip size limit (too_large)");
  command->add_option("--batch-check-polls", options->emulator.batchCheckPolls,
                      "in_progress answers before a batch job completes");
  command->add_flag("--delete-batch-at-once", options->emulator.deleteBatchCompletesAtOnce,
                    "delete_batch answers complete at once, without a job to poll");
  command->add_option("--search-index-delay-ms", options->searchIndexDelayMs,
                      "A new file is found by search only after this long");
  command->add_option("--app-key", options->emulator.appKey, "App key for the token routes");
  command->add_option("--app-secret", options->emulator.appSecret,
                      "App secret for the token routes");
  command->add_option("--refresh-token", options->refreshTokens,
                      "Refresh token oauth2/token accepts (repeatable; default: any)");
  command->add_option("--oauth1", options->oauth1Tokens,
                      "TOKEN:SECRET pair auth/token/from_oauth1 converts (repeatable)");
  command->add_option("--access-token-lifetime", options->accessTokenLifetime,
                      "Seconds an issued access token lives");
  command->callback([options] { std::exit(runEmulator(*options)); });
}

}  // namespace wdc::cli
