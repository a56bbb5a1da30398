// The records the soak's devices keep and exchange: a to-do application's record files, named
// by the encoded record name and stored as gzip of a keyed archive. Every payload is a pure
// function of (UID, version, owner), so anyone can tell a stored payload from a corrupted one.
//
// How the simulated host keeps sync sound:
// - a record is created and edited only by its owner device ("u" files; the name is fixed by
//   the record, so an edit overwrites the file);
// - any device may delete any record: it uploads a tombstone ("d" file, kept for good) and then
//   deletes the "u" file; a tombstone beats a "u" file whenever both are seen, so a full listing
//   after a cursor reset still carries every deletion.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "webdavconnect/plist_value.h"

namespace wdc::soak {

// The six record folders; a record lives in the folder named by its extension.
inline constexpr std::array<const char*, 6> kRecordFolders = {"cal", "col", "cag",
                                                              "cat", "loc", "tod"};

struct Record {
  std::string uid;        // lower case, no "_"
  std::string folder;     // one of kRecordFolders, also the extension
  std::string container;  // "_k_" field
  std::string parent;     // "_p_" field
  std::string owner;      // the device that created it
  uint64_t version = 1;
};

// The payload of `record` at its version: title, notes of a length that depends on the version,
// dates, flags and a nested array, as a to-do carries.
PlistDictionary payloadFor(const Record& record);
// A tombstone's payload.
PlistDictionary tombstonePayloadFor(const Record& record);

// The file a record's op ("u" or "d") is stored under, as the library names uploads.
std::string recordFileName(const Record& record, std::string_view opType);

// The fields of a stored record file's name ("o_u_k_C_p_P_i_UID_d_.ext").
struct RecordName {
  std::string opType, container, parent, uid, extension;
};
std::optional<RecordName> parseRecordName(std::string_view fileName);

// The version a stored "u" payload is of, when it is exactly payloadFor(record at that version);
// nullopt when it is anything else (corrupted, another record's, not a record payload).
std::optional<uint64_t> verifiedVersion(Record record, const PlistDictionary& payload);

}  // namespace wdc::soak
