// The local-folder backend's folder operations, and the operations it does not support.
#include "local/local_paths.h"
#include "webdavconnect/webdav_connect.h"

namespace wdc {
namespace fs = std::filesystem;

bool WebDAVConnect::doesLocalFolderExist(const std::optional<std::string>& folder,
                                         ErrorOut /*error*/) {
  std::error_code ec;
  return fs::exists(localFolderPath(folder), ec);
}

bool WebDAVConnect::createNewLocalFolder(const std::optional<std::string>& folder, ErrorOut error) {
  const std::string path = localFolderPath(folder);
  std::error_code ec;
  if (fs::exists(path, ec)) return true;
  fs::create_directories(path, ec);
  if (ec) {
    setError(error, fileSystemError(ec, path));
    return false;
  }
  return true;
}

bool WebDAVConnect::deleteLocalFolder(const std::optional<std::string>& folder, ErrorOut error) {
  std::error_code ec;
  if (!fs::exists(localFolderPath(folder), ec)) return true;
  // The existence test looks under the root, but the removal takes the folder as given:
  // hosts that pass a root-relative name remove nothing under the root.
  const std::string target = folder.value_or("");
  if (target.empty() || !fs::exists(fs::symlink_status(target, ec))) {
    setError(error,
             fileSystemError(std::make_error_code(std::errc::no_such_file_or_directory), target));
    return false;
  }
  fs::remove_all(target, ec);
  if (ec) {
    setError(error, fileSystemError(ec, target));
    return false;
  }
  return true;
}

// ---- Not supported by the local folder: empty results, nothing written --------------------

// Each takes the same arguments as its Dropbox counterpart, so a host switches backends without
// rewriting its calls.

std::optional<std::string> WebDAVConnect::getLocalAccountUsername(ErrorOut) { return std::nullopt; }

std::shared_ptr<WebDAVFileMetaData> WebDAVConnect::getCurrentLocalLockFile(ErrorOut) {
  return nullptr;
}

std::shared_ptr<WebDAVFileMetaData> WebDAVConnect::lockDirectoryLocal(const std::string&,
                                                                      ErrorOut) {
  return nullptr;
}

bool WebDAVConnect::unlockDirectoryLocal(const std::string&, ErrorOut) { return false; }

std::optional<std::string> WebDAVConnect::getHashFromLocal(ErrorOut,
                                                           const std::optional<std::string>&) {
  return std::nullopt;
}

std::optional<FileList> WebDAVConnect::getDeltaFileListFromLocal(ErrorOut,
                                                                 const std::optional<std::string>&,
                                                                 const std::optional<std::string>&,
                                                                 const std::optional<std::string>&,
                                                                 bool) {
  return std::nullopt;
}

bool WebDAVConnect::uploadArbitraryFileToLocal(const std::optional<std::string>&,
                                               const std::optional<PlistValue>&,
                                               const std::optional<std::string>&, ErrorOut) {
  return false;
}

std::optional<PlistValue> WebDAVConnect::downloadArbitraryFileFromLocal(
    const std::optional<std::string>&, const std::optional<std::string>&, ErrorOut) {
  return std::nullopt;
}

bool WebDAVConnect::deleteArbitraryFileFromLocal(const std::optional<std::string>&,
                                                 const std::optional<std::string>&, ErrorOut) {
  return false;
}

}  // namespace wdc
