// Folder operations of the Dropbox backend (create, delete, existence tests) and the path pieces
// they share with search, the sync lock and the deletes.
#include "dropbox/folders.h"

#include <fmt/format.h>

#include "dbx/clients_manager.h"
#include "dropbox/blocking_call.h"
#include "platform/logger.h"

namespace wdc {
namespace dropbox {

namespace {
// Drops trailing slashes, but a path of nothing but slashes stays "/".
std::string_view trimmedTrailingSlashes(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  return path;
}
}  // namespace

std::string lastPathComponent(std::string_view path) {
  path = trimmedTrailingSlashes(path);
  if (path == "/") return "/";
  const size_t slash = path.rfind('/');
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

std::string deletingLastPathComponent(std::string_view path) {
  path = trimmedTrailingSlashes(path);
  const size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return "";
  if (slash == 0) return path.size() > 1 ? "/" : "";
  return std::string(trimmedTrailingSlashes(path.substr(0, slash)));
}

std::string appendingPathComponent(std::string_view base, std::string_view name) {
  while (!name.empty() && name.front() == '/') name.remove_prefix(1);
  if (name.empty()) return std::string(base);
  std::string joined(base);
  if (joined.empty() || joined.back() != '/') joined.push_back('/');
  joined.append(name);
  return joined;
}

std::string pathExtension(std::string_view path) {
  const std::string last = lastPathComponent(path);
  const size_t dot = last.rfind('.');
  if (dot == std::string::npos || dot == 0) return "";
  return last.substr(dot + 1);
}

std::string deletingPathExtension(std::string_view path) {
  const std::string extension = pathExtension(path);
  if (extension.empty()) return std::string(trimmedTrailingSlashes(path));
  const std::string_view trimmed = trimmedTrailingSlashes(path);
  return std::string(trimmed.substr(0, trimmed.size() - extension.size() - 1));
}

std::string textOrNull(const std::optional<std::string>& text) { return text.value_or("(null)"); }

}  // namespace dropbox

bool WebDAVConnect::createNewDropboxFolder(const std::optional<std::string>& folderPath,
                                           ErrorOut error) {
  log::debug("[DROPBOX] createNewDropboxFolder");
  bool created = false;
  if (auto client = dropbox::authorizedClientFor(*this)) {
    dropbox::awaitAnswer(
        *this, client->filesRoutes().createFolderV2(getResolvedDropboxFolderPath(folderPath)),
        [&created](const dbx::DBFILESCreateFolderResult* result,
                   const dbx::DBFILESCreateFolderError*) {
          created = result != nullptr && result->metadata.pathLower.has_value() &&
                    !result->metadata.pathLower->empty();
        });
  }
  if (checkIfRequestFailed(error)) return false;
  return created;
}

bool WebDAVConnect::deleteDropboxFolder(const std::optional<std::string>& folderPath,
                                        ErrorOut error) {
  log::debug(fmt::format("[DROPBOX] deleteDropboxFolder: {}", dropbox::textOrNull(folderPath)));
  // Deleting the folder's own path takes everything below it along.
  return deleteArbitraryFileFromDropbox(std::string(), folderPath, error);
}

bool WebDAVConnect::doesDropboxFolderExist(const std::optional<std::string>& folderPath,
                                           ErrorOut error) {
  const std::string path = folderPath.value_or("");
  const std::string parent = getResolvedDropboxFolderPath(dropbox::deletingLastPathComponent(path));
  const std::string name = dropbox::lastPathComponent(path);
  log::debug(fmt::format("[DROPBOX] doesDropboxFolderExist: {}", parent));
  bool found = false;
  if (auto client = dropbox::authorizedClientFor(*this)) {
    dropbox::awaitAnswer(
        *this, client->filesRoutes().search(parent, name),
        [&found, &name](const dbx::DBFILESSearchResult* result, const dbx::DBFILESSearchError*) {
          if (result == nullptr) return;
          // Exact, case-sensitive name; a file of that name counts too.
          for (const auto& match : result->matches) {
            if (match.metadata && match.metadata->name == name) found = true;
          }
        });
  }
  if (checkIfRequestFailed(error)) return false;
  return found;
}

bool WebDAVConnect::doesDropboxFileExist(const std::optional<std::string>& filePath,
                                         ErrorOut error) {
  const std::string path = filePath.value_or("");
  return doesDropboxContainFile(dropbox::lastPathComponent(path),
                                dropbox::deletingLastPathComponent(path), std::string(), error);
}

bool WebDAVConnect::doesDropboxContainFile(const std::optional<std::string>& fileName,
                                           const std::optional<std::string>& inFolder,
                                           const std::optional<std::string>& excludingFile,
                                           ErrorOut error) {
  const std::optional<FileList> matches =
      searchForMatchingFiles(fileName, inFolder, excludingFile, error);
  return matches.has_value() && !matches->empty();
}

}  // namespace wdc
