#include "dropbox/download_paths.h"

#include <filesystem>
#include <system_error>

#include "platform/env.h"
#include "webdavconnect/webdav_connect.h"

namespace wdc::dropbox {

std::string remoteFilePath(const std::optional<std::string>& folder, const std::string& name) {
  std::string path = WebDAVConnect::getResolvedDropboxFolderPath(folder);
  if (path.empty() || path.back() != '/') path.push_back('/');
  return path + name;
}

std::string freshScratchPath(const std::string& name) {
  const std::filesystem::path base =
      Env::current().temporaryDirectory() / std::filesystem::path(name).filename();
  std::error_code ignored;
  std::filesystem::remove(base, ignored);
  const std::string scratch = base.string() + ".gz";
  std::filesystem::remove(scratch, ignored);
  return scratch;
}

}  // namespace wdc::dropbox
