#include "archive/bplist_reader.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <limits>

#include "archive/utf.h"

namespace wdc::bplist {
namespace {

constexpr size_t kHeaderSize = 8;
constexpr size_t kTrailerSize = 32;
constexpr uint64_t kMaxCount = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());

bool fail(ErrorOut error, std::string_view what, std::string_view where = {}) {
  setError(error, Error::corruption(fmt::format("bplist: {}", what), where));
  return false;
}

std::string at(size_t offset) { return fmt::format("at offset 0x{:x}", offset); }

uint64_t bigEndian(const uint8_t* p, unsigned width) {
  uint64_t value = 0;
  for (unsigned i = 0; i < width; ++i) value = (value << 8) | p[i];
  return value;
}

}  // namespace

std::optional<Reader> Reader::open(std::span<const uint8_t> bytes, ErrorOut error) {
  if (bytes.size() < kHeaderSize + 1 + kTrailerSize) {
    fail(error, "too short to be a binary property list", fmt::format("{} bytes", bytes.size()));
    return std::nullopt;
  }
  static constexpr char kMagic[] = "bplist0";
  for (size_t i = 0; i < 7; ++i) {
    if (bytes[i] != static_cast<uint8_t>(kMagic[i])) {
      fail(error, "not a binary property list (no bplist0 header)");
      return std::nullopt;
    }
  }
  Reader r;
  r.bytes_ = bytes;
  const uint8_t* trailer = bytes.data() + bytes.size() - kTrailerSize;
  r.offsetSize_ = trailer[6];
  r.refSize_ = trailer[7];
  r.numObjects_ = bigEndian(trailer + 8, 8);
  r.topObject_ = bigEndian(trailer + 16, 8);
  r.offsetTable_ = bigEndian(trailer + 24, 8);

  if (r.offsetSize_ < 1 || r.offsetSize_ > 8 || r.refSize_ < 1 || r.refSize_ > 8) {
    fail(error, "offset or reference width out of range",
         fmt::format("offsets {} bytes, references {} bytes", r.offsetSize_, r.refSize_));
    return std::nullopt;
  }
  if (r.numObjects_ < 1 || r.topObject_ >= r.numObjects_ || r.offsetTable_ < kHeaderSize + 1) {
    fail(error, "trailer out of range",
         fmt::format("{} objects, top {}, offset table at {}", r.numObjects_, r.topObject_,
                     r.offsetTable_));
    return std::nullopt;
  }
  // The offset table must end exactly where the trailer starts. Divide before multiplying so a
  // huge object count cannot overflow.
  const uint64_t room = bytes.size() - kTrailerSize;
  if (r.offsetTable_ > room || r.numObjects_ > (room - r.offsetTable_) / r.offsetSize_ ||
      r.offsetTable_ + r.numObjects_ * r.offsetSize_ != room) {
    fail(error, "offset table does not fit the file",
         fmt::format("{} objects x {} bytes at {}, file {} bytes", r.numObjects_, r.offsetSize_,
                     r.offsetTable_, bytes.size()));
    return std::nullopt;
  }
  if ((r.refSize_ < 8 && r.numObjects_ >> (8 * r.refSize_) != 0) ||
      (r.offsetSize_ < 8 && r.offsetTable_ >> (8 * r.offsetSize_) != 0)) {
    fail(error, "trailer widths too small for its counts");
    return std::nullopt;
  }
  return r;
}

uint64_t Reader::readUnsigned(size_t offset, unsigned width) const {
  return bigEndian(bytes_.data() + offset, width);
}

