// A record as `wdc get`, `wdc pull` and `wdc put` show it: {"meta": {...}, "data": {payload}}.
// "meta" uses the record's field names; absent fields are left out. `put` reads back only what a
// new record needs (OpType, ContainerUID, ParentUID, UID, Extension; the extension may instead
// come from FilePath, as listed records carry it), so what `pull` writes can be put again
// unchanged.
#pragma once

#include <nlohmann/json.hpp>

#include <memory>
#include <string>

#include "webdavconnect/file_contents.h"
#include "webdavconnect/file_metadata.h"

namespace wdc::cli {

[[nodiscard]] nlohmann::ordered_json metaToJson(const WebDAVFileMetaData& meta);
[[nodiscard]] nlohmann::ordered_json recordToJson(const WebDAVFileContents& record);

// Reads a record file's JSON text. Throws CommandFailure naming `source` and what is wrong.
[[nodiscard]] std::shared_ptr<WebDAVFileContents> recordFromJson(const std::string& text,
                                                                 const std::string& source);

// "2026-11-24T03:14:23.250000Z".
[[nodiscard]] std::string isoDate(const Date& date);

}  // namespace wdc::cli
