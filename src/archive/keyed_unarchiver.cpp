// Reads NSKeyedArchiver archives straight from the binary plist view, without building an
// intermediate tree. The archive is a dictionary {$archiver, $version, $top, $objects}; $objects
// is addressed by UID; an object is a dictionary whose $class UID names a class description
// {$classname, $classes}. Foundation classes map onto payload values; other classes are kept as
// unknown objects. See include/webdavconnect/keyed_archive.h for the mapping.
//
// Guards: every UID is checked against $objects; the UIDs on the current decoding path are
// marked, and one met again yields a cycle marker instead of recursing; depth is limited; the
// decoded size is charged against a budget so shared references cannot expand without bound.
#include <fmt/format.h>

#include <string>
#include <unordered_map>
#include <vector>

#include "archive/bplist_reader.h"
#include "archive/decode_budget.h"
#include "webdavconnect/keyed_archive.h"

namespace wdc {
namespace {

using bplist::ObjectRef;
using bplist::Reader;
using bplist::Type;

constexpr int64_t kArchiveVersion = 100000;

bool fail(ErrorOut error, std::string_view what, std::string_view where = {}) {
  setError(error, Error::corruption(fmt::format("keyed archive: {}", what), where));
  return false;
}

// How a class is decoded, from its $classname.
enum class ClassKind { kDictionary, kArray, kSet, kString, kData, kDate, kNull, kOther };

ClassKind classKindOf(std::string_view name) {
  if (name == "NSDictionary" || name == "NSMutableDictionary") return ClassKind::kDictionary;
  if (name == "NSArray" || name == "NSMutableArray") return ClassKind::kArray;
  if (name == "NSSet" || name == "NSMutableSet") return ClassKind::kSet;
  if (name == "NSString" || name == "NSMutableString") return ClassKind::kString;
  if (name == "NSData" || name == "NSMutableData") return ClassKind::kData;
  if (name == "NSDate") return ClassKind::kDate;
  if (name == "NSNull") return ClassKind::kNull;
  return ClassKind::kOther;
}

struct ClassInfo {
  ClassKind kind = ClassKind::kOther;
  std::vector<std::string> chain;  // $classes, or just $classname when $classes is absent
};

class Unarchiver {
 public:
  Unarchiver(const Reader& reader, const KeyedArchiveLimits& limits)
      : r_(reader), limits_(limits), budget_(limits, reader.size()) {}

  std::optional<PlistDictionary> run(ErrorOut error);

 private:
  bool decodeUid(uint64_t uid, PlistValue& out, ErrorOut error);
  bool decodeObject(uint64_t uid, const ObjectRef& dict, PlistValue& out, ErrorOut error);
  // A value inside an object dictionary or $top: a UID is followed, an array of UIDs becomes an
  // array, scalars stand for themselves.
  bool decodeField(uint64_t ref, PlistValue& out, ErrorOut error);
  bool decodeScalar(const ObjectRef& object, PlistValue& out, ErrorOut error);
  // The elements of a bplist array of UIDs (collection contents: nil is not allowed).
  bool decodeUidList(uint64_t arrayRef, PlistValue::Array& out, ErrorOut error);
  bool classInfo(uint64_t uid, const ClassInfo*& out, ErrorOut error);
  bool readString(uint64_t ref, std::string& out, ErrorOut error);

