#include "emulator/store.h"

#include <openssl/evp.h>
#include <openssl/sha.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <set>

#include "util/unicode_case.h"

namespace wdc::emu {
namespace {

constexpr size_t kHashBlock = 4 * 1024 * 1024;

std::string_view parentOf(std::string_view path) {
  const size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
}

std::string_view nameOf(std::string_view path) {
  const size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

bool isAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

}  // namespace

bool isWithin(std::string_view path, std::string_view folder) {
  if (folder.empty()) return true;
  if (path.size() < folder.size() || path.substr(0, folder.size()) != folder) return false;
  return path.size() == folder.size() || path[folder.size()] == '/';
}

bool isDirectChild(std::string_view path, std::string_view folder) {
  return path.size() > folder.size() && isWithin(path, folder) && parentOf(path) == folder;
}

Store::Store(std::optional<std::filesystem::path> mirror) : mirror_(std::move(mirror)) {
  if (mirror_) {
    std::error_code ec;
    std::filesystem::create_directories(*mirror_, ec);
  }
}

std::string Store::lowerPath(std::string_view path) {
  if (isAscii(path)) {
    std::string lower(path);
    std::transform(lower.begin(), lower.end(), lower.begin(), [](char c) {
      return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
    });
    return lower;
  }
  return lowercaseUnicode(path);
}

bool Store::isWellFormed(std::string_view path) {
  if (path.empty()) return true;
  if (path.front() != '/' || path.back() == '/') return false;
  if (path.find('\0') != std::string_view::npos) return false;
  size_t start = 1;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string_view::npos) end = path.size();
    const std::string_view part = path.substr(start, end - start);
    if (part.empty() || part == "." || part == "..") return false;
    start = end + 1;
  }
  return true;
}

std::string Store::contentHash(std::string_view data) {
  std::string blockDigests;
  blockDigests.reserve((data.size() / kHashBlock + 1) * SHA256_DIGEST_LENGTH);
  for (size_t offset = 0; offset < data.size(); offset += kHashBlock) {
    const size_t length = std::min(kHashBlock, data.size() - offset);
    unsigned char block[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char*>(data.data() + offset), length, block);
    blockDigests.append(reinterpret_cast<const char*>(block), sizeof block);
  }
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const unsigned char*>(blockDigests.data()), blockDigests.size(), digest);
  static constexpr char kHex[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(2 * sizeof digest);
  for (unsigned char byte : digest) {
    hex.push_back(kHex[byte >> 4]);
    hex.push_back(kHex[byte & 15]);
  }
  return hex;
}

const StoredEntry* Store::find(std::string_view path) const {
  const auto it = entries_.find(lowerPath(path));
  return it == entries_.end() ? nullptr : &it->second;
}

const StoredEntry* Store::findById(std::string_view id) const {
  for (const auto& [lower, entry] : entries_) {
    if (entry.id == id) return &entry;
  }
  return nullptr;
}

const StoredEntry* Store::findByRev(std::string_view rev) const {
  const auto it = revisions_.find(rev);
  return it == revisions_.end() ? nullptr : &it->second;
}

void Store::record(const std::string& pathLower) { journal_.emplace_back(++sequence_, pathLower); }

std::string Store::nextRev() {
  // Dropbox revs are lower-case hex of at least 9 digits; a counter keeps them ordered.
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "015%013llx",
                static_cast<unsigned long long>(++revCounter_));
  return buffer;
}

std::string Store::nextId() {
  char buffer[40];
  std::snprintf(buffer, sizeof buffer, "id:emuAAAAAAAA%010llu",
                static_cast<unsigned long long>(++idCounter_));
  return buffer;
}

StoredEntry& Store::insertFolder(const std::string& pathDisplay, TimePoint now) {
  StoredEntry folder;
  folder.pathDisplay = pathDisplay;
  folder.isFolder = true;
  folder.id = nextId();
  folder.serverModified = now;
  const std::string lower = lowerPath(pathDisplay);
  tombstones_.erase(lower);
  auto [it, inserted] = entries_.insert_or_assign(lower, std::move(folder));
  record(lower);
  mirrorWrite(it->second);
  return it->second;
}

