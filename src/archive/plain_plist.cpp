// Plain binary property lists (no object graph) to and from payload values, and the marker
// values that carry archive-only notions (nil, cycles, bare UIDs) through a PlistValue.
#include <fmt/format.h>

#include <vector>

#include "archive/bplist_reader.h"
#include "archive/bplist_writer.h"
#include "archive/decode_budget.h"
#include "webdavconnect/keyed_archive.h"

namespace wdc {
namespace {

using bplist::ObjectRef;
using bplist::Reader;
using bplist::Type;

PlistValue marker(std::string name, std::optional<uint64_t> uid) {
  PlistUnknownObject object{{std::move(name)}, {}};
  if (uid) object.fields.set("uid", PlistValue(static_cast<unsigned long long>(*uid)));
  return PlistValue(std::move(object));
}

class PlainReader {
 public:
  PlainReader(const Reader& reader, const KeyedArchiveLimits& limits)
      : r_(reader), limits_(limits), budget_(limits, reader.size()),
        onPath_(std::min<uint64_t>(reader.objectCount(), reader.size())) {}

  bool read(uint64_t ref, PlistValue& out, ErrorOut error) {
    ObjectRef object;
    if (!r_.object(ref, object, error)) return false;
    const bool container =
        object.type == Type::kArray || object.type == Type::kSet || object.type == Type::kDictionary;
    if (!container) return scalar(object, out, error);
    if (depth_ >= limits_.maxDepth) {
      setError(error, Error::corruption("bplist: nesting too deep"));
      return false;
    }
    // A container met again on its own path contains itself.
    if (onPath_[ref]) {
      setError(error, Error::corruption("bplist: container contains itself",
                                        fmt::format("object {}", ref)));
      return false;
    }
    ++depth_;
    onPath_[ref] = true;
    const bool ok = containerValue(object, out, error);
    onPath_[ref] = false;
    --depth_;
    return ok;
  }

 private:
  bool scalar(const ObjectRef& object, PlistValue& out, ErrorOut error) {
    switch (object.type) {
      case Type::kNull: out = PlistValue(); break;
      case Type::kBool: out = PlistValue(object.boolean); break;
      case Type::kInteger: {
        bplist::Integer value;
        if (!r_.integer(object, value, error)) return false;
        out = value.isUnsigned ? PlistValue(static_cast<unsigned long long>(value.bits))
                               : PlistValue(static_cast<long long>(value.bits));
        break;
      }
      case Type::kReal: out = PlistValue(r_.real(object)); break;
      case Type::kDate: out = PlistValue(Date{r_.real(object)}); break;
      case Type::kUid: out = uidMarker(r_.uid(object)); break;
      case Type::kData: {
        auto bytes = r_.data(object);
        if (!budget_.charge(bytes.size(), error)) return false;
        out = PlistValue(Bytes(bytes.begin(), bytes.end()));
        return true;
      }
      default: {
        std::string text;
        if (!r_.string(object, text, error) || !budget_.charge(text.size(), error)) return false;
        out = PlistValue(std::move(text));
        return true;
      }
    }
    return budget_.charge(0, error);
  }

  bool containerValue(const ObjectRef& object, PlistValue& out, ErrorOut error) {
    if (!budget_.charge(0, error)) return false;
    if (object.type == Type::kDictionary) {
      PlistDictionary dict;
      for (uint64_t i = 0; i < object.count; ++i) {
        uint64_t keyRef, valueRef;
        ObjectRef key;
        std::string name;
        PlistValue value;
        if (!r_.reference(object, i, keyRef, error) ||
            !r_.reference(object, object.count + i, valueRef, error) ||
            !r_.object(keyRef, key, error)) {
          return false;
        }
        if (key.type != Type::kAsciiString && key.type != Type::kUtf16String) {
          setError(error, Error::corruption("bplist: dictionary key is not a string",
                                            fmt::format("object {}", keyRef)));
          return false;
        }
        if (!r_.string(key, name, error) || !budget_.charge(name.size(), error) ||
            !read(valueRef, value, error)) {
          return false;
        }
        dict.set(std::move(name), std::move(value));
      }
      out = PlistValue(std::move(dict));
      return true;
    }
    PlistValue::Array items;
    for (uint64_t i = 0; i < object.count; ++i) {
      uint64_t itemRef;
      PlistValue value;
      if (!r_.reference(object, i, itemRef, error) || !read(itemRef, value, error)) return false;
      items.push_back(std::move(value));
    }
    out = object.type == Type::kSet ? PlistValue(PlistSet{std::move(items)})
                                    : PlistValue(std::move(items));
    return true;
  }

