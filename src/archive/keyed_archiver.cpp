// Writes NSKeyedArchiver archives. UIDs are handed out as Apple's archiver does: an object gets
// its UID when first met, before its contents, and a class description when its class is first
// finished with. Strings, numbers and data are plain values in $objects; everything else is an
// object dictionary with a $class. Field values of unknown objects that are numbers, booleans
// or data are stored inline (as encodeInt/encodeBool/encodeBytes would), anything else by UID.
// Equal strings share one UID, as Apple's archiver shares one string object used in several
// places: record keys repeat in every dictionary, and the smaller archive deflates faster.
#include <string>
#include <unordered_map>
#include <vector>

#include "archive/bplist_writer.h"
#include "webdavconnect/keyed_archive.h"

namespace wdc {
namespace {

using bplist::Writer;
using Ref = Writer::Ref;

class Archiver {
 public:
  explicit Archiver(bool mutableTopDictionaries) : mutableTop_(mutableTopDictionaries) {
    objects_.push_back(w_.addString("$null"));
  }

  Bytes run(const PlistDictionary& topLevel);

 private:
  // Archives `value` and returns its UID (0 for nil and for markers that have no object).
  uint64_t encode(const PlistValue& value, bool mutableDictionary = false);
  // A field of an object dictionary: inline scalar, inline list of UIDs, or a UID.
  Ref fieldRef(std::string_view key, const PlistValue& value);
  uint64_t classUid(const std::vector<std::string>& chain);
  uint64_t reserveUid();
  uint64_t objectWithClass(uint64_t uid, const std::vector<std::string>& chain,
                           std::vector<Ref> keys, std::vector<Ref> values);
  Ref uidList(const PlistValue::Array& items);

