// The emulator's file tree: entries keyed by lower-cased path, revisions, content hashes and a
// change journal that list_folder cursors read.
//
// Invariants: every entry's parent folder exists (the root "" is implicit); a file never has
// children; each change appends (sequence, lower-cased path) to the journal, so "what changed
// under P since sequence S" is a scan of the journal tail. Removed paths keep a tombstone (their
// last display path) so deletions can be reported.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace wdc::emu {

using TimePoint = std::chrono::system_clock::time_point;

struct StoredEntry {
  std::string pathDisplay;
  bool isFolder = false;
  std::string id;
  std::string rev;
  std::shared_ptr<const std::string> contents;  // files only; shared with downloads in flight
  std::string contentHash;
  TimePoint clientModified;
  TimePoint serverModified;

  [[nodiscard]] uint64_t size() const { return contents ? contents->size() : 0; }
};

// Why a write could not happen, as WriteError / WriteConflictError name it.
enum class WriteFailure {
  kNone,
  kMalformedPath,
  kConflictFile,
  kConflictFolder,
  kConflictFileAncestor,
  kDisallowedName,
};

// How a file write treats what is already there (WriteMode).
struct WriteMode {
  enum Kind { kAdd, kOverwrite, kUpdate } kind = kAdd;
  std::string updateRev{};  // kUpdate only
  bool autorename = false;
  bool strictConflict = false;
};

struct WriteOutcome {
  WriteFailure failure = WriteFailure::kNone;
  const StoredEntry* entry = nullptr;  // on success; valid until the next change
};

// One change since a journal position, as list_folder/continue reports it.
struct Change {
  std::string pathLower;
  const StoredEntry* entry = nullptr;  // nullptr: deleted; then `deletedDisplay` names it
  std::string deletedDisplay;
};

// Not thread-safe: the emulator serialises access under its own lock.
class Store {
 public:
  explicit Store(std::optional<std::filesystem::path> mirror);

  // Lower-cases a display path the way lookups compare ("/Notes/A.txt" -> "/notes/a.txt").
  [[nodiscard]] static std::string lowerPath(std::string_view path);
  // Checks the shape of a path ("" or "/a/b", no trailing slash, no "//", no "." or ".."
  // components, no NUL).
  [[nodiscard]] static bool isWellFormed(std::string_view path);
  // SHA-256 over the concatenated SHA-256 digests of each 4 MiB block, lower-case hex.
  [[nodiscard]] static std::string contentHash(std::string_view data);

  [[nodiscard]] const StoredEntry* find(std::string_view path) const;
  [[nodiscard]] const StoredEntry* findById(std::string_view id) const;
  // Any revision ever written, current or not (its pathDisplay is where it was written).
  [[nodiscard]] const StoredEntry* findByRev(std::string_view rev) const;

  WriteOutcome writeFile(std::string_view path, std::shared_ptr<const std::string> contents,
                         std::optional<TimePoint> clientModified, const WriteMode& mode,
                         TimePoint now);
  WriteOutcome createFolder(std::string_view path, bool autorename, TimePoint now);
  // Removes the entry and everything below it; returns the removed entry (nullopt: not there).
  std::optional<StoredEntry> remove(std::string_view path);

  // Entries directly in (or, recursively, anywhere below) the folder `folderLower`, sorted by
  // lower-cased path so parents come before children.
  [[nodiscard]] std::vector<const StoredEntry*> list(std::string_view folderLower,
                                                     bool recursive) const;
  // Paths below `folderLower` that were removed and are not there now, sorted.
  [[nodiscard]] std::vector<Change> tombstones(std::string_view folderLower, bool recursive) const;
  // The journal position after the latest change.
  [[nodiscard]] uint64_t sequence() const { return sequence_; }
  // Changes after `since` below `folderLower`: deletions first, then live entries by path.
  [[nodiscard]] std::vector<Change> changesSince(uint64_t since, std::string_view folderLower,
                                                 bool recursive) const;
  // Every live entry, sorted by lower-cased path.
  [[nodiscard]] std::vector<const StoredEntry*> all() const;

 private:
  void record(const std::string& pathLower);
  StoredEntry& insertFolder(const std::string& pathDisplay, TimePoint now);
  // Creates missing parents of `path`; fails when a file is in the way.
  WriteFailure ensureParents(std::string_view path, TimePoint now);
  std::string nextRev();
  std::string nextId();
  std::string availableName(std::string_view path) const;
  void mirrorWrite(const StoredEntry& entry) const;
  void mirrorRemove(std::string_view pathDisplay) const;

  const std::optional<std::filesystem::path> mirror_;
  std::map<std::string, StoredEntry, std::less<>> entries_;     // by lower-cased path
  std::map<std::string, std::string, std::less<>> tombstones_;  // lower -> display
  std::map<std::string, StoredEntry, std::less<>> revisions_;   // rev -> that version
  std::vector<std::pair<uint64_t, std::string>> journal_;
  uint64_t sequence_ = 0;
  uint64_t revCounter_ = 0;
  uint64_t idCounter_ = 0;
};

// True when `path` is `folder` itself or lies below it ("" is the root and holds everything).
[[nodiscard]] bool isWithin(std::string_view path, std::string_view folder);
// True when `path` lies directly in `folder`.
[[nodiscard]] bool isDirectChild(std::string_view path, std::string_view folder);

}  // namespace wdc::emu
