// The sync lock of the Dropbox backend: a file "<owner>_<seconds since 1970>.tsl" in the root of
// the app folder. Its contents, a binary property list {"meta": <UUID, 32 hex digits>}, are never
// read back by this library; only the name carries meaning (who took the lock, and when).
#include <fmt/format.h>

#include <filesystem>
#include <system_error>

#include "dbx/clients_manager.h"
#include "dropbox/blocking_call.h"
#include "dropbox/folders.h"
#include "dropbox/upload_scratch.h"
#include "platform/env.h"
#include "platform/logger.h"
#include "webdavconnect/keyed_archive.h"
#include "webdavconnect/text_escaping.h"

namespace wdc {
namespace {

constexpr std::string_view kLockExtension = "tsl";

std::string lockFileName(std::string_view lockName) {
  return fmt::format("{}.{}", lockName, kLockExtension);
}

// Replaces a stale local copy of the lock file; a copy that cannot be removed is only logged,
// since the write after it does not depend on it.
void writeLocalLockFile(const std::filesystem::path& localPath) {
  std::error_code ec;
  // A link counts as something there too, dangling or not: it is removed, never followed.
  if (std::filesystem::exists(std::filesystem::symlink_status(localPath, ec))) {
    log::debug("[DROPBOX]    removing existing local sync lock file");
    if (!std::filesystem::remove(localPath, ec) && ec) {
      log::error(fmt::format("[DROPBOX]    could NOT remove exiting lock file: {}", ec.message()));
    }
  }
  const Bytes contents =
      writeBinaryPropertyList(PlistValue(PlistDictionary{{"meta", PlistValue(stringWithUUID())}}));
  // Created afresh and private, like every scratch file. The outcome is not checked here: a file
  // that was not written fails the upload instead.
  (void)dropbox::writeScratchFile(localPath, contents, nullptr);
}

}  // namespace

std::shared_ptr<WebDAVFileMetaData> WebDAVConnect::lockDirectoryDropbox(
    const std::string& ownerIdentifier, ErrorOut error) {
  Env& env = Env::current();
  const double now = std::chrono::duration<double>(env.now().time_since_epoch()).count();
  const std::string lockName = fmt::format("{}_{:f}", ownerIdentifier, now);
  const std::string fileName = lockFileName(lockName);
  writeLocalLockFile(env.temporaryDirectory() / fileName);

  log::debug("[DROPBOX]   Now going to upload lock file...");
  dbx::DBFILESUploadArg arg;
  arg.commit.path = dropbox::appendingPathComponent(getResolvedDropboxFolderPath("/"),
                                                    dropbox::lastPathComponent(fileName));
  arg.commit.mode = dbx::DBFILESWriteMode::overwrite();
  arg.commit.autorename = false;
  arg.commit.mute = true;
  arg.commit.strictConflict = false;

  std::shared_ptr<WebDAVFileMetaData> lock;
  if (auto client = dropbox::authorizedClientFor(*this)) {
    // The upload reads the lock file by its bare name, resolved against the current directory,
    // not from where it was just written: hosts have always run with the temporary directory as
    // their current directory, and the pairing is kept as it is.
    dropbox::awaitAnswer(
        *this, client->filesRoutes().uploadUrl(arg, std::filesystem::path(fileName)),
        [&](const dbx::DBFILESFileMetadata* result, const dbx::DBFILESUploadError*) {
          if (result == nullptr) return;
          lock = std::make_shared<WebDAVFileMetaData>();
          lock->FilePath = lockName;
          lock->UID = ownerIdentifier;
        });
  }
  if (checkIfRequestFailed(error)) return nullptr;
  return lock;
}

std::shared_ptr<WebDAVFileMetaData> WebDAVConnect::getCurrentDropboxLockFile(ErrorOut error) {
  const std::string query = fmt::format(".{}", kLockExtension);
  log::debug(fmt::format("[DROPBOX] getCurrentDropboxLockFile: searchFor : {}", query));
  std::optional<dbx::DBFILESSearchResult> found;
  if (auto client = dropbox::authorizedClientFor(*this)) {
    dropbox::awaitAnswer(
        *this, client->filesRoutes().search(getResolvedDropboxFolderPath(""), query),
        [&found](const dbx::DBFILESSearchResult* result, const dbx::DBFILESSearchError*) {
          if (result != nullptr) found = *result;
        });
  }
  if (checkIfRequestFailed(error) || !found || found->matches.empty()) return nullptr;

  // Only the last match counts, in the server's order: a second lock taken at the same time by
  // another device is not reported.
  const dbx::DBFILESMetadataRef& entry = found->matches.back().metadata;
  if (!entry) return nullptr;
  const std::string name = dropbox::deletingPathExtension(entry->name);
  auto lock = std::make_shared<WebDAVFileMetaData>();
  lock->FilePath = name;
  lock->UID = name.substr(0, name.find('_'));
  const dbx::DBFILESFileMetadata* file = entry->asFile();
  if (file != nullptr && file->clientModified) {
    lock->ModificationDate = Date::fromTimePoint(*file->clientModified);
    lock->ModificationDateAbsolute = lock->ModificationDate->unixSeconds();
  }
  return lock;
}

bool WebDAVConnect::unlockDirectoryDropbox(const std::string& lockName, ErrorOut error) {
  log::debug("[DROPBOX] unlockDirectoryDropbox");
  const std::string path = dropbox::appendingPathComponent("/", lockFileName(lockName));
  return deleteArbitraryFileFromDropbox(dropbox::lastPathComponent(path),
                                        dropbox::deletingLastPathComponent(path), error);
}

}  // namespace wdc
