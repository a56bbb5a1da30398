// Registration of the commands that operate a store, one file each.
#pragma once

namespace CLI {
class App;
}

namespace wdc::cli {

struct GlobalOptions;

void registerLinkCommands(CLI::App& app, GlobalOptions& options);    // link, unlink
void registerAccountCommand(CLI::App& app, GlobalOptions& options);  // account
void registerLockCommands(CLI::App& app, GlobalOptions& options);    // lock, unlock
void registerRmCommand(CLI::App& app, GlobalOptions& options);       // rm

}  // namespace wdc::cli
