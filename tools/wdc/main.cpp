// wdc: the command-line tool for operating a store, decoding payloads and running the emulator.
#include <CLI/CLI.hpp>

#include <iostream>

#include "platform/logger.h"
#include "tools/wdc/commands.h"

int main(int argc, char** argv) {
  CLI::App app{"wdc: operate a webdavconnect store"};
  app.require_subcommand(0, 1);
  app.set_version_flag("--version", std::string("wdc ") + WDC_VERSION);
  bool verbose = false;
  app.add_flag("-v,--verbose", verbose, "Log debug messages to standard error");
  app.parse_complete_callback([&] {
    wdc::log::setLevel(verbose ? wdc::log::Level::kDebug : wdc::log::Level::kWarning);
  });

  wdc::cli::registerSelfCheckCommand(app);
  wdc::cli::registerEmulatorCommand(app);
  wdc::cli::registerPayloadCommand(app);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e);
  }
  if (app.get_subcommands().empty()) {
    std::cout << app.help();
  }
  return 0;
}
