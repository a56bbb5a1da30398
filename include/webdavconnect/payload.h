// The stored payload format: every record and attachment a store holds is a gzip stream
// (RFC 1952) of a keyed archive whose only top-level key is "data", holding the stored object
// (for records, the payload dictionary). Readers also accept the archive without gzip.
//
// The JSON form below is what `wdc payload decode` prints and `wdc payload encode` reads:
//   string, integer, real (always with a "." or exponent), true/false as themselves;
//   null for NSNull; {"$date": "YYYY-MM-DDTHH:MM:SS.ffffffZ", "$time": <seconds since 2001>}
//   ("$time" wins when both are read; "$date" alone, ISO 8601 with a zone or a bare date taken as
//   UTC midnight, is accepted too);
//   {"$data": "<base64>"}; {"$set": [...]}; {"$orderedset": [...]}; {"$uuid": "..."};
//   {"$url": <relative>, "$base": <url>}; {"$nil": true} for a nil reference;
//   {"$cycle": <uid>} for a reference back to an object being decoded; {"$uid": n};
//   {"$real": "nan" | "inf" | "-inf"}; a dictionary whose keys are all strings not starting
//   with "$" as a JSON object, any other as {"$dict": [[key, value], ...]};
//   any other class as {"$class": "<name>", "<field>": <value>, ...}.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "webdavconnect/error.h"
#include "webdavconnect/keyed_archive.h"
#include "webdavconnect/plist_value.h"

namespace wdc {

// Largest archive a stored payload may inflate to; a larger one is refused, not inflated.
inline constexpr size_t kMaxInflatedPayloadBytes = size_t{256} << 20;

// The stored form of `data`: a keyed archive with `data` under "data" (a dictionary written as
// NSMutableDictionary, as the host's payload is), gzip-compressed. Nullopt only when zlib fails.
std::optional<Bytes> encodeStoredPayload(const PlistValue& data);

// Opens a stored payload: inflates it when it is gzip (or zlib) data, takes the bytes as they are
// otherwise, and unarchives them. Returns the archive's top-level values; nullopt with `error`
// set when the bytes are not a readable keyed archive or inflate past kMaxInflatedPayloadBytes.
std::optional<PlistDictionary> openStoredPayload(std::span<const uint8_t> bytes, ErrorOut error,
                                                 const KeyedArchiveLimits& limits = {});

// The object stored under "data". Nullopt with `error` set when the payload cannot be read;
// nullopt with `error` untouched when it is readable but has no "data" (or "data" is nil).
std::optional<PlistValue> decodeStoredPayload(std::span<const uint8_t> bytes, ErrorOut error,
                                              const KeyedArchiveLimits& limits = {});

// A payload value in the JSON form above. `indent` < 0 writes one line.
std::string payloadValueToJSON(const PlistValue& value, int indent = 2);

// Reads the JSON form above. Nullopt with `error` set on invalid JSON or a malformed "$" form.
std::optional<PlistValue> payloadValueFromJSON(std::string_view json, ErrorOut error);

}  // namespace wdc