WriteFailure Store::ensureParents(std::string_view path, TimePoint now) {
  std::vector<std::string_view> missing;
  for (std::string_view parent = parentOf(path); !parent.empty(); parent = parentOf(parent)) {
    const StoredEntry* existing = find(parent);
    if (existing != nullptr) {
      if (!existing->isFolder) return WriteFailure::kConflictFileAncestor;
      break;
    }
    missing.push_back(parent);
  }
  for (auto it = missing.rbegin(); it != missing.rend(); ++it) insertFolder(std::string(*it), now);
  return WriteFailure::kNone;
}

std::string Store::availableName(std::string_view path) const {
  const std::string_view parent = parentOf(path);
  const std::string_view name = nameOf(path);
  const size_t dot = name.rfind('.');
  const bool hasExtension = dot != std::string_view::npos && dot > 0;
  const std::string_view stem = hasExtension ? name.substr(0, dot) : name;
  const std::string_view extension = hasExtension ? name.substr(dot) : std::string_view();
  for (int n = 1;; ++n) {
    std::string candidate = std::string(parent) + "/" + std::string(stem) + " (" +
                            std::to_string(n) + ")" + std::string(extension);
    if (find(candidate) == nullptr) return candidate;
  }
}

WriteOutcome Store::writeFile(std::string_view path, std::shared_ptr<const std::string> contents,
                              std::optional<TimePoint> clientModified, const WriteMode& mode,
                              TimePoint now) {
  if (path.empty() || !isWellFormed(path)) return {WriteFailure::kMalformedPath, nullptr};
  std::string target(path);
  const std::string hash = contentHash(*contents);
  if (const StoredEntry* existing = find(target)) {
    if (existing->isFolder) {
      if (!mode.autorename) return {WriteFailure::kConflictFolder, nullptr};
      target = availableName(target);
    } else if (existing->contentHash == hash && !mode.strictConflict) {
      // Identical content writes nothing and answers the existing revision.
      return {WriteFailure::kNone, existing};
    } else {
      const bool replaces = mode.kind == WriteMode::kOverwrite ||
                            (mode.kind == WriteMode::kUpdate && existing->rev == mode.updateRev);
      if (!replaces) {
        if (!mode.autorename) return {WriteFailure::kConflictFile, nullptr};
        target = availableName(target);
      }
    }
  } else if (mode.kind == WriteMode::kUpdate && mode.strictConflict) {
    return {WriteFailure::kConflictFile, nullptr};
  }
  if (const WriteFailure failure = ensureParents(target, now); failure != WriteFailure::kNone) {
    return {failure, nullptr};
  }
  const std::string lower = lowerPath(target);
  StoredEntry entry;
  if (const auto it = entries_.find(lower); it != entries_.end()) {
    entry.id = it->second.id;
    // Only the last component's casing is kept from the new write, as Dropbox does.
    entry.pathDisplay =
        std::string(parentOf(it->second.pathDisplay)) + "/" + std::string(nameOf(target));
  } else {
    entry.id = nextId();
    const StoredEntry* parent = find(parentOf(target));
    entry.pathDisplay =
        (parent ? parent->pathDisplay : std::string()) + "/" + std::string(nameOf(target));
  }
  entry.rev = nextRev();
  entry.contents = std::move(contents);
  entry.contentHash = hash;
  entry.serverModified = now;
  entry.clientModified = clientModified.value_or(now);
  tombstones_.erase(lower);
  revisions_.insert_or_assign(entry.rev, entry);
  auto [it, inserted] = entries_.insert_or_assign(lower, std::move(entry));
  record(lower);
  mirrorWrite(it->second);
  return {WriteFailure::kNone, &it->second};
}

WriteOutcome Store::createFolder(std::string_view path, bool autorename, TimePoint now) {
  if (path.empty() || !isWellFormed(path)) return {WriteFailure::kMalformedPath, nullptr};
  std::string target(path);
  if (const StoredEntry* existing = find(target)) {
    if (!autorename) {
      return {existing->isFolder ? WriteFailure::kConflictFolder : WriteFailure::kConflictFile,
              nullptr};
    }
    target = availableName(target);
  }
  if (const WriteFailure failure = ensureParents(target, now); failure != WriteFailure::kNone) {
    return {failure, nullptr};
  }
  const StoredEntry* parent = find(parentOf(target));
  const std::string display =
      (parent ? parent->pathDisplay : std::string()) + "/" + std::string(nameOf(target));
  return {WriteFailure::kNone, &insertFolder(display, now)};
}

