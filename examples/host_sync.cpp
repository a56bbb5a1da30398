// A host's sync against a Dropbox API v2 server through the public headers only:
//   host_sync API_URL CA_FILE ACCESS_TOKEN
// API_URL serves the API and content routes (as `wdc emulator` does), CA_FILE is the certificate
// to trust, ACCESS_TOKEN what the host's OAuth flow obtained (kept in a scratch token store).
#include <unistd.h>
#include <webdavconnect/dropbox_client_config.h>
#include <webdavconnect/operation_queue.h>
#include <webdavconnect/webdav_connect.h>

#include <filesystem>
#include <future>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace {

// Who holds the lock while this program syncs (a host uses its device identifier).
constexpr const char* kOwner = "host-sync-example";
// The folder (and extension) of the to-do records this example writes.
constexpr const char* kFolder = "tod";

// Says which step failed and why; the sync stops there.
int failed(const char* step, const std::optional<wdc::Error>& error) {
  std::cerr << "host_sync: " << step << " failed: " << (error ? error->description() : "") << "\n";
  return 1;
}

// This device's new records: to-dos (extension "tod") in the "tod" folder, named by their
// identifiers. The last one is a draft the sync deletes again.
std::vector<std::shared_ptr<wdc::WebDAVFileContents>> newRecords() {
  std::vector<std::shared_ptr<wdc::WebDAVFileContents>> records;
  for (const char* title : {"Buy milk", "Call the bank", "Draft"}) {
    auto meta = std::make_shared<wdc::WebDAVFileMetaData>();
    meta->OpType = "1";
    meta->ContainerUID = meta->ParentUID = "inbox";
    meta->UID = "host-sync-" + std::to_string(getpid()) + "-" + std::to_string(records.size());
    meta->Extension = kFolder;
    auto payload = std::make_shared<wdc::PlistDictionary>();
    payload->set("title", wdc::PlistValue(std::string(title)));
    records.push_back(std::make_shared<wdc::WebDAVFileContents>(meta, payload));
  }
  return records;
}

// What runs while this device holds the lock.
int syncWhileLocked(const std::shared_ptr<wdc::WebDAVConnect>& connection) {
  std::optional<wdc::Error> error;

  // Take what other devices wrote: the folder's change feed from the cursor the last sync left
  // (none here, so every record), then each record's payload.
  std::optional<wdc::FileList> changes = connection->getDeltaFileList(
      &error, kFolder, connection->dropboxDeltaCursor, kFolder, /*canUseCachedResult=*/false);
  if (!changes) return failed("delta listing", error);
  for (const std::shared_ptr<wdc::WebDAVFileMetaData>& file : *changes) {
    if (file->DeletedFromDropbox) continue;  // a host drops its own copy
    auto contents = connection->getContentsForFile(file, kFolder, &error);
    if (!contents || !contents->FileContents) return failed("download", error);
    const wdc::PlistValue* title = contents->FileContents->find("title");
    std::cout << "downloaded: " << (title && title->isString() ? title->asString() : "?") << "\n";
  }
  std::cout << "listed: " << changes->size() << " records\n";

  // Send this device's changes as one batch. It retries what failed by itself and reports once,
  // on the queue given; this thread waits for that.
  const auto records = newRecords();
  std::promise<std::optional<wdc::Error>> uploaded;
  connection->uploadFileWithObjects(
      records, 3, kFolder, connection->queueToUse,
      [&uploaded](const auto& /*each item and its error*/, const std::optional<wdc::Error>& e) {
        uploaded.set_value(e);
      });
  if (auto batchError = uploaded.get_future().get()) return failed("batch upload", batchError);
  std::cout << "uploaded: " << records.size() << " records\n";

  // The upload replaced each record's metadata with the stored one, which names its file.
  const std::string draft = records.back()->FileMetaData->FilePath.value_or("");
  if (!connection->deleteArbitraryFile(draft, kFolder, &error)) return failed("delete", error);
  std::cout << "deleted: " << draft << "\n";
  return 0;
}

// The sync itself: every call blocks this thread, and answers arrive on `queueToUse`.
int sync(const std::shared_ptr<wdc::WebDAVConnect>& connection) {
  std::optional<wdc::Error> error;

  std::optional<std::string> account = connection->getAccountUsername(&error);
  if (!account) return failed("account name", error);
  std::cout << "account: " << *account << "\n";

  // Another device's lock means it is syncing now: a host tries again later.
  std::shared_ptr<wdc::WebDAVFileMetaData> current = connection->getCurrentLockFile(&error);
  if (error) return failed("current lock", error);
  if (current) {
    std::cout << "locked by " << current->UID.value_or("?") << " ("
              << current->FilePath.value_or("?") << "); try again later\n";
    return 1;
  }
  std::shared_ptr<wdc::WebDAVFileMetaData> lock = connection->lockDirectory(kOwner, &error);
  if (!lock) return failed("lock", error);
  std::cout << "locked: " << lock->FilePath.value_or("") << "\n";

  const int status = syncWhileLocked(connection);
  // The lock goes whatever happened in between, or other devices wait for it in vain.
  if (!connection->unlockDirectory(lock->FilePath.value_or(""), &error)) {
    return failed("unlock", error);
  }
  std::cout << "unlocked\n";
  if (status == 0) std::cout << "sync done\n";
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::cerr << "usage: host_sync API_URL CA_FILE ACCESS_TOKEN\n";
    return 2;
  }
  const std::filesystem::path tokens =
      std::filesystem::temp_directory_path() / ("host_sync-" + std::to_string(getpid()) + ".json");
  // The library writes the lock file into the temporary directory and uploads it by its bare
  // name, so a host runs with that directory as its current one.
  std::filesystem::current_path(std::filesystem::temp_directory_path());

  // Once per process, before the first Dropbox operation: where the server is, what to trust,
  // where the account's tokens live; then link the account the host's OAuth flow gave it.
  wdc::DropboxClientConfig config;
  config.apiBaseUrl = argv[1];
  config.contentBaseUrl = argv[1];
  config.caFile = argv[2];
  config.tokenStorePath = tokens;
  std::optional<wdc::Error> error;
  int status = 0;
  if (!wdc::setUpDropboxClient(config, &error)) {
    status = failed("client set-up", error);
  } else if (wdc::DropboxAccountToken token{argv[3], {}, {}};
             !wdc::linkDropboxAccount(token, &error)) {
    status = failed("account link", error);
  } else {
    // One connection per sync: type 3 selects Dropbox; its answers arrive on its own queue.
    auto connection = wdc::WebDAVConnect::initWithConnectionType(wdc::kConnectionTypeDropbox,
                                                                 std::nullopt, std::nullopt);
    connection->queueToUse = std::make_shared<wdc::SerialQueue>("host_sync.dropbox.answers");
    status = sync(connection);
    connection->removeAllResources();
    wdc::unlinkDropboxAccount();
  }
  std::filesystem::remove(tokens);
  return status;
}