  const Reader& r_;
  const KeyedArchiveLimits& limits_;
  bplist::DecodeBudget budget_;
  std::vector<bool> onPath_;
  size_t depth_ = 0;
};

bplist::Writer::Ref writePlain(bplist::Writer& w, const PlistValue& value) {
  switch (value.kind()) {
    case PlistValue::Kind::kNull: return w.addDictionary({}, {});
    case PlistValue::Kind::kString: return w.addString(value.asString());
    case PlistValue::Kind::kInteger: return w.addInteger(value.asInt64());
    case PlistValue::Kind::kUnsignedInteger: return w.addUnsigned(value.asUInt64());
    case PlistValue::Kind::kReal: return w.addReal(value.asDouble());
    case PlistValue::Kind::kBoolean: return w.addBool(value.asBool());
    case PlistValue::Kind::kDate: return w.addDate(value.asDate().sinceReferenceDate);
    case PlistValue::Kind::kData: return w.addData(value.asData());
    case PlistValue::Kind::kArray:
    case PlistValue::Kind::kSet: {
      const auto& items = value.isArray() ? value.asArray() : value.asSet().members;
      std::vector<bplist::Writer::Ref> refs;
      refs.reserve(items.size());
      for (const auto& item : items) refs.push_back(writePlain(w, item));
      return w.addArray(refs);
    }
    case PlistValue::Kind::kDictionary:
    case PlistValue::Kind::kUnknownObject: {
      if (auto uid = markerUid(value, "$uid")) return w.addUid(*uid);
      const auto& dict = value.isDictionary() ? value.asDictionary() : value.asUnknownObject().fields;
      std::vector<bplist::Writer::Ref> keys, values;
      for (size_t i = 0; i < dict.size(); ++i) {
        keys.push_back(w.addSharedString(dict.keys()[i]));
        values.push_back(writePlain(w, dict.values()[i]));
      }
      return w.addDictionary(keys, values);
    }
  }
  return w.addDictionary({}, {});
}

}  // namespace

PlistValue nilReferenceMarker() { return marker("$null", std::nullopt); }

bool isNilReferenceMarker(const PlistValue& value) {
  return value.isUnknownObject() && value.asUnknownObject().classChain.size() == 1 &&
         value.asUnknownObject().classChain.front() == "$null";
}

PlistValue cycleMarker(uint64_t uid) { return marker("$cycle", uid); }
PlistValue uidMarker(uint64_t uid) { return marker("$uid", uid); }

std::optional<uint64_t> markerUid(const PlistValue& value, std::string_view className) {
  if (!value.isUnknownObject()) return std::nullopt;
  const auto& object = value.asUnknownObject();
  if (object.classChain.size() != 1 || object.classChain.front() != className) return std::nullopt;
  const PlistValue* uid = object.fields.find("uid");
  if (uid == nullptr || !uid->isInteger()) return std::nullopt;
  return uid->asUInt64();
}

std::optional<PlistValue> readBinaryPropertyList(std::span<const uint8_t> bytes, ErrorOut error,
                                                 const KeyedArchiveLimits& limits) {
  auto reader = Reader::open(bytes, error);
  if (!reader) return std::nullopt;
  PlainReader plain(*reader, limits);
  PlistValue out;
  if (!plain.read(reader->topObject(), out, error)) return std::nullopt;
  return out;
}

Bytes writeBinaryPropertyList(const PlistValue& value) {
  bplist::Writer w;
  const auto top = writePlain(w, value);
  return w.finish(top);
}

}  // namespace wdc
