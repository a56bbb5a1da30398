// Registration of the commands that operate a store, one file each.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "webdavconnect/webdav_connect.h"

namespace CLI {
class App;
}

namespace wdc::cli {

struct GlobalOptions;

// Uploads `records` into `folder` through the retrying batch and waits for its completion;
// `results` gets every item that went up (and the failures the last pass reported). Returns the
// batch's error. Shared by `put` and `demo`.
std::optional<Error> uploadBatch(WebDAVConnect& store,
                                 const std::vector<std::shared_ptr<WebDAVFileContents>>& records,
                                 const std::string& folder, int64_t retries,
                                 std::vector<std::shared_ptr<WebDAVBatchUploadResult>>& results);

void registerLinkCommands(CLI::App& app, GlobalOptions& options);    // link, unlink
void registerAccountCommand(CLI::App& app, GlobalOptions& options);  // account
void registerLockCommands(CLI::App& app, GlobalOptions& options);    // lock, unlock
void registerRmCommand(CLI::App& app, GlobalOptions& options);       // rm
void registerPutCommand(CLI::App& app, GlobalOptions& options);      // put
void registerGetCommand(CLI::App& app, GlobalOptions& options);      // get
void registerPullCommand(CLI::App& app, GlobalOptions& options);     // pull
void registerDeltaCommand(CLI::App& app, GlobalOptions& options);    // delta
void registerDemoCommand(CLI::App& app, GlobalOptions& options);     // demo

}  // namespace wdc::cli
