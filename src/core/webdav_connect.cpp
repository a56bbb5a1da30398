// Construction and lifetime of WebDAVConnect.
#include "webdavconnect/webdav_connect.h"

#include "dbx/metadata.h"
#include "webdavconnect/zip_snapshot.h"

namespace wdc {

WebDAVConnect::WebDAVConnect(uint64_t type, const std::optional<std::string>& /*login*/,
                             const std::optional<std::string>& /*andPassword*/)
    : connectionType(type) {}

std::shared_ptr<WebDAVConnect> WebDAVConnect::initWithConnectionType(
    uint64_t type, const std::optional<std::string>& login,
    const std::optional<std::string>& andPassword) {
  return std::make_shared<WebDAVConnect>(type, login, andPassword);
}

WebDAVConnect::~WebDAVConnect() {
  // The cached folder metadata goes before the rest of the connection's state.
  metaDropboxFolder.reset();
}

void WebDAVConnect::removeAllResources() {
  WebDAVDropboxZipSnapshot::sharedSnapshot().reset();
  arrDeltaDirectoryChanges.reset();
  arrDropboxDeltaTuples.reset();
  arrDropboxFilePathsForDirectory.reset();
  arrSearchMetaDatas.reset();
}

}  // namespace wdc
