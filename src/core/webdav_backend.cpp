// The WebDAV backend: its operations exist so hosts written against them link and run, but the
// store behind them was never built. Each answers empty and leaves the error alone.
#include "webdavconnect/webdav_connect.h"

namespace wdc {

// Each takes the same arguments as its Dropbox counterpart, so a host written against one backend
// compiles against the others.

std::optional<std::string> WebDAVConnect::getWebDAVAccountUsername(ErrorOut) {
  return std::nullopt;
}

std::shared_ptr<WebDAVFileMetaData> WebDAVConnect::getCurrentWebDAVLockFile(ErrorOut) {
  return nullptr;
}

std::shared_ptr<WebDAVFileMetaData> WebDAVConnect::lockDirectoryWebDAV(const std::string&,
                                                                       ErrorOut) {
  return nullptr;
}

bool WebDAVConnect::unlockDirectoryWebDAV(const std::string&, ErrorOut) { return false; }

std::optional<std::string> WebDAVConnect::getHashFromWebDAV(ErrorOut,
                                                            const std::optional<std::string>&) {
  return std::nullopt;
}

std::optional<FileList> WebDAVConnect::getDeltaFileListFromWebDAV(ErrorOut,
                                                                  const std::optional<std::string>&,
                                                                  const std::optional<std::string>&,
                                                                  const std::optional<std::string>&,
                                                                  bool) {
  return std::nullopt;
}

std::optional<FileList> WebDAVConnect::getFileListFromWebDAV(
    ErrorOut, const std::optional<std::string>&, const std::optional<Date>&,
    const std::optional<std::vector<std::string>>&) {
  return std::nullopt;
}

std::shared_ptr<WebDAVFileContents> WebDAVConnect::getContentsForWebDAVFile(
    const std::shared_ptr<WebDAVFileMetaData>&, const std::optional<std::string>&, ErrorOut) {
  return nullptr;
}

bool WebDAVConnect::doesWebDAVFolderExist(const std::optional<std::string>&, ErrorOut) {
  return false;
}

bool WebDAVConnect::createNewWebDAVFolder(const std::optional<std::string>&, ErrorOut) {
  return false;
}

bool WebDAVConnect::deleteWebDAVFolder(const std::optional<std::string>&, ErrorOut) {
  return false;
}

bool WebDAVConnect::uploadArbitraryFileToWebDAV(const std::optional<std::string>&,
                                                const std::optional<PlistValue>&,
                                                const std::optional<std::string>&, ErrorOut) {
  return false;
}

bool WebDAVConnect::deleteArbitraryFileFromWebDAV(const std::optional<std::string>&,
                                                  const std::optional<std::string>&, ErrorOut) {
  return false;
}

std::optional<PlistValue> WebDAVConnect::downloadArbitraryFileFromWebDAV(
    const std::optional<std::string>&, const std::optional<std::string>&, ErrorOut) {
  return std::nullopt;
}

std::shared_ptr<WebDAVFileMetaData> WebDAVConnect::uploadFileWithObjectToWebDAV(
    const std::shared_ptr<WebDAVFileContents>&, const std::optional<std::string>&,
    const std::optional<std::string>&, ErrorOut) {
  return nullptr;
}

bool WebDAVConnect::deleteFileAtPathFromWebDAV(const std::shared_ptr<WebDAVFileMetaData>&,
                                               const std::optional<std::string>&, ErrorOut) {
  return false;
}

}  // namespace wdc