  const Reader& r_;
  const KeyedArchiveLimits& limits_;
  bplist::DecodeBudget budget_;
  ObjectRef objects_;
  std::vector<bool> onPath_;
  size_t depth_ = 0;
  std::unordered_map<uint64_t, ClassInfo> classes_;
};

std::optional<PlistDictionary> Unarchiver::run(ErrorOut error) {
  ObjectRef root;
  if (!r_.object(r_.topObject(), root, error)) return std::nullopt;
  if (root.type != Type::kDictionary) {
    fail(error, "top object is not a dictionary");
    return std::nullopt;
  }
  std::optional<uint64_t> archiver, version, top, objects;
  for (uint64_t i = 0; i < root.count; ++i) {
    uint64_t keyRef, valueRef;
    ObjectRef key;
    if (!r_.reference(root, i, keyRef, error) || !r_.reference(root, root.count + i, valueRef, error) ||
        !r_.object(keyRef, key, error)) {
      return std::nullopt;
    }
    if (r_.asciiEquals(key, "$archiver")) archiver = valueRef;
    else if (r_.asciiEquals(key, "$version")) version = valueRef;
    else if (r_.asciiEquals(key, "$top")) top = valueRef;
    else if (r_.asciiEquals(key, "$objects")) objects = valueRef;
  }
  if (!archiver || !version || !top || !objects) {
    fail(error, "missing $archiver, $version, $top or $objects");
    return std::nullopt;
  }
  std::string archiverName;
  if (!readString(*archiver, archiverName, error)) return std::nullopt;
  if (archiverName != "NSKeyedArchiver") {
    fail(error, fmt::format("$archiver is \"{}\", not NSKeyedArchiver", archiverName));
    return std::nullopt;
  }
  ObjectRef versionObject;
  bplist::Integer versionValue;
  if (!r_.object(*version, versionObject, error)) return std::nullopt;
  if (versionObject.type != Type::kInteger || !r_.integer(versionObject, versionValue, error) ||
      versionValue.isUnsigned || static_cast<int64_t>(versionValue.bits) != kArchiveVersion) {
    fail(error, versionObject.type == Type::kInteger
                    ? fmt::format("$version is {}, not {}", static_cast<int64_t>(versionValue.bits),
                                  kArchiveVersion)
                    : "$version is not an integer");
    return std::nullopt;
  }
  if (!r_.object(*objects, objects_, error)) return std::nullopt;
  if (objects_.type != Type::kArray || objects_.count == 0) {
    fail(error, "$objects is not a non-empty array");
    return std::nullopt;
  }
  uint64_t nullRef;
  std::string nullName;
  if (!r_.reference(objects_, 0, nullRef, error) || !readString(nullRef, nullName, error)) {
    return std::nullopt;
  }
  if (nullName != "$null") {
    fail(error, "$objects does not start with $null");
    return std::nullopt;
  }
  onPath_.assign(objects_.count, false);

  ObjectRef topDict;
  if (!r_.object(*top, topDict, error)) return std::nullopt;
  if (topDict.type != Type::kDictionary) {
    fail(error, "$top is not a dictionary");
    return std::nullopt;
  }
  PlistDictionary result;
  for (uint64_t i = 0; i < topDict.count; ++i) {
    uint64_t keyRef, valueRef;
    std::string key;
    PlistValue value;
    if (!r_.reference(topDict, i, keyRef, error) ||
        !r_.reference(topDict, topDict.count + i, valueRef, error) ||
        !readString(keyRef, key, error) || !decodeField(valueRef, value, error)) {
      return std::nullopt;
    }
    result.set(std::move(key), std::move(value));
  }
  return result;
}

bool Unarchiver::readString(uint64_t ref, std::string& out, ErrorOut error) {
  ObjectRef object;
  if (!r_.object(ref, object, error)) return false;
  if (object.type != Type::kAsciiString && object.type != Type::kUtf16String) {
    return fail(error, "expected a string", fmt::format("object {}", ref));
  }
  return r_.string(object, out, error);
}

bool Unarchiver::decodeScalar(const ObjectRef& object, PlistValue& out, ErrorOut error) {
  switch (object.type) {
    case Type::kAsciiString:
    case Type::kUtf16String: {
      std::string text;
      if (!r_.string(object, text, error) || !budget_.charge(text.size(), error)) return false;
      out = PlistValue(std::move(text));
      return true;
    }
    case Type::kInteger: {
      bplist::Integer value;
      if (!r_.integer(object, value, error)) return false;
      out = value.isUnsigned ? PlistValue(static_cast<unsigned long long>(value.bits))
                             : PlistValue(static_cast<long long>(value.bits));
      return budget_.charge(0, error);
    }
    case Type::kReal:
      out = PlistValue(r_.real(object));
      return budget_.charge(0, error);
    case Type::kDate:
      out = PlistValue(Date{r_.real(object)});
      return budget_.charge(0, error);
    case Type::kBool:
      out = PlistValue(object.boolean);
      return budget_.charge(0, error);
    case Type::kData: {
      auto bytes = r_.data(object);
      if (!budget_.charge(bytes.size(), error)) return false;
      out = PlistValue(Bytes(bytes.begin(), bytes.end()));
      return true;
    }
    case Type::kNull:
      out = PlistValue();
      return budget_.charge(0, error);
    default:
      return fail(error, "unexpected container", fmt::format("object {}", object.index));
  }
}

bool Unarchiver::decodeField(uint64_t ref, PlistValue& out, ErrorOut error) {
  ObjectRef object;
  if (!r_.object(ref, object, error)) return false;
  if (object.type == Type::kUid) return decodeUid(r_.uid(object), out, error);
  if (object.type == Type::kArray) {
    if (++depth_ > limits_.maxDepth) return fail(error, "nesting too deep");
    PlistValue::Array items;
    for (uint64_t i = 0; i < object.count; ++i) {
      uint64_t itemRef;
      ObjectRef item;
      PlistValue value;
      if (!r_.reference(object, i, itemRef, error) || !r_.object(itemRef, item, error)) return false;
      if (item.type == Type::kUid) {
        if (!decodeUid(r_.uid(item), value, error)) return false;
      } else if (!decodeScalar(item, value, error)) {
        return false;
      }
      items.push_back(std::move(value));
    }
    --depth_;
    out = PlistValue(std::move(items));
    return budget_.charge(0, error);
  }
  return decodeScalar(object, out, error);
}

bool Unarchiver::decodeUidList(uint64_t arrayRef, PlistValue::Array& out, ErrorOut error) {
  ObjectRef array;
  if (!r_.object(arrayRef, array, error)) return false;
  if (array.type != Type::kArray) return fail(error, "collection contents are not an array");
  out.reserve(std::min<uint64_t>(array.count, 4096));
  for (uint64_t i = 0; i < array.count; ++i) {
    uint64_t itemRef;
    ObjectRef item;
    if (!r_.reference(array, i, itemRef, error) || !r_.object(itemRef, item, error)) return false;
    if (item.type != Type::kUid) return fail(error, "collection element is not a UID");
    const uint64_t uid = r_.uid(item);
    if (uid == 0) return fail(error, "nil inside a collection", fmt::format("object {}", arrayRef));
    PlistValue value;
    if (!decodeUid(uid, value, error)) return false;
    out.push_back(std::move(value));
  }
  return true;
}

bool Unarchiver::decodeUid(uint64_t uid, PlistValue& out, ErrorOut error) {
  if (uid == 0) {
    out = nilReferenceMarker();
    return budget_.charge(0, error);
  }
  if (uid >= objects_.count) {
    return fail(error, fmt::format("object reference {} out of range ({} objects)", uid,
                                   objects_.count));
  }
  if (onPath_[uid]) {
    out = cycleMarker(uid);
    return budget_.charge(0, error);
  }
  uint64_t ref;
  ObjectRef object;
  if (!r_.reference(objects_, uid, ref, error) || !r_.object(ref, object, error)) return false;
  if (object.type == Type::kDictionary) {
    if (++depth_ > limits_.maxDepth) return fail(error, "nesting too deep");
    onPath_[uid] = true;
    const bool ok = decodeObject(uid, object, out, error);
    onPath_[uid] = false;
    --depth_;
    return ok;
  }
  if (object.type == Type::kUid || object.type == Type::kArray || object.type == Type::kSet) {
    return fail(error, "object is a bare UID, array or set", fmt::format("UID {}", uid));
  }
  return decodeScalar(object, out, error);
}

bool Unarchiver::classInfo(uint64_t uid, const ClassInfo*& out, ErrorOut error) {
  if (auto it = classes_.find(uid); it != classes_.end()) {
    out = &it->second;
    return true;
  }
  if (uid == 0 || uid >= objects_.count) {
    return fail(error, fmt::format("$class reference {} out of range", uid));
  }
  uint64_t ref;
  ObjectRef dict;
  if (!r_.reference(objects_, uid, ref, error) || !r_.object(ref, dict, error)) return false;
  if (dict.type != Type::kDictionary) return fail(error, "$class is not a class description");
  std::optional<uint64_t> nameRef, chainRef;
  for (uint64_t i = 0; i < dict.count; ++i) {
    uint64_t keyRef, valueRef;
    ObjectRef key;
    if (!r_.reference(dict, i, keyRef, error) || !r_.reference(dict, dict.count + i, valueRef, error) ||
        !r_.object(keyRef, key, error)) {
      return false;
    }
    if (r_.asciiEquals(key, "$classname")) nameRef = valueRef;
    else if (r_.asciiEquals(key, "$classes")) chainRef = valueRef;
  }
  if (!nameRef) return fail(error, "class description without $classname", fmt::format("UID {}", uid));
  ClassInfo info;
  std::string name;
  if (!readString(*nameRef, name, error)) return false;
  if (chainRef) {
    ObjectRef chain;
    if (!r_.object(*chainRef, chain, error)) return false;
    if (chain.type != Type::kArray) return fail(error, "$classes is not an array");
    for (uint64_t i = 0; i < chain.count; ++i) {
      uint64_t itemRef;
      std::string className;
      if (!r_.reference(chain, i, itemRef, error) || !readString(itemRef, className, error) ||
          !budget_.charge(className.size(), error)) {
        return false;
      }
      info.chain.push_back(std::move(className));
    }
  }
  if (info.chain.empty() || info.chain.front() != name) info.chain.insert(info.chain.begin(), name);
  info.kind = classKindOf(name);
  out = &classes_.emplace(uid, std::move(info)).first->second;
  return true;
}

bool Unarchiver::decodeObject(uint64_t uid, const ObjectRef& dict, PlistValue& out,
                              ErrorOut error) {
  // Scanning the keys is work done at every use of a shared object: charge it, or one object
  // with many junk keys referenced many times would cost time the value budget never sees.
  if (!budget_.charge(dict.count * 16, error)) return false;
  // One pass over the keys finds $class and the Foundation keys; everything else is a field.
  std::optional<uint64_t> classRef, keysRef, objectsRef, timeRef, stringRef, bytesRef, dataRef;
  for (uint64_t i = 0; i < dict.count; ++i) {
    uint64_t keyRef, valueRef;
    ObjectRef key;
    if (!r_.reference(dict, i, keyRef, error) || !r_.reference(dict, dict.count + i, valueRef, error) ||
        !r_.object(keyRef, key, error)) {
      return false;
    }
    if (key.type != Type::kAsciiString) continue;
    if (r_.asciiEquals(key, "$class")) classRef = valueRef;
    else if (r_.asciiEquals(key, "NS.keys")) keysRef = valueRef;
    else if (r_.asciiEquals(key, "NS.objects")) objectsRef = valueRef;
    else if (r_.asciiEquals(key, "NS.time")) timeRef = valueRef;
    else if (r_.asciiEquals(key, "NS.string")) stringRef = valueRef;
    else if (r_.asciiEquals(key, "NS.bytes")) bytesRef = valueRef;
    else if (r_.asciiEquals(key, "NS.data")) dataRef = valueRef;
  }
  const std::string where = fmt::format("UID {}", uid);
  if (!classRef) return fail(error, "object dictionary has no $class reference", where);
  ObjectRef classUid;
  if (!r_.object(*classRef, classUid, error)) return false;
  if (classUid.type != Type::kUid) return fail(error, "$class is not a UID", where);
  const ClassInfo* info = nullptr;
  if (!classInfo(r_.uid(classUid), info, error)) return false;
  if (!budget_.charge(0, error)) return false;

  switch (info->kind) {
    case ClassKind::kArray:
    case ClassKind::kSet: {
      PlistValue::Array items;
      if (objectsRef && !decodeUidList(*objectsRef, items, error)) return false;
      if (!objectsRef) break;  // per-element keys: kept as a generic object below
      if (info->kind == ClassKind::kArray) out = PlistValue(std::move(items));
      else out = PlistValue(PlistSet{std::move(items)});
      return true;
    }
    case ClassKind::kDictionary: {
      if (!keysRef || !objectsRef) break;  // NS.key.i / NS.object.i form: generic below
      PlistValue::Array keys, values;
      if (!decodeUidList(*keysRef, keys, error) || !decodeUidList(*objectsRef, values, error)) {
        return false;
      }
      if (keys.size() != values.size()) {
        return fail(error, "NS.keys and NS.objects differ in length", where);
      }
      bool allStrings = true;
      for (const auto& key : keys) allStrings = allStrings && key.isString();
      if (allStrings) {
        PlistDictionary result;
        for (size_t i = 0; i < keys.size(); ++i) {
          result.set(keys[i].asString(), std::move(values[i]));
        }
        out = PlistValue(std::move(result));
      } else {
        PlistUnknownObject object{info->chain, {}};
        object.fields.set("NS.keys", PlistValue(std::move(keys)));
        object.fields.set("NS.objects", PlistValue(std::move(values)));
        out = PlistValue(std::move(object));
      }
      return true;
    }
    case ClassKind::kString: {
      PlistValue text;
      if (stringRef) {
        if (!decodeField(*stringRef, text, error)) return false;
        if (!text.isString()) return fail(error, "NS.string is not a string", where);
      } else if (bytesRef) {
        if (!decodeField(*bytesRef, text, error)) return false;
        if (!text.isData()) return fail(error, "NS.bytes is not data", where);
        text = PlistValue(std::string(text.asData().begin(), text.asData().end()));
      } else {
        return fail(error, "string object without NS.string", where);
      }
      out = std::move(text);
      return true;
    }
    case ClassKind::kData: {
      if (!dataRef) return fail(error, "data object without NS.data", where);
      if (!decodeField(*dataRef, out, error)) return false;
      if (!out.isData()) return fail(error, "NS.data is not data", where);
      return true;
    }
    case ClassKind::kDate: {
      PlistValue time;
      if (!timeRef || !decodeField(*timeRef, time, error)) {
        return timeRef ? false : fail(error, "date without NS.time", where);
      }
      if (!time.isReal() && !time.isInteger()) return fail(error, "NS.time is not a number", where);
      out = PlistValue(Date{time.asDouble()});
      return true;
    }
    case ClassKind::kNull:
      out = PlistValue();
      return true;
    case ClassKind::kOther:
      break;
  }

  // Any other class, or a Foundation collection in a form kept as it came: class chain and
  // every field except $class, keys as stored.
  PlistUnknownObject object{info->chain, {}};
  for (uint64_t i = 0; i < dict.count; ++i) {
    uint64_t keyRef, valueRef;
    std::string key;
    PlistValue value;
    if (!r_.reference(dict, i, keyRef, error) || !r_.reference(dict, dict.count + i, valueRef, error) ||
        !readString(keyRef, key, error)) {
      return false;
    }
    if (key == "$class") continue;
    if (!budget_.charge(key.size(), error) || !decodeField(valueRef, value, error)) return false;
    object.fields.set(std::move(key), std::move(value));
  }
  out = PlistValue(std::move(object));
  return true;
}

}  // namespace

std::optional<PlistDictionary> unarchiveTopLevelObjects(std::span<const uint8_t> archive,
                                                        ErrorOut error,
                                                        const KeyedArchiveLimits& limits) {
  auto reader = Reader::open(archive, error);
  if (!reader) return std::nullopt;
  Unarchiver unarchiver(*reader, limits);
  return unarchiver.run(error);
}

}  // namespace wdc
