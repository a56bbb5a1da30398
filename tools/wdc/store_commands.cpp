#include "tools/wdc/store_commands.h"

#include "tools/wdc/commands.h"

namespace wdc::cli {

void registerStoreCommands(CLI::App& app, GlobalOptions& options) {
  registerLinkCommands(app, options);
  registerAccountCommand(app, options);
  registerLockCommands(app, options);
  registerRmCommand(app, options);
  registerPutCommand(app, options);
  registerGetCommand(app, options);
  registerPullCommand(app, options);
  registerDeltaCommand(app, options);
  registerDemoCommand(app, options);
}

}  // namespace wdc::cli
