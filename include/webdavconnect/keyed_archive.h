// Keyed archives: the object-graph format that Apple's Foundation writes (NSKeyedArchiver) over a
// binary property list, and in which every stored payload and device record is kept.
//
// Decoding maps the Foundation classes onto payload values:
//   NSString, NSMutableString               -> string
//   NSNumber (integers up to 64 bits, signed or unsigned; reals; booleans) -> the same
//   NSData, NSMutableData                   -> data
//   NSDate                                  -> Date (the stored double kept bit for bit)
//   NSNull                                  -> null
//   NSArray, NSMutableArray                 -> array
//   NSSet, NSMutableSet                     -> set
//   NSDictionary, NSMutableDictionary       -> dictionary when every key is a string, otherwise an
//                                              unknown object of that class (NS.keys / NS.objects)
//   anything else                           -> PlistUnknownObject: its class chain and its fields,
//                                              each field decoded by the same rules (a reference
//                                              becomes the object, a list of references an array)
// Shared objects are decoded again at every use (values are not shared); reference cycles become
// a cycle marker at the point where the graph loops back.
//
// Encoding writes what Apple's unarchiver reads: strings, numbers and data inline, dates as NSDate,
// arrays as NSArray, sets as NSSet, dictionaries as NSDictionary (the top-level stored dictionary
// as NSMutableDictionary), null as NSNull and unknown objects with their class chain and fields.
// Mutability is not part of a value, so a decoded NSMutableArray is written back as an NSArray.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "webdavconnect/error.h"
#include "webdavconnect/plist_value.h"

namespace wdc {

// Limits applied to untrusted archives. The defaults suit record payloads of a few megabytes.
struct KeyedArchiveLimits {
  // Deepest nesting of objects (and of containers in a plain property list).
  size_t maxDepth = 512;
  // Bound on the decoded result, in bytes of an estimate (a fixed cost per value plus the length
  // of its text or data): stops archives whose shared references expand exponentially.
  // 0 means 64 MiB plus 256 times the archive's size.
  size_t maxDecodedBytes = 0;
};

// Decodes a keyed archive (an uncompressed binary property list) and returns its top-level
// values: `$top`'s keys with their decoded objects ("root" for archivedDataWithRootObject:,
// "data" for stored payloads, "$0"... for objects encoded without a key). A nil top-level value is
// the nil marker below. On malformed input (bad layout, bad references, wrong $archiver or
// $version, objects without a class, depth or size past the limits) returns nullopt and sets
// `error` (domain "WebDAVConnect", code 400, a description saying what and where).
// Thread-safe (no shared state).
std::optional<PlistDictionary> unarchiveTopLevelObjects(std::span<const uint8_t> archive,
                                                        ErrorOut error,
                                                        const KeyedArchiveLimits& limits = {});

// Encodes `topLevel` as a keyed archive: each key of `topLevel` becomes a key of `$top`. Never
// fails: strings that are not valid UTF-8 are written with U+FFFD in place of the bad bytes.
// `mutableTopDictionaries`: write top-level dictionaries as NSMutableDictionary (the class a
// stored payload's dictionary has) rather than NSDictionary.
Bytes archiveTopLevelObjects(const PlistDictionary& topLevel, bool mutableTopDictionaries = false);

// Decodes a plain (non-archive) binary property list. UIDs become the UID marker below.
std::optional<PlistValue> readBinaryPropertyList(std::span<const uint8_t> bytes, ErrorOut error,
                                                 const KeyedArchiveLimits& limits = {});

// Writes a payload value as a plain binary property list (no object graph). Unknown objects
// and markers have no plain form and are written as their fields' dictionary.
Bytes writeBinaryPropertyList(const PlistValue& value);

// ---- Markers -------------------------------------------------------------------------------
// A keyed archive can say things a payload value has no kind for. They travel as unknown
// objects whose class name starts with "$", which no real class does:
//   nil reference (a field set to nil)        class "$null"
//   reference back to an object being decoded class "$cycle", field "uid"
//   bare UID in a plain property list         class "$uid",   field "uid"
[[nodiscard]] PlistValue nilReferenceMarker();
[[nodiscard]] bool isNilReferenceMarker(const PlistValue& value);
[[nodiscard]] PlistValue cycleMarker(uint64_t uid);
[[nodiscard]] PlistValue uidMarker(uint64_t uid);
// The uid of a cycle or UID marker (`className` "$cycle" or "$uid"); nullopt for anything else.
[[nodiscard]] std::optional<uint64_t> markerUid(const PlistValue& value, std::string_view className);

}  // namespace wdc
