// A bounds-checked reader of binary property lists ("bplist00") that works in place: it keeps a
// view of the bytes, never copies the object table, and parses one object header at a time when
// asked. Nothing is allocated in proportion to counts read from the file, so a trailer or a count
// that claims gigabytes costs nothing before it is rejected.
//
// Layout: header "bplist0?", the objects, the offset table (one big-endian offset per object),
// and a 32-byte trailer (offset width, reference width, object count, top object, offset-table
// position). Every check the trailer allows is made once in open(); each object's offset,
// payload and references are checked when the object is read.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "webdavconnect/error.h"
#include "webdavconnect/plist_value.h"

namespace wdc::bplist {

enum class Type : uint8_t {
  kNull, kBool, kInteger, kReal, kDate, kData, kAsciiString, kUtf16String, kUid, kArray, kSet,
  kDictionary
};

// One object's header. For data and strings `count` is the length in bytes / characters / UTF-16
// units; for containers the number of elements (dictionaries: entries). `payload` is the byte
// offset of what follows the marker and any long count.
struct ObjectRef {
  uint64_t index = 0;
  Type type = Type::kNull;
  uint8_t width = 0;  // integers and reals: byte width; UIDs: byte width
  bool boolean = false;
  uint64_t count = 0;
  size_t payload = 0;
};

// An integer as stored: 1-, 2- and 4-byte values are unsigned, 8-byte signed, 16-byte values
// 128-bit two's complement. Only values that fit in 64 bits (signed or unsigned) are accepted.
struct Integer {
  uint64_t bits = 0;
  bool isUnsigned = false;  // true only for a value above INT64_MAX
};

// Reads objects from a view of a binary plist. The bytes must outlive the reader.
// Thread-compatible: const methods may be called from several threads.
class Reader {
 public:
  // Checks the header and trailer. On failure returns nullopt and sets `error`.
  static std::optional<Reader> open(std::span<const uint8_t> bytes, ErrorOut error);

  [[nodiscard]] uint64_t objectCount() const { return numObjects_; }
  [[nodiscard]] uint64_t topObject() const { return topObject_; }
  [[nodiscard]] size_t size() const { return bytes_.size(); }

  // Parses object `index`'s header and checks that its whole payload lies inside the object
  // table.
  bool object(uint64_t index, ObjectRef& out, ErrorOut error) const;
  // The `i`th reference of an array or set, or (dictionaries) the `i`th of the 2 x count
  // references: keys first, then values. Checked against the object count.
  bool reference(const ObjectRef& container, uint64_t i, uint64_t& out, ErrorOut error) const;

  // Scalar payloads. REQUIRES: `object` has the matching type.
  bool integer(const ObjectRef& object, Integer& out, ErrorOut error) const;
  [[nodiscard]] double real(const ObjectRef& object) const;  // reals and dates
  [[nodiscard]] uint64_t uid(const ObjectRef& object) const;
  [[nodiscard]] std::span<const uint8_t> data(const ObjectRef& object) const;
  // The text as UTF-8: ASCII strings are copied, UTF-16 strings converted.
  // Lone surrogates and non-ASCII bytes in an ASCII string are errors.
  bool string(const ObjectRef& object, std::string& out, ErrorOut error) const;
  // True when `object` is an ASCII string equal to `text` (no conversion, no allocation).
  [[nodiscard]] bool asciiEquals(const ObjectRef& object, std::string_view text) const;

 private:
  Reader() = default;
  uint64_t readUnsigned(size_t at, unsigned width) const;

  std::span<const uint8_t> bytes_;
  unsigned offsetSize_ = 0;
  unsigned refSize_ = 0;
  uint64_t numObjects_ = 0;
  uint64_t topObject_ = 0;
  uint64_t offsetTable_ = 0;
};

}  // namespace wdc::bplist
