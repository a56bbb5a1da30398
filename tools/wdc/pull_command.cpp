// `wdc pull FOLDER --out DIR [--ext EXT]`: a delta listing, then every live record of the folder
// (through the folder snapshot when the folder qualifies) written as DIR/FILEPATH.json.
#include <CLI/CLI.hpp>

#include <filesystem>
#include <fstream>
#include <iostream>

#include "tools/wdc/cli_context.h"
#include "tools/wdc/fetch_records.h"
#include "tools/wdc/output.h"
#include "tools/wdc/record_json.h"
#include "tools/wdc/store_commands.h"

namespace wdc::cli {

void registerPullCommand(CLI::App& app, GlobalOptions& options) {
  struct PullOptions {
    std::string folder;
    std::string out;
    std::string extension;
    int64_t retries = 5;
  };
  auto pull = std::make_shared<PullOptions>();
  auto* command = app.add_subcommand(
      "pull", "Download every record of FOLDER into DIR as FILEPATH.json (DIR is created)");
  command->add_option("FOLDER", pull->folder, "Folder, e.g. tod")->required();
  command->add_option("--out", pull->out, "Directory to write into")->required();
  command->add_option("--ext", pull->extension, "Only records with this extension");
  command->add_option("--retries", pull->retries, "Attempts per record")
      ->capture_default_str()
      ->check(CLI::Range(1, 100));
  command->callback([&options, pull] {
    const std::filesystem::path out = std::filesystem::absolute(pull->out);
    std::error_code ec;
    std::filesystem::create_directories(out, ec);
    if (ec) throw CommandFailure("cannot create " + out.string() + ": " + ec.message());
    auto store = openStore(options);
    std::optional<Error> error;
    std::optional<std::string> extension;
    if (!pull->extension.empty()) extension = pull->extension;
    auto listing = store->getDeltaFileList(&error, pull->folder, std::nullopt, extension, false);
    if (!listing) throw CommandFailure(failureText("the listing failed", error));
    FileList live;
    for (const auto& record : *listing) {
      if (!record->DeletedFromDropbox) live.push_back(record);
    }
    Progress progress("pulling " + pull->folder, live.size(), Progress::wanted(options.json));
    size_t failed = 0;
    std::string firstFailure;
    fetchRecords(*store, live, pull->folder, pull->retries, [&](const FetchedRecord& fetched) {
      progress.advance();
      const std::string name = fetched.meta->FilePath.value_or("");
      if (name.empty() || name.find('/') != std::string::npos) {
        if (failed++ == 0) firstFailure = "the store listed an unusable name: " + name;
        return;
      }
      if (!fetched.contents || !fetched.contents->FileContents) {
        if (failed++ == 0) firstFailure = failureText(name, fetched.error);
        return;
      }
      // The listing's metadata (rev, dates, identifiers) is what the file should show.
      WebDAVFileContents shown(fetched.meta, fetched.contents->FileContents);
      std::ofstream file(out / (name + ".json"), std::ios::trunc);
      file << recordToJson(shown).dump(2) << "\n";
      if (!file.flush()) {
        if (failed++ == 0) firstFailure = "cannot write " + (out / (name + ".json")).string();
      }
    });
    progress.finish();
    if (options.json) {
      printJson({{"folder", pull->folder},
                 {"written", live.size() - failed},
                 {"failed", failed},
                 {"cursor", store->dropboxDeltaCursor.value_or("")}});
    } else {
      std::cout << "pulled " << live.size() - failed << " record(s) of " << pull->folder
                << " into " << out.string() << "\n";
    }
    if (failed > 0) {
      throw CommandFailure(std::to_string(failed) + " record(s) could not be pulled; first: " +
                           firstFailure);
    }
  });
}

}  // namespace wdc::cli
