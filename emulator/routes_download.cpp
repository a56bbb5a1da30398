// files/download (one file, metadata in Dropbox-API-Result) and files/download_zip (a folder as
// a ZIP rooted at the folder's own name).
#include "emulator/route_helpers.h"
#include "emulator/zip_writer.h"

namespace wdc::emu {
namespace {

constexpr uint64_t kMaxZipFileBytes = 4ULL * 1000 * 1000 * 1000;

}  // namespace

void handleDownload(Emulator::Impl& impl, Exchange& exchange, const Json& arg) {
  ArgReader args(arg, "HTTP header \"Dropbox-API-Arg\"");
  std::string path = readPath(args, "path", PathRules{.id = true, .rev = true});
  if (const std::optional<std::string> rev = args.optionalString("rev")) path = "rev:" + *rev;
  if (!args.ok()) return exchange.replyBadInput(args.problem());
  std::shared_ptr<const std::string> contents;
  {
    std::lock_guard lock(impl.mutex);
    if (path.rfind("/", 0) == 0 && !Store::isWellFormed(path)) {
      return exchange.replyRouteError(nestedTag("path", "malformed_path"));
    }
    const StoredEntry* entry = resolve(impl, path);
    if (entry == nullptr) return exchange.replyRouteError(nestedTag("path", "not_found"));
    if (entry->isFolder) return exchange.replyRouteError(nestedTag("path", "not_file"));
    exchange.replyHeaders.emplace_back("Dropbox-API-Result",
                                       headerSafeJson(entryJson(*entry, false)));
    exchange.replyHeaders.emplace_back("ETag", "W/\"" + entry->rev + "\"");
    contents = entry->contents;
  }
  exchange.status = 200;
  exchange.replyType = "application/octet-stream";
  exchange.replyBody.assign(*contents);
}

void handleDownloadZip(Emulator::Impl& impl, Exchange& exchange, const Json& arg) {
  ArgReader args(arg, "HTTP header \"Dropbox-API-Arg\"");
  const std::string path = readPath(args, "path", PathRules{.id = true, .rev = true});
  if (!args.ok()) return exchange.replyBadInput(args.problem());
  std::vector<ZipItem> items;
  std::vector<std::shared_ptr<const std::string>> keepAlive;
  {
    std::lock_guard lock(impl.mutex);
    if (path.rfind("/", 0) == 0 && !Store::isWellFormed(path)) {
      return exchange.replyRouteError(nestedTag("path", "malformed_path"));
    }
    const StoredEntry* folder = resolve(impl, path);
    if (folder == nullptr) return exchange.replyRouteError(nestedTag("path", "not_found"));
    if (!folder->isFolder) return exchange.replyRouteError(nestedTag("path", "not_folder"));
    const std::string folderLower = Store::lowerPath(folder->pathDisplay);
    const std::vector<const StoredEntry*> descendants = impl.store.list(folderLower, true);
    // The archive's own top folder counts as an entry.
    if (descendants.size() + 1 > impl.zipMaxEntries) {
      return exchange.replyRouteError(tag("too_many_files"));
    }
    uint64_t totalBytes = 0;
    for (const StoredEntry* entry : descendants) {
      if (entry->size() >= kMaxZipFileBytes) return exchange.replyRouteError(tag("too_large"));
      totalBytes += entry->size();
    }
    if (totalBytes > impl.zipMaxBytes) return exchange.replyRouteError(tag("too_large"));

    const std::string topName = folder->pathDisplay.substr(folder->pathDisplay.rfind('/') + 1);
    items.push_back(ZipItem{topName + "/", {}, folder->serverModified});
    const size_t prefix = folder->pathDisplay.size() + 1;
    for (const StoredEntry* entry : descendants) {
      // Display casing below the top folder, each folder as its own entry.
      std::string relative = topName + "/" + entry->pathDisplay.substr(prefix);
      if (entry->isFolder) {
        items.push_back(ZipItem{relative + "/", {}, entry->serverModified});
      } else {
        keepAlive.push_back(entry->contents);
        items.push_back(ZipItem{std::move(relative), *entry->contents, entry->serverModified});
      }
    }
    exchange.replyHeaders.emplace_back(
        "Dropbox-API-Result", headerSafeJson(Json{{"metadata", entryJson(*folder, false)}}));
  }
  std::string error;
  std::optional<std::string> zip = buildZip(items, &error);
  if (!zip) {
    exchange.replyHeaders.clear();
    return exchange.replyText(500, error);
  }
  exchange.status = 200;
  exchange.replyType = "application/zip";
  exchange.replyBody = std::move(*zip);
}

}  // namespace wdc::emu
