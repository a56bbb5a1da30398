// How a host's folder path becomes a Dropbox path.
#include <string>

#include "webdavconnect/webdav_connect.h"

namespace wdc {

std::string WebDAVConnect::getResolvedDropboxFolderPath(const std::optional<std::string>& folderPath) {
  // Dropbox names its root by the empty string; every other path is absolute.
  if (!folderPath.has_value() || folderPath->empty()) return "";
  // Joined as path components: repeated slashes collapse and a trailing one goes, but a path of
  // nothing but slashes stays the root folder "/".
  std::string resolved = "/";
  for (char c : *folderPath) {
    if (c == '/' && resolved.back() == '/') continue;
    resolved.push_back(c);
  }
  if (resolved.size() > 1 && resolved.back() == '/') resolved.pop_back();
  return resolved;
}

}  // namespace wdc
