#include "archive/bplist_writer.h"

#include <cstring>
#include <iterator>

#include "archive/utf.h"

namespace wdc::bplist {
namespace {

void appendBigEndian(Bytes& out, uint64_t value, unsigned width) {
  for (unsigned i = width; i-- > 0;) out.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

unsigned widthFor(uint64_t value) {
  if (value <= 0xFF) return 1;
  if (value <= 0xFFFF) return 2;
  if (value <= 0xFFFFFFFFu) return 4;
  return 8;
}

unsigned log2Width(unsigned width) { return width == 1 ? 0 : width == 2 ? 1 : width == 4 ? 2 : 3; }

}  // namespace

Writer::Ref Writer::addScalar() {
  entries_.push_back(Entry{static_cast<uint32_t>(scalars_.size()), 0, 0});
  return static_cast<Ref>(entries_.size() - 1);
}

void Writer::appendCount(uint8_t highNibble, uint64_t count) {
  if (count < 15) {
    scalars_.push_back(static_cast<uint8_t>((highNibble << 4) | count));
    return;
  }
  scalars_.push_back(static_cast<uint8_t>((highNibble << 4) | 0x0F));
  const unsigned width = widthFor(count);
  scalars_.push_back(static_cast<uint8_t>(0x10 | log2Width(width)));
  appendBigEndian(scalars_, count, width);
}

Writer::Ref Writer::addString(std::string_view utf8) {
  const Ref ref = addScalar();
  bool ascii = true;
  for (char c : utf8) ascii = ascii && static_cast<uint8_t>(c) < 0x80;
  if (ascii) {
    appendCount(0x5, utf8.size());
    scalars_.insert(scalars_.end(), utf8.begin(), utf8.end());
  } else {
    std::vector<uint16_t> units;
    units.reserve(utf8.size());
    utf8ToUtf16(utf8, units);
    appendCount(0x6, units.size());
    for (uint16_t unit : units) appendBigEndian(scalars_, unit, 2);
  }
  entries_[ref].size = static_cast<uint32_t>(scalars_.size() - entries_[ref].begin);
  return ref;
}

Writer::Ref Writer::addSharedString(std::string_view utf8) {
  auto it = sharedStrings_.find(std::string(utf8));
  if (it != sharedStrings_.end()) return it->second;
  const Ref ref = addString(utf8);
  sharedStrings_.emplace(std::string(utf8), ref);
  return ref;
}

Writer::Ref Writer::addInteger(int64_t value) {
  if (value < 0) {
    const Ref ref = addScalar();
    scalars_.push_back(0x13);
    appendBigEndian(scalars_, static_cast<uint64_t>(value), 8);
    entries_[ref].size = 9;
    return ref;
  }
  return addUnsigned(static_cast<uint64_t>(value));
}

Writer::Ref Writer::addUnsigned(uint64_t value) {
  const Ref ref = addScalar();
  if (value > static_cast<uint64_t>(INT64_MAX)) {
    scalars_.push_back(0x14);
    appendBigEndian(scalars_, 0, 8);
    appendBigEndian(scalars_, value, 8);
  } else {
    const unsigned width = widthFor(value);
    scalars_.push_back(static_cast<uint8_t>(0x10 | log2Width(width)));
    appendBigEndian(scalars_, value, width);
  }
  entries_[ref].size = static_cast<uint32_t>(scalars_.size() - entries_[ref].begin);
  return ref;
}

Writer::Ref Writer::addReal(double value) {
  const Ref ref = addScalar();
  uint64_t bits;
  std::memcpy(&bits, &value, sizeof(bits));
  scalars_.push_back(0x23);
  appendBigEndian(scalars_, bits, 8);
  entries_[ref].size = 9;
  return ref;
}

Writer::Ref Writer::addDate(double sinceReferenceDate) {
  const Ref ref = addReal(sinceReferenceDate);
  scalars_[entries_[ref].begin] = 0x33;
  return ref;
}

Writer::Ref Writer::addBool(bool value) {
  Ref& shared = bools_[value ? 1 : 0];
  if (shared != UINT32_MAX) return shared;
  shared = addScalar();
  scalars_.push_back(value ? 0x09 : 0x08);
  entries_[shared].size = 1;
  return shared;
}

Writer::Ref Writer::addData(std::span<const uint8_t> bytes) {
  const Ref ref = addScalar();
  appendCount(0x4, bytes.size());
  scalars_.insert(scalars_.end(), bytes.begin(), bytes.end());
  entries_[ref].size = static_cast<uint32_t>(scalars_.size() - entries_[ref].begin);
  return ref;
}

Writer::Ref Writer::addUid(uint64_t uid) {
  auto it = uids_.find(uid);
  if (it != uids_.end()) return it->second;
  const Ref ref = addScalar();
  const unsigned width = widthFor(uid);
  scalars_.push_back(static_cast<uint8_t>(0x80 | (width - 1)));
  appendBigEndian(scalars_, uid, width);
  entries_[ref].size = static_cast<uint32_t>(1 + width);
  uids_.emplace(uid, ref);
  return ref;
}

Writer::Ref Writer::reserve() {
  entries_.push_back(Entry{0, 0, 0xA});
  return static_cast<Ref>(entries_.size() - 1);
}

Writer::Ref Writer::addContainer(uint8_t marker, std::span<const Ref> a, std::span<const Ref> b,
                                 Ref slot) {
  Entry entry{static_cast<uint32_t>(refs_.size()), static_cast<uint32_t>(a.size() + b.size()),
              marker};
  refs_.insert(refs_.end(), a.begin(), a.end());
  refs_.insert(refs_.end(), b.begin(), b.end());
  entries_[slot] = entry;
  return slot;
}

Writer::Ref Writer::addArray(std::span<const Ref> items) {
  return addContainer(0xA, items, {}, reserve());
}
Writer::Ref Writer::addSet(std::span<const Ref> items) {
  return addContainer(0xC, items, {}, reserve());
}
Writer::Ref Writer::addDictionary(std::span<const Ref> keys, std::span<const Ref> values) {
  return addContainer(0xD, keys, values, reserve());
}
void Writer::setArray(Ref slot, std::span<const Ref> items) { addContainer(0xA, items, {}, slot); }
void Writer::setDictionary(Ref slot, std::span<const Ref> keys, std::span<const Ref> values) {
  addContainer(0xD, keys, values, slot);
}

Bytes Writer::finish(Ref top) const {
  const uint64_t count = entries_.size();
  // Number objects as Apple's writer does: the root is 0, then a depth-first walk (an array's
  // members in turn, a dictionary's keys and then its values). Objects nothing refers to keep
  // their relative order at the end.
  constexpr Ref kUnnumbered = UINT32_MAX;
  std::vector<Ref> number(count, kUnnumbered);
  std::vector<Ref> order;
  order.reserve(count);
  std::vector<Ref> stack{top};
  while (!stack.empty()) {
    const Ref ref = stack.back();
    stack.pop_back();
    if (number[ref] != kUnnumbered) continue;
    number[ref] = static_cast<Ref>(order.size());
    order.push_back(ref);
    const Entry& entry = entries_[ref];
    if (entry.container == 0) continue;
    for (uint32_t i = entry.size; i-- > 0;) {
      const Ref child = refs_[entry.begin + i];
      if (number[child] == kUnnumbered) stack.push_back(child);
    }
  }
  for (Ref ref = 0; ref < count; ++ref) {
    if (number[ref] == kUnnumbered) {
      number[ref] = static_cast<Ref>(order.size());
      order.push_back(ref);
    }
  }

  const unsigned refSize = widthFor(count);
  static constexpr uint8_t kMagic[] = {'b', 'p', 'l', 'i', 's', 't', '0', '0'};
  Bytes out(std::begin(kMagic), std::end(kMagic));
  out.reserve(8 + scalars_.size() + refs_.size() * refSize + count * 4 + 32);
  std::vector<uint64_t> offsets;
  offsets.reserve(count);
  for (const Ref ref : order) {
    const Entry& entry = entries_[ref];
    offsets.push_back(out.size());
    if (entry.container == 0) {
      out.insert(out.end(), scalars_.begin() + entry.begin,
                 scalars_.begin() + entry.begin + entry.size);
      continue;
    }
    const uint64_t items = entry.container == 0xD ? entry.size / 2 : entry.size;
    if (items < 15) {
      out.push_back(static_cast<uint8_t>((entry.container << 4) | items));
    } else {
      out.push_back(static_cast<uint8_t>((entry.container << 4) | 0x0F));
      const unsigned width = widthFor(items);
      out.push_back(static_cast<uint8_t>(0x10 | log2Width(width)));
      appendBigEndian(out, items, width);
    }
    for (uint32_t i = 0; i < entry.size; ++i) {
      appendBigEndian(out, number[refs_[entry.begin + i]], refSize);
    }
  }
  const uint64_t offsetTable = out.size();
  const unsigned offsetSize = widthFor(offsetTable);
  for (uint64_t offset : offsets) appendBigEndian(out, offset, offsetSize);
  out.insert(out.end(), 6, 0);
  out.push_back(static_cast<uint8_t>(offsetSize));
  out.push_back(static_cast<uint8_t>(refSize));
  appendBigEndian(out, count, 8);
  appendBigEndian(out, 0, 8);  // top object: always number 0
  appendBigEndian(out, offsetTable, 8);
  return out;
}

}  // namespace wdc::bplist
