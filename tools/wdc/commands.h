// Each `wdc` subcommand lives in its own file and registers itself here.
#pragma once

namespace CLI {
class App;
}

namespace wdc::cli {

struct GlobalOptions;

// `wdc selfcheck`: a quick end-to-end check of the codecs on this machine.
void registerSelfCheckCommand(CLI::App& app);

// `wdc emulator`: the loopback Dropbox API v2 emulator, until killed.
void registerEmulatorCommand(CLI::App& app);

// `wdc payload decode FILE` / `wdc payload encode JSON_FILE OUT_FILE`.
void registerPayloadCommand(CLI::App& app);

// The commands that operate a store through WebDAVConnect's public operations: link, unlink,
// account, lock, unlock, delta, get, put, pull, rm, demo. `options` must outlive parsing.
void registerStoreCommands(CLI::App& app, GlobalOptions& options);

}  // namespace wdc::cli
