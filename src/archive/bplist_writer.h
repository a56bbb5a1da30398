// Writes binary property lists ("bplist00"). Objects are added one by one and named by the
// number add*() returns; containers refer to numbers already handed out (or reserved). finish()
// lays the file out as Apple's writer does: the root is object 0, the others follow in a
// depth-first walk from it (an object shared by several containers once, where first met), then
// the offset table and trailer, with offset and reference widths the smallest of 1, 2, 4 or 8
// bytes that hold them.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "webdavconnect/plist_value.h"

namespace wdc::bplist {

// Use from one thread at a time.
class Writer {
 public:
  using Ref = uint32_t;

  Ref addString(std::string_view utf8);
  // The same object for every call with equal text: for dictionary keys and class names.
  Ref addSharedString(std::string_view utf8);
  // Non-negative values take 1, 2, 4 or 8 bytes; negative values 8 bytes.
  Ref addInteger(int64_t value);
  // Values above INT64_MAX take 16 bytes (upper half zero).
  Ref addUnsigned(uint64_t value);
  Ref addReal(double value);
  Ref addBool(bool value);  // shared
  Ref addDate(double sinceReferenceDate);
  Ref addData(std::span<const uint8_t> bytes);
  Ref addUid(uint64_t uid);  // shared per value
  Ref addArray(std::span<const Ref> items);
  Ref addSet(std::span<const Ref> items);
  // keys[i] maps to values[i].
  Ref addDictionary(std::span<const Ref> keys, std::span<const Ref> values);

  // Reserves a number for a container whose contents are not known yet; fill it with
  // setArray/setDictionary before finish().
  Ref reserve();
  void setArray(Ref slot, std::span<const Ref> items);
  void setDictionary(Ref slot, std::span<const Ref> keys, std::span<const Ref> values);

  [[nodiscard]] size_t objectCount() const { return entries_.size(); }
  // The whole file with `top` as the root object.
  [[nodiscard]] Bytes finish(Ref top) const;

 private:
  struct Entry {
    uint32_t begin = 0;      // scalar: encoded bytes in scalars_; container: first ref in refs_
    uint32_t size = 0;       // scalar: byte length; container: number of refs
    uint8_t container = 0;   // 0 for scalars, else the marker's high nibble (0xA, 0xC, 0xD)
  };
  Ref addScalar();
  void appendCount(uint8_t highNibble, uint64_t count);
  Ref addContainer(uint8_t marker, std::span<const Ref> a, std::span<const Ref> b, Ref slot);

  std::vector<Entry> entries_;
  Bytes scalars_;
  std::vector<Ref> refs_;
  std::unordered_map<std::string, Ref> sharedStrings_;
  std::unordered_map<uint64_t, Ref> uids_;
  Ref bools_[2] = {UINT32_MAX, UINT32_MAX};
};

}  // namespace wdc::bplist
