// Which record folders a listing shows to be worth fetching as one ZIP: the first download from a
// marked folder then warms its snapshot instead of asking for each record on its own.
#include <array>
#include <map>
#include <string>
#include <string_view>

#include "dbx/metadata.h"
#include "util/unicode_case.h"
#include "webdavconnect/webdav_connect.h"
#include "webdavconnect/zip_snapshot.h"

namespace wdc {
namespace {

// The folders that hold record files; attachments and anything else are always fetched singly.
constexpr std::array<std::string_view, 6> kSnapshotFolders = {"tod", "col", "cal",
                                                              "cat", "cag", "loc"};

// The last component of the folder a path lies in ("/a/tod/x.tod" -> "tod"); "" for a file in
// the root or a path without folder. The root's own name is "/", which no record folder has.
std::string_view parentFolderName(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  const size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return {};
  std::string_view parent = path.substr(0, slash);
  if (parent.empty()) return "/";
  const size_t parentSlash = parent.rfind('/');
  return parentSlash == std::string_view::npos ? parent : parent.substr(parentSlash + 1);
}

}  // namespace

void WebDAVConnect::markDropboxZipSnapshotFoldersFromEntries(
    const std::vector<std::shared_ptr<const dbx::DBFILESMetadata>>& entries) {
  // Counted by bare folder name: the same name under different parents adds up, and the cache
  // is keyed by that bare name, which is how downloads name the folder.
  std::map<std::string, uint64_t, std::less<>> counts;
  for (const auto& entry : entries) {
    if (entry == nullptr || !entry->isFile() || !entry->pathLower) continue;
    const std::string name = lowercaseUnicode(parentFolderName(*entry->pathLower));
    for (std::string_view eligible : kSnapshotFolders) {
      if (name == eligible) {
        ++counts[name];
        break;
      }
    }
  }
  WebDAVDropboxZipSnapshot& snapshot = WebDAVDropboxZipSnapshot::sharedSnapshot();
  for (const auto& [folder, count] : counts) snapshot.markFolder(folder, count);
}

}  // namespace wdc
