// Encoded record-file names. A stored record is named
//   o_OPTYPE_k_CONTAINER_p_PARENT_i_UID_d_DEVICE.EXT
// Parsing splits the name (without its extension) on every "_" and reads the fields by position:
// 0 "o", 1 op type, 2 "k", 3 container, 4 "p", 5 parent, 6 "i", 7 uid, 8 "d", 9 device. The
// marker positions are never compared. Identifiers therefore must not contain "_": one that does
// shifts every later field. Both the local listing and the Dropbox delta listing use this parser.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "webdavconnect/file_metadata.h"

namespace wdc {

struct RecordNameFields {
  std::string opType;
  std::string containerUID;
  std::string parentUID;
  std::string uid;
  std::optional<std::string> deviceUDID;  // present only with 10 or more components
  std::string extension;                  // "" when the name has none
};

// The path extension of a file name: the text after the last ".", or "" when there is none.
[[nodiscard]] std::string_view pathExtension(std::string_view fileName);
// The file name without its path extension (and without the ".").
[[nodiscard]] std::string_view deletingPathExtension(std::string_view fileName);

// Reads the fields of a stored record name. Nullopt when the name has fewer than 8 "_"-separated
// components (not a record). An absent identifier parses as "", never as absent.
[[nodiscard]] std::optional<RecordNameFields> parseRecordName(std::string_view fileName);

// Copies parsed fields into a record: op type, container, parent, uid, device (when present) and
// extension.
void applyRecordName(const RecordNameFields& fields, WebDAVFileMetaData& record);

}  // namespace wdc
