// `wdc get FOLDER NAME`: one record as JSON ({"meta": ..., "data": ...}).
#include <CLI/CLI.hpp>

#include "records/record_name.h"
#include "tools/wdc/cli_context.h"
#include "tools/wdc/output.h"
#include "tools/wdc/record_json.h"
#include "tools/wdc/store_commands.h"

namespace wdc::cli {

void registerGetCommand(CLI::App& app, GlobalOptions& options) {
  struct GetOptions {
    std::string folder;
    std::string name;
  };
  auto get = std::make_shared<GetOptions>();
  auto* command = app.add_subcommand("get", "Print the record NAME of FOLDER as JSON");
  command->add_option("FOLDER", get->folder, "Folder, e.g. tod")->required();
  command->add_option("NAME", get->name, "Record file name")->required();
  command->callback([&options, get] {
    if (get->name.empty() || get->name.find('/') != std::string::npos) {
      throw CommandFailure("NAME must be a file name without \"/\"", 2);
    }
    auto record = std::make_shared<WebDAVFileMetaData>();
    record->FilePath = get->name;
    record->ParentFolder = get->folder;
    // The identifiers come from the name, so "meta" shows them as a listing would.
    if (auto fields = parseRecordName(get->name)) applyRecordName(*fields, *record);
    auto store = openStore(options);
    std::optional<Error> error;
    auto contents = store->getContentsForFile(record, get->folder, &error);
    if (!contents || !contents->FileContents) {
      throw CommandFailure(error ? failureText("cannot read " + get->folder + "/" + get->name, error)
                                 : get->folder + "/" + get->name + " is not a readable record");
    }
    if (!contents->FileMetaData) contents->FileMetaData = record;
    printJson(recordToJson(*contents));
  });
}

}  // namespace wdc::cli