std::optional<StoredEntry> Store::remove(std::string_view path) {
  const std::string lower = lowerPath(path);
  const auto it = entries_.find(lower);
  if (it == entries_.end()) return std::nullopt;
  StoredEntry removed = it->second;
  // Children first, so the journal never shows a child outliving its folder.
  std::vector<std::string> doomed;
  for (auto child = entries_.upper_bound(lower); child != entries_.end(); ++child) {
    if (isWithin(child->first, lower)) doomed.push_back(child->first);
  }
  doomed.push_back(lower);
  for (const std::string& key : doomed) {
    const auto entry = entries_.find(key);
    tombstones_[key] = entry->second.pathDisplay;
    entries_.erase(entry);
  }
  record(lower);
  mirrorRemove(removed.pathDisplay);
  return removed;
}

std::vector<const StoredEntry*> Store::list(std::string_view folderLower, bool recursive) const {
  std::vector<const StoredEntry*> result;
  for (auto it = entries_.upper_bound(folderLower); it != entries_.end(); ++it) {
    if (!isWithin(it->first, folderLower)) {
      // Keys sharing the prefix but not within it ("/a b" after "/a") may sit between
      // children; keep scanning while the prefix still matches.
      if (it->first.compare(0, folderLower.size(), folderLower) != 0) break;
      continue;
    }
    if (recursive || isDirectChild(it->first, folderLower)) result.push_back(&it->second);
  }
  return result;
}

std::vector<Change> Store::tombstones(std::string_view folderLower, bool recursive) const {
  std::vector<Change> result;
  for (const auto& [lower, display] : tombstones_) {
    if (lower == folderLower || !isWithin(lower, folderLower)) continue;
    if (recursive || isDirectChild(lower, folderLower)) {
      result.push_back(Change{lower, nullptr, display});
    }
  }
  return result;
}

std::vector<Change> Store::changesSince(uint64_t since, std::string_view folderLower,
                                        bool recursive) const {
  std::set<std::string> changed;
  const auto first =
      std::upper_bound(journal_.begin(), journal_.end(), since,
                       [](uint64_t value, const std::pair<uint64_t, std::string>& item) {
                         return value < item.first;
                       });
  for (auto it = first; it != journal_.end(); ++it) {
    const std::string& lower = it->second;
    if (lower == folderLower || !isWithin(lower, folderLower)) continue;
    if (!recursive && !isDirectChild(lower, folderLower)) continue;
    changed.insert(lower);
  }
  std::vector<Change> deletions;
  std::vector<Change> live;
  for (const std::string& lower : changed) {
    if (const auto it = entries_.find(lower); it != entries_.end()) {
      live.push_back(Change{lower, &it->second, {}});
    } else {
      const auto tomb = tombstones_.find(lower);
      deletions.push_back(Change{lower, nullptr, tomb != tombstones_.end() ? tomb->second : lower});
    }
  }
  deletions.insert(deletions.end(), live.begin(), live.end());
  return deletions;
}

std::vector<const StoredEntry*> Store::all() const { return list("", true); }

void Store::mirrorWrite(const StoredEntry& entry) const {
  if (!mirror_) return;
  const std::filesystem::path target =
      *mirror_ / std::filesystem::path(entry.pathDisplay).relative_path();
  std::error_code ec;
  if (entry.isFolder) {
    std::filesystem::create_directories(target, ec);
    return;
  }
  std::filesystem::create_directories(target.parent_path(), ec);
  std::ofstream out(target, std::ios::binary | std::ios::trunc);
  out.write(entry.contents->data(), static_cast<std::streamsize>(entry.contents->size()));
}

void Store::mirrorRemove(std::string_view pathDisplay) const {
  if (!mirror_) return;
  std::error_code ec;
  std::filesystem::remove_all(*mirror_ / std::filesystem::path(pathDisplay).relative_path(), ec);
}

}  // namespace wdc::emu
