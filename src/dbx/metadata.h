// Typed values of the Dropbox API v2 that several routes share: file, folder and deleted entries
// (the polymorphic Metadata), the account, and the Void type of routes without argument, result
// or error. Field names follow the API's JSON names in mixed case.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace wdc::dbx {

using DBTimestamp = std::chrono::system_clock::time_point;

// The value of a route that has no argument, result or error.
struct DBVoid {};

class DBFILESFileMetadata;
class DBFILESFolderMetadata;
class DBFILESDeletedMetadata;

// Common part of the three entry kinds. Lists hold entries as shared pointers to this base;
// `isFile()` / `asFile()` tell the kinds apart. Immutable after decoding; thread-compatible.
class DBFILESMetadata {
 public:
  enum class Kind { kFile, kFolder, kDeleted };
  virtual ~DBFILESMetadata() = default;

  [[nodiscard]] virtual Kind kind() const = 0;
  [[nodiscard]] bool isFile() const { return kind() == Kind::kFile; }
  [[nodiscard]] bool isFolder() const { return kind() == Kind::kFolder; }
  [[nodiscard]] bool isDeleted() const { return kind() == Kind::kDeleted; }
  // Null unless the entry is of that kind.
  [[nodiscard]] const DBFILESFileMetadata* asFile() const;
  [[nodiscard]] const DBFILESFolderMetadata* asFolder() const;

  std::string name;
  std::optional<std::string> pathLower;
  std::optional<std::string> pathDisplay;
  std::optional<std::string> parentSharedFolderId;
};

class DBFILESFileMetadata final : public DBFILESMetadata {
 public:
  [[nodiscard]] Kind kind() const override { return Kind::kFile; }
  std::string id;
  // The API always sends it, but an entry without one decodes with it absent, so that a listing
  // can fail on that one entry with its own error instead of refusing the whole page.
  std::optional<DBTimestamp> clientModified;
  // Required on the wire; decoding fails without it.
  DBTimestamp serverModified;
  std::string rev;
  uint64_t size = 0;
  bool isDownloadable = true;
  std::optional<std::string> contentHash;
};

class DBFILESFolderMetadata final : public DBFILESMetadata {
 public:
  [[nodiscard]] Kind kind() const override { return Kind::kFolder; }
  std::string id;
};

class DBFILESDeletedMetadata final : public DBFILESMetadata {
 public:
  [[nodiscard]] Kind kind() const override { return Kind::kDeleted; }
};

using DBFILESMetadataRef = std::shared_ptr<const DBFILESMetadata>;

struct DBUSERSName {
  std::string givenName;
  std::string surname;
  std::string familiarName;
  // Absent when the answer leaves it out; callers then have no name to show, not an error.
  std::optional<std::string> displayName;
  std::string abbreviatedName;
};

// users/get_current_account. Only the fields a client reads are kept.
struct DBUSERSFullAccount {
  std::string accountId;
  DBUSERSName name;
  std::string email;
  bool emailVerified = false;
  bool disabled = false;
  std::optional<std::string> country;
  std::string locale;
  std::string accountType;  // "basic", "pro" or "business"
};

// "%Y-%m-%dT%H:%M:%SZ", UTC, whole seconds: the only timestamp form the API speaks.
[[nodiscard]] std::string formatTimestamp(DBTimestamp time);
// Parses that form; absent for anything else (fractions, offsets, out-of-range fields, and
// instants the clock cannot hold).
[[nodiscard]] std::optional<DBTimestamp> parseTimestamp(std::string_view text);
// `base` moved by `offset`; absent when the result does not fit the clock's 64-bit tick count
// (with nanosecond ticks, about 1677-09-21 to 2262-04-11). Times from the wire go through this
// rather than through chrono's arithmetic, whose overflow is undefined.
[[nodiscard]] std::optional<DBTimestamp> timestampAfter(DBTimestamp base,
                                                        std::chrono::seconds offset);

}  // namespace wdc::dbx
