// `wdc put FOLDER FILE.json...`: uploads records (in the JSON form of `wdc get` and `wdc pull`)
// as one retrying batch and prints each item's fate; exits non-zero when any item failed.
#include <CLI/CLI.hpp>

#include <fstream>
#include <future>
#include <iostream>
#include <iterator>

#include "tools/wdc/cli_context.h"
#include "tools/wdc/output.h"
#include "tools/wdc/record_json.h"
#include "tools/wdc/store_commands.h"
#include "webdavconnect/operation_queue.h"

namespace wdc::cli {
namespace {

struct PutOptions {
  std::string folder;
  std::vector<std::string> files;
  int64_t retries = 5;
};

struct BatchOutcome {
  std::vector<std::shared_ptr<WebDAVBatchUploadResult>> results;
  std::optional<Error> error;
};

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw CommandFailure("cannot read " + path);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace

std::optional<Error> uploadBatch(WebDAVConnect& store,
                                 const std::vector<std::shared_ptr<WebDAVFileContents>>& records,
                                 const std::string& folder, int64_t retries,
                                 std::vector<std::shared_ptr<WebDAVBatchUploadResult>>& results) {
  auto promise = std::make_shared<std::promise<BatchOutcome>>();
  auto outcome = promise->get_future();
  auto queue = std::make_shared<SerialQueue>("wdc.put");
  store.uploadFileWithObjects(
      records, retries, folder, queue,
      [promise](const std::vector<std::shared_ptr<WebDAVBatchUploadResult>>& done,
                const std::optional<Error>& error) {
        promise->set_value(BatchOutcome{done, error});
      });
  BatchOutcome finished = outcome.get();
  results = std::move(finished.results);
  return finished.error;
}

void registerPutCommand(CLI::App& app, GlobalOptions& options) {
  auto put = std::make_shared<PutOptions>();
  auto* command = app.add_subcommand(
      "put", "Upload records (JSON files as `wdc get` prints them) into FOLDER in one batch");
  command->add_option("FOLDER", put->folder, "Folder, e.g. tod")->required();
  command->add_option("FILE", put->files, "Record JSON files")->required()->check(CLI::ExistingFile);
  command->add_option("--retries", put->retries, "Passes of the retrying batch")
      ->capture_default_str()
      ->check(CLI::Range(1, 100));
  command->callback([&options, put] {
    std::vector<std::shared_ptr<WebDAVFileContents>> records;
    for (const std::string& file : put->files) {
      records.push_back(recordFromJson(readFile(file), file));
    }
    auto store = openStore(options);
    Progress progress("uploading", records.size(), Progress::wanted(options.json));
    std::vector<std::shared_ptr<WebDAVBatchUploadResult>> results;
    const std::optional<Error> error =
        uploadBatch(*store, records, put->folder, put->retries, results);
    progress.advance(results.size());
    progress.finish();

    // Each item's fate, in the order given: its result when the batch reported one.
    nlohmann::ordered_json items = nlohmann::ordered_json::array();
    size_t failed = 0;
    for (size_t i = 0; i < records.size(); ++i) {
      std::shared_ptr<WebDAVBatchUploadResult> result;
      for (const auto& candidate : results) {
        if (candidate && candidate->fileContents == records[i]) result = candidate;
      }
      const bool ok = result && !result->uploadError;
      if (!ok) ++failed;
      const auto& meta = records[i]->FileMetaData;
      nlohmann::ordered_json item{{"file", put->files[i]}, {"uploaded", ok}};
      if (ok && meta) {
        item["FilePath"] = meta->FilePath.value_or("");
        item["FileRev"] = meta->FileRev.value_or("");
      } else {
        const std::optional<Error>& why = result ? result->uploadError : error;
        item["error"] = why ? why->localizedDescription() : "not uploaded";
      }
      items.push_back(item);
      if (!options.json) {
        if (ok) {
          std::cout << "uploaded " << item["FilePath"].get<std::string>() << " (rev "
                    << item["FileRev"].get<std::string>() << ") from " << put->files[i] << "\n";
        } else {
          std::cout << "FAILED   " << put->files[i] << ": " << item["error"].get<std::string>()
                    << "\n";
        }
      }
    }
    if (options.json) printJson({{"folder", put->folder}, {"items", items}});
    if (failed > 0) {
      throw CommandFailure(std::to_string(failed) + " of " + std::to_string(records.size()) +
                           " records were not uploaded");
    }
  });
}

}  // namespace wdc::cli
