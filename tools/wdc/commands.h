// Each `wdc` subcommand lives in its own file and registers itself here.
#pragma once

namespace CLI {
class App;
}

namespace wdc::cli {

// `wdc selfcheck`: a quick end-to-end check of the codecs on this machine.
void registerSelfCheckCommand(CLI::App& app);

// `wdc emulator`: the loopback Dropbox API v2 emulator, until killed.
void registerEmulatorCommand(CLI::App& app);

// `wdc payload decode FILE` / `wdc payload encode JSON_FILE OUT_FILE`.
void registerPayloadCommand(CLI::App& app);

}  // namespace wdc::cli
