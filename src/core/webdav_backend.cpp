// The WebDAV backend: its operations exist so hosts written against them link and run, but the
// store behind them was never built. Each answers empty and leaves the error alone.
#include "webdavconnect/webdav_connect.h"

namespace wdc {

std::optional<std::string> WebDAVConnect::getWebDAVAccountUsername() { return std::nullopt; }

std::shared_ptr<WebDAVFileMetaData> WebDAVConnect::getCurrentWebDAVLockFile() { return nullptr; }

std::shared_ptr<WebDAVFileMetaData> WebDAVConnect::lockDirectoryWebDAV(ErrorOut) { return nullptr; }

bool WebDAVConnect::unlockDirectoryWebDAV(ErrorOut) { return false; }

std::optional<std::string> WebDAVConnect::getHashFromWebDAV(const std::optional<std::string>&) {
  return std::nullopt;
}

std::optional<FileList> WebDAVConnect::getDeltaFileListFromWebDAV(
    const std::optional<std::string>&, const std::optional<std::string>&,
    const std::optional<std::string>&, bool) {
  return std::nullopt;
}

std::optional<FileList> WebDAVConnect::getFileListFromWebDAV(
    const std::optional<std::string>&, const std::optional<Date>&,
    const std::optional<std::vector<std::string>>&) {
  return std::nullopt;
}

std::shared_ptr<WebDAVFileContents> WebDAVConnect::getContentsForWebDAVFile(
    const std::optional<std::string>&, ErrorOut) {
  return nullptr;
}

bool WebDAVConnect::doesWebDAVFolderExist(ErrorOut) { return false; }

bool WebDAVConnect::createNewWebDAVFolder(ErrorOut) { return false; }

bool WebDAVConnect::deleteWebDAVFolder(ErrorOut) { return false; }

bool WebDAVConnect::uploadArbitraryFileToWebDAV(const std::optional<PlistValue>&,
                                                const std::optional<std::string>&, ErrorOut) {
  return false;
}

bool WebDAVConnect::deleteArbitraryFileFromWebDAV(const std::optional<std::string>&, ErrorOut) {
  return false;
}

std::optional<PlistValue> WebDAVConnect::downloadArbitraryFileFromWebDAV(
    const std::optional<std::string>&, ErrorOut) {
  return std::nullopt;
}

std::shared_ptr<WebDAVFileMetaData> WebDAVConnect::uploadFileWithObjectToWebDAV(
    const std::optional<std::string>&, const std::optional<std::string>&, ErrorOut) {
  return nullptr;
}

bool WebDAVConnect::deleteFileAtPathFromWebDAV(const std::optional<std::string>&, ErrorOut) {
  return false;
}

}  // namespace wdc
