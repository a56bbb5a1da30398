// Registration of the commands that operate a store, one file each.
#pragma once

namespace CLI {
class App;
}

namespace wdc::cli {

struct GlobalOptions;

void registerLinkCommands(CLI::App& app, GlobalOptions& options);    // link, unlink
void registerAccountCommand(CLI::App& app, GlobalOptions& options);  // account

}  // namespace wdc::cli