  Writer w_;
  bool mutableTop_;
  std::vector<Ref> objects_;  // $objects by UID
  std::unordered_map<std::string, uint64_t> classes_;
  // Views into the strings of the value being archived, which outlives the Archiver.
  std::unordered_map<std::string_view, uint64_t> strings_;
  uint64_t stringUid(std::string_view text);
};

uint64_t Archiver::stringUid(std::string_view text) {
  auto [it, inserted] = strings_.try_emplace(text, objects_.size());
  if (inserted) objects_.push_back(w_.addString(text));
  return it->second;
}

const std::vector<std::string>& chainFor(std::string_view name) {
  static const std::unordered_map<std::string_view, std::vector<std::string>> kChains = {
      {"NSArray", {"NSArray", "NSObject"}},
      {"NSSet", {"NSSet", "NSObject"}},
      {"NSDictionary", {"NSDictionary", "NSObject"}},
      {"NSMutableDictionary", {"NSMutableDictionary", "NSDictionary", "NSObject"}},
      {"NSDate", {"NSDate", "NSObject"}},
      {"NSNull", {"NSNull", "NSObject"}},
  };
  return kChains.at(name);
}

uint64_t Archiver::reserveUid() {
  objects_.push_back(0);
  return objects_.size() - 1;
}

uint64_t Archiver::classUid(const std::vector<std::string>& chain) {
  const std::string& name = chain.empty() ? std::string("NSObject") : chain.front();
  if (auto it = classes_.find(name); it != classes_.end()) return it->second;
  std::vector<Ref> names;
  for (const auto& className : chain) names.push_back(w_.addSharedString(className));
  const Ref keys[] = {w_.addSharedString("$classname"), w_.addSharedString("$classes")};
  const Ref values[] = {w_.addSharedString(name), w_.addArray(names)};
  const uint64_t uid = objects_.size();
  objects_.push_back(w_.addDictionary(keys, values));
  classes_.emplace(name, uid);
  return uid;
}

uint64_t Archiver::objectWithClass(uint64_t uid, const std::vector<std::string>& chain,
                                   std::vector<Ref> keys, std::vector<Ref> values) {
  keys.insert(keys.begin(), w_.addSharedString("$class"));
  values.insert(values.begin(), w_.addUid(classUid(chain)));
  objects_[uid] = w_.addDictionary(keys, values);
  return uid;
}

Ref Archiver::uidList(const PlistValue::Array& items) {
  std::vector<Ref> refs;
  refs.reserve(items.size());
  for (const auto& item : items) refs.push_back(w_.addUid(encode(item)));
  return w_.addArray(refs);
}

Ref Archiver::fieldRef(std::string_view key, const PlistValue& value) {
  switch (value.kind()) {
    case PlistValue::Kind::kInteger: return w_.addInteger(value.asInt64());
    case PlistValue::Kind::kUnsignedInteger: return w_.addUnsigned(value.asUInt64());
    case PlistValue::Kind::kReal: return w_.addReal(value.asDouble());
    case PlistValue::Kind::kBoolean: return w_.addBool(value.asBool());
    case PlistValue::Kind::kData: return w_.addData(value.asData());
    case PlistValue::Kind::kArray:
      // Foundation's own collection keys hold the list of member UIDs inline.
      if (key == "NS.keys" || key == "NS.objects") return uidList(value.asArray());
      return w_.addUid(encode(value));
    default:
      return w_.addUid(encode(value));
  }
}

uint64_t Archiver::encode(const PlistValue& value, bool mutableDictionary) {
  switch (value.kind()) {
    case PlistValue::Kind::kString:
      return stringUid(value.asString());
    case PlistValue::Kind::kInteger:
    case PlistValue::Kind::kUnsignedInteger:
    case PlistValue::Kind::kReal:
    case PlistValue::Kind::kBoolean:
    case PlistValue::Kind::kData: {
      objects_.push_back(fieldRef({}, value));
      return objects_.size() - 1;
    }
    case PlistValue::Kind::kNull: {
      const uint64_t uid = reserveUid();
      return objectWithClass(uid, chainFor("NSNull"), {}, {});
    }
    case PlistValue::Kind::kDate: {
      const uint64_t uid = reserveUid();
      return objectWithClass(uid, chainFor("NSDate"), {w_.addSharedString("NS.time")},
                             {w_.addReal(value.asDate().sinceReferenceDate)});
    }
    case PlistValue::Kind::kArray:
    case PlistValue::Kind::kSet: {
      const uint64_t uid = reserveUid();
      const auto& items = value.isArray() ? value.asArray() : value.asSet().members;
      const Ref list = uidList(items);
      return objectWithClass(uid, chainFor(value.isArray() ? "NSArray" : "NSSet"),
                             {w_.addSharedString("NS.objects")}, {list});
    }
    case PlistValue::Kind::kDictionary: {
      const uint64_t uid = reserveUid();
      const auto& dict = value.asDictionary();
      // Keys first, then values, as Apple's archiver walks a dictionary.
      std::vector<Ref> keyUids, valueUids;
      keyUids.reserve(dict.size());
      valueUids.reserve(dict.size());
      for (const auto& key : dict.keys()) keyUids.push_back(w_.addUid(stringUid(key)));
      for (const auto& item : dict.values()) valueUids.push_back(w_.addUid(encode(item)));
      const Ref keys = w_.addArray(keyUids);
      const Ref values = w_.addArray(valueUids);
      return objectWithClass(uid, chainFor(mutableDictionary ? "NSMutableDictionary" : "NSDictionary"),
                             {w_.addSharedString("NS.keys"), w_.addSharedString("NS.objects")},
                             {keys, values});
    }
    case PlistValue::Kind::kUnknownObject: {
      const auto& object = value.asUnknownObject();
      // Nil, and markers that stand for a reference this writer cannot rebuild, are nil.
      if (!object.classChain.empty() && object.classChain.front().starts_with('$')) return 0;
      const uint64_t uid = reserveUid();
      std::vector<Ref> keys, values;
      for (size_t i = 0; i < object.fields.size(); ++i) {
        const std::string& key = object.fields.keys()[i];
        if (key == "$class") continue;
        keys.push_back(w_.addSharedString(key));
        values.push_back(fieldRef(key, object.fields.values()[i]));
      }
      return objectWithClass(uid, object.classChain, std::move(keys), std::move(values));
    }
  }
  return 0;
}

Bytes Archiver::run(const PlistDictionary& topLevel) {
  std::vector<Ref> topKeys, topValues;
  for (size_t i = 0; i < topLevel.size(); ++i) {
    const PlistValue& value = topLevel.values()[i];
    topKeys.push_back(w_.addSharedString(topLevel.keys()[i]));
    topValues.push_back(w_.addUid(encode(value, mutableTop_ && value.isDictionary())));
  }
  const Ref keys[] = {w_.addSharedString("$version"), w_.addSharedString("$archiver"),
                      w_.addSharedString("$top"), w_.addSharedString("$objects")};
  const Ref values[] = {w_.addInteger(100000), w_.addSharedString("NSKeyedArchiver"),
                        w_.addDictionary(topKeys, topValues), w_.addArray(objects_)};
  return w_.finish(w_.addDictionary(keys, values));
}

}  // namespace

Bytes archiveTopLevelObjects(const PlistDictionary& topLevel, bool mutableTopDictionaries) {
  Archiver archiver(mutableTopDictionaries);
  return archiver.run(topLevel);
}

}  // namespace wdc
