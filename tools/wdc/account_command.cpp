// `wdc account`: the linked account's display name.
#include <CLI/CLI.hpp>

#include <iostream>

#include "tools/wdc/cli_context.h"
#include "tools/wdc/output.h"
#include "tools/wdc/store_commands.h"

namespace wdc::cli {

void registerAccountCommand(CLI::App& app, GlobalOptions& options) {
  auto* command = app.add_subcommand("account", "Print the linked account's display name");
  command->callback([&options] {
    auto store = openStore(options);
    std::optional<Error> error;
    const std::optional<std::string> name = store->getAccountUsername(&error);
    if (!name) throw CommandFailure(failureText("cannot read the account", error));
    if (options.json) {
      printJson({{"displayName", *name}});
    } else {
      std::cout << *name << "\n";
    }
  });
}

}  // namespace wdc::cli