bool Reader::object(uint64_t index, ObjectRef& out, ErrorOut error) const {
  if (index >= numObjects_) {
    return fail(error, fmt::format("object reference {} out of range ({} objects)", index,
                                   numObjects_));
  }
  const uint64_t offset = readUnsigned(offsetTable_ + index * offsetSize_, offsetSize_);
  if (offset < kHeaderSize || offset >= offsetTable_) {
    return fail(error, fmt::format("object {} has offset {} outside the object table", index,
                                   offset));
  }
  const size_t end = offsetTable_;  // every payload must end before the offset table
  size_t pos = offset;
  const uint8_t marker = bytes_[pos++];
  const uint8_t high = marker >> 4;
  const uint8_t low = marker & 0x0F;
  out = ObjectRef{};
  out.index = index;

  // Data, strings and containers: low nibble is the count, or 0xF for a following integer.
  auto readCount = [&]() -> bool {
    if (low != 0x0F) {
      out.count = low;
      return true;
    }
    if (pos >= end) return fail(error, "long count runs past the object table", at(offset));
    const uint8_t intMarker = bytes_[pos++];
    if ((intMarker >> 4) != 0x1 || (intMarker & 0x0F) > 3) {
      return fail(error, "long count is not an integer of 1 to 8 bytes", at(offset));
    }
    const unsigned width = 1u << (intMarker & 0x0F);
    if (end - pos < width) return fail(error, "long count runs past the object table", at(offset));
    out.count = readUnsigned(pos, width);
    pos += width;
    if (out.count > kMaxCount) return fail(error, "count does not fit in 64 bits", at(offset));
    return true;
  };
  // Payload of `units` items of `unitSize` bytes must fit before the offset table.
  auto reserve = [&](uint64_t units, uint64_t unitSize) -> bool {
    if (units > (end - pos) / unitSize) {
      return fail(error, fmt::format("object of {} x {} bytes runs past the object table", units,
                                     unitSize),
                  at(offset));
    }
    out.payload = pos;
    return true;
  };

  switch (high) {
    case 0x0:
      if (marker == 0x00) {
        out.type = Type::kNull;
      } else if (marker == 0x08 || marker == 0x09) {
        out.type = Type::kBool;
        out.boolean = marker == 0x09;
      } else {
        return fail(error, fmt::format("unknown marker 0x{:02x}", marker), at(offset));
      }
      out.payload = pos;
      return true;
    case 0x1:
      if (low > 4) return fail(error, "integer wider than 16 bytes", at(offset));
      out.type = Type::kInteger;
      out.width = static_cast<uint8_t>(1u << low);
      return reserve(out.width, 1);
    case 0x2:
      if (low != 2 && low != 3) return fail(error, "real is neither 4 nor 8 bytes", at(offset));
      out.type = Type::kReal;
      out.width = static_cast<uint8_t>(1u << low);
      return reserve(out.width, 1);
    case 0x3:
      if (low != 3) return fail(error, "date is not 8 bytes", at(offset));
      out.type = Type::kDate;
      out.width = 8;
      return reserve(8, 1);
    case 0x4:
      out.type = Type::kData;
      return readCount() && reserve(out.count, 1);
    case 0x5:
      out.type = Type::kAsciiString;
      return readCount() && reserve(out.count, 1);
    case 0x6:
      out.type = Type::kUtf16String;
      return readCount() && reserve(out.count, 2);
    case 0x8: {
      out.type = Type::kUid;
      out.width = static_cast<uint8_t>(low + 1);
      if (out.width > 8) return fail(error, "UID wider than 8 bytes", at(offset));
      if (!reserve(out.width, 1)) return false;
      if (uid(out) > 0xFFFFFFFFu) return fail(error, "UID above 2^32-1", at(offset));
      return true;
    }
    case 0xA:
      out.type = Type::kArray;
      return readCount() && reserve(out.count, refSize_);
    case 0xC:
      out.type = Type::kSet;
      return readCount() && reserve(out.count, refSize_);
    case 0xD:
      out.type = Type::kDictionary;
      if (!readCount()) return false;
      if (out.count > kMaxCount / 2) return fail(error, "dictionary count too large", at(offset));
      return reserve(out.count * 2, refSize_);
    default:
      return fail(error, fmt::format("unknown marker 0x{:02x}", marker), at(offset));
  }
}

bool Reader::reference(const ObjectRef& container, uint64_t i, uint64_t& out,
                       ErrorOut error) const {
  // object() already checked that every reference of the container lies in the file.
  out = readUnsigned(container.payload + i * refSize_, refSize_);
  if (out >= numObjects_) {
    return fail(error, fmt::format("object reference {} out of range ({} objects)", out,
                                   numObjects_),
                fmt::format("in object {}", container.index));
  }
  return true;
}

bool Reader::integer(const ObjectRef& object, Integer& out, ErrorOut error) const {
  const uint8_t* p = bytes_.data() + object.payload;
  switch (object.width) {
    case 1: case 2: case 4:
      out = Integer{readUnsigned(object.payload, object.width), false};
      return true;
    case 8:
      out = Integer{readUnsigned(object.payload, 8), false};
      return true;
    default: {  // 16 bytes, two's complement
      const uint64_t high = bigEndian(p, 8);
      const uint64_t low = bigEndian(p + 8, 8);
      if (high == 0) {
        out = Integer{low, low > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())};
        return true;
      }
      if (high == ~uint64_t{0} && (low >> 63) != 0) {
        out = Integer{low, false};
        return true;
      }
      return fail(error, "integer does not fit in 64 bits", at(object.payload - 1));
    }
  }
}

double Reader::real(const ObjectRef& object) const {
  const uint64_t bits = readUnsigned(object.payload, object.width);
  if (object.width == 4) {
    float f;
    const uint32_t b32 = static_cast<uint32_t>(bits);
    static_assert(sizeof(f) == sizeof(b32));
    std::memcpy(&f, &b32, sizeof(f));
    return f;
  }
  double d;
  std::memcpy(&d, &bits, sizeof(d));
  return d;
}

uint64_t Reader::uid(const ObjectRef& object) const {
  return readUnsigned(object.payload, object.width);
}

std::span<const uint8_t> Reader::data(const ObjectRef& object) const {
  return bytes_.subspan(object.payload, object.count);
}

bool Reader::string(const ObjectRef& object, std::string& out, ErrorOut error) const {
  const uint8_t* p = bytes_.data() + object.payload;
  if (object.type == Type::kAsciiString) {
    out.assign(reinterpret_cast<const char*>(p), object.count);
    // Some writers put UTF-8 in ASCII strings: keep it when it is valid UTF-8.
    for (size_t i = 0; i < object.count; ++i) {
      if (p[i] >= 0x80) {
        if (!isValidUtf8(out)) return fail(error, "ASCII string holds invalid bytes", at(object.payload));
        break;
      }
    }
    return true;
  }
  if (!utf16BigEndianToUtf8(p, object.count, out)) {
    return fail(error, "UTF-16 string holds a lone surrogate", at(object.payload));
  }
  return true;
}

bool Reader::asciiEquals(const ObjectRef& object, std::string_view text) const {
  return object.type == Type::kAsciiString && object.count == text.size() &&
         std::equal(text.begin(), text.end(), bytes_.data() + object.payload);
}

}  // namespace wdc::bplist
