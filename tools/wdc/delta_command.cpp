// `wdc delta [FOLDER] [--ext EXT] [--cursor CURSOR]`: the records the change feed lists (all six
// record folders when FOLDER is not given), then the new cursor and the reset flag.
// `--watch` then waits for changes with files/list_folder/longpoll and prints them as they come.
#include <CLI/CLI.hpp>

#include <future>
#include <iostream>

#include "dbx/clients_manager.h"
#include "platform/env.h"
#include "tools/wdc/cli_context.h"
#include "tools/wdc/output.h"
#include "tools/wdc/record_json.h"
#include "tools/wdc/store_commands.h"

namespace wdc::cli {
namespace {

constexpr const char* kRecordFolders[] = {"cal", "col", "cag", "cat", "loc", "tod"};
// Seconds a longpoll waits; the server may add jitter, which the idle timeout allows for.
constexpr uint64_t kLongpollSeconds = 30;

struct DeltaOptions {
  std::string folder;
  std::string extension;
  std::string cursor;
  bool watch = false;
  uint64_t maxRounds = 0;
};

// One fetch, then cache-only answers for the other folders. Returns the records per folder.
std::vector<std::pair<std::string, FileList>> listChanges(WebDAVConnect& store,
                                                          const DeltaOptions& delta,
                                                          const std::optional<std::string>& cursor) {
  std::vector<std::string> folders;
  if (delta.folder.empty()) {
    folders.assign(std::begin(kRecordFolders), std::end(kRecordFolders));
  } else {
    folders.push_back(delta.folder);
  }
  std::optional<std::string> extension;
  if (!delta.extension.empty()) extension = delta.extension;
  std::vector<std::pair<std::string, FileList>> listed;
  for (size_t i = 0; i < folders.size(); ++i) {
    std::optional<Error> error;
    auto records = store.getDeltaFileList(&error, folders[i], cursor, extension, i > 0);
    if (!records) throw CommandFailure(failureText("the listing failed", error));
    listed.emplace_back(folders[i], std::move(*records));
  }
  return listed;
}

void print(const GlobalOptions& options, const WebDAVConnect& store,
           const std::vector<std::pair<std::string, FileList>>& listed) {
  if (options.json) {
    nlohmann::ordered_json records = nlohmann::ordered_json::array();
    for (const auto& [folder, list] : listed) {
      for (const auto& record : list) {
        auto meta = metaToJson(*record);
        meta["ParentFolder"] = folder;
        records.push_back(meta);
      }
    }
    printJson({{"records", records},
               {"cursor", store.dropboxDeltaCursor.value_or("")},
               {"shouldResetLocalData", store.shouldResetLocalData}});
    return;
  }
  for (const auto& [folder, list] : listed) {
    for (const auto& record : list) {
      std::cout << (record->DeletedFromDropbox ? "deleted " : "        ") << folder << "/"
                << record->FilePath.value_or("") << "  rev " << record->FileRev.value_or("-")
                << "  " << (record->ModificationDate ? isoDate(*record->ModificationDate) : "-")
                << "\n";
    }
  }
  std::cout << "cursor: " << store.dropboxDeltaCursor.value_or("") << "\n"
            << "reset:  " << (store.shouldResetLocalData ? "yes" : "no") << "\n";
}

// Blocks until the change feed after `cursor` has something, or the longpoll ends without.
// Returns the seconds the server asks to wait before polling again.
uint64_t waitForChange(const std::string& cursor, bool& changed) {
  auto client = dbx::DBClientsManager::authorizedClient();
  if (!client) throw CommandFailure("no account is linked");
  auto promise = std::make_shared<std::promise<std::pair<bool, uint64_t>>>();
  auto answer = promise->get_future();
  auto queue = std::make_shared<SerialQueue>("wdc.longpoll");
  auto task = client->filesRoutes().listFolderLongpoll(cursor, kLongpollSeconds);
  task.setResponseBlock(
      [promise](const dbx::DBFILESListFolderLongpollResult* result,
                const dbx::DBFILESListFolderContinueError* routeError,
                const dbx::DBRequestError* requestError) {
        if (result) {
          promise->set_value({result->changes, result->backoff.value_or(0)});
        } else if (routeError) {
          // A reset cursor: the next listing starts over and says so.
          promise->set_value({true, 0});
        } else {
          promise->set_exception(std::make_exception_ptr(CommandFailure(
              "waiting for changes failed: " +
              (requestError ? requestError->description() : std::string("no answer")))));
        }
      },
      queue);
  const auto [hasChanges, backoff] = answer.get();
  changed = hasChanges;
  return backoff;
}

}  // namespace

void registerDeltaCommand(CLI::App& app, GlobalOptions& options) {
  auto delta = std::make_shared<DeltaOptions>();
  auto* command = app.add_subcommand(
      "delta", "List the records that changed (every record without --cursor), then the cursor");
  command->add_option("FOLDER", delta->folder, "Record folder (default: all six)");
  command->add_option("--ext", delta->extension, "Only records with this extension");
  command->add_option("--cursor", delta->cursor, "Continue from this cursor");
  command->add_flag("--watch", delta->watch, "Then wait for changes and print them as they come");
  command->add_option("--rounds", delta->maxRounds,
                      "With --watch: stop after this many rounds of changes (0: never)");
  command->callback([&options, delta] {
    options.longWaits = delta->watch;
    auto store = openStore(options);
    std::optional<std::string> cursor;
    if (!delta->cursor.empty()) cursor = delta->cursor;
    print(options, *store, listChanges(*store, *delta, cursor));
    uint64_t rounds = 0;
    while (delta->watch && (delta->maxRounds == 0 || rounds < delta->maxRounds)) {
      std::cout << std::flush;
      const std::string position = store->dropboxDeltaCursor.value_or("");
      if (position.empty()) throw CommandFailure("the listing left no cursor to watch");
      bool changed = false;
      const uint64_t backoff = waitForChange(position, changed);
      if (changed) {
        print(options, *store, listChanges(*store, *delta, position));
        ++rounds;
      }
      if (backoff > 0) Env::current().sleepFor(std::chrono::seconds(backoff));
    }
  });
}

}  // namespace wdc::cli
