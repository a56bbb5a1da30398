// wdc: the command-line tool for operating a store, decoding payloads and running the emulator.
// Every failure ends in one line on standard error and a non-zero exit.
#include <CLI/CLI.hpp>

#include <exception>
#include <iostream>

#include "tools/wdc/cli_context.h"
#include "tools/wdc/commands.h"

int main(int argc, char** argv) {
  CLI::App app{"wdc: operate a webdavconnect store"};
  app.require_subcommand(0, 1);
  app.fallthrough(true);  // global options may also follow the command
  app.set_version_flag("--version", std::string("wdc ") + WDC_VERSION);
  app.failure_message([](const CLI::App*, const CLI::Error& e) {
    return "wdc: " + std::string(e.what()) + " (see --help)\n";
  });

  wdc::cli::GlobalOptions options;
  app.add_option("--api", options.apiUrl, "Base URL of the API host")
      ->capture_default_str();
  app.add_option("--content", options.contentUrl, "Base URL of the content host")
      ->capture_default_str();
  app.add_option("--notify", options.notifyUrl,
                 "Base URL of the longpoll host (default: --api when given, else Dropbox's)");
  app.add_option("--token", options.token,
                 "Access token to use (else $WDC_TOKEN, else the token store); never stored");
  app.add_option("--ca-file", options.caFile, "Extra certificate authorities (PEM) to trust");
  app.add_option("--token-store", options.tokenStore,
                 "Token store file (default: <config dir>/webdavconnect/dropbox-tokens.json)");
  app.add_option("--log-level", options.logLevel,
                 "Library log lines on standard error: off, error, warning, info, debug, verbose")
      ->capture_default_str();
  app.add_flag("--json", options.json, "Machine-readable output");

  wdc::cli::registerSelfCheckCommand(app);
  wdc::cli::registerEmulatorCommand(app);
  wdc::cli::registerPayloadCommand(app);
  wdc::cli::registerStoreCommands(app, options);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e);
  } catch (const wdc::cli::CommandFailure& failure) {
    std::cerr << "wdc: " << failure.what() << "\n";
    return failure.exitCode();
  } catch (const std::exception& e) {
    std::cerr << "wdc: " << e.what() << "\n";
    return 1;
  }
  if (app.get_subcommands().empty()) {
    std::cout << app.help();
  }
  return 0;
}
