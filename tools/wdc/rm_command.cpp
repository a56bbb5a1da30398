// `wdc rm FOLDER NAME...`: deletes records of a folder in one batch.
#include <CLI/CLI.hpp>

#include <iostream>

#include "tools/wdc/cli_context.h"
#include "tools/wdc/output.h"
#include "tools/wdc/store_commands.h"

namespace wdc::cli {

void registerRmCommand(CLI::App& app, GlobalOptions& options) {
  struct RmOptions {
    std::string folder;
    std::vector<std::string> names;
  };
  auto rm = std::make_shared<RmOptions>();
  auto* command = app.add_subcommand(
      "rm", "Delete the named records of FOLDER in one batch (names not there are ignored)");
  command->add_option("FOLDER", rm->folder, "Folder, e.g. tod")->required();
  command->add_option("NAME", rm->names, "Record file names")->required();
  command->callback([&options, rm] {
    std::vector<std::string> paths;
    for (const std::string& name : rm->names) {
      if (name.empty() || name.find('/') != std::string::npos) {
        throw CommandFailure("NAME must be a file name without \"/\": " + name, 2);
      }
      paths.push_back(rm->folder + "/" + name);
    }
    if (paths.size() > 1000) throw CommandFailure("at most 1,000 names at a time", 2);
    auto store = openStore(options);
    std::optional<Error> error;
    if (!store->deleteArbitraryFiles(paths, &error)) {
      throw CommandFailure(failureText("the batch delete failed", error));
    }
    if (options.json) {
      printJson({{"deleted", paths}});
    } else {
      std::cout << "deleted " << paths.size() << " name(s) in " << rm->folder << "\n";
    }
  });
}

}  // namespace wdc::cli
