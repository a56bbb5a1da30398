// The payload value type: what the host puts in a record's payload dictionary and what the
// stored payload format round-trips. A PlistValue is one of null, string, integer (signed, or
// unsigned above INT64_MAX), real, boolean, date, data, array, set, string-keyed dictionary
// (keeps insertion order) and an object of a class this library does not know (its class chain
// and its keyed fields, kept so it can be written back as it came).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

#include "webdavconnect/date.h"

namespace wdc {

using Bytes = std::vector<uint8_t>;

class PlistValue;

// An insertion-ordered, string-keyed dictionary with O(1) lookup. Setting an existing key
// replaces its value in place (the key keeps its position). Thread-compatible.
class PlistDictionary {
 public:
  PlistDictionary();
  PlistDictionary(std::initializer_list<std::pair<std::string, PlistValue>> entries);
  PlistDictionary(const PlistDictionary&);
  PlistDictionary(PlistDictionary&&) noexcept;
  PlistDictionary& operator=(const PlistDictionary&);
  PlistDictionary& operator=(PlistDictionary&&) noexcept;
  ~PlistDictionary();

  [[nodiscard]] size_t size() const { return keys_.size(); }
  [[nodiscard]] bool empty() const { return keys_.empty(); }
  [[nodiscard]] bool contains(std::string_view key) const;
  // The value under `key`, or nullptr.
  [[nodiscard]] const PlistValue* find(std::string_view key) const;
  [[nodiscard]] PlistValue* find(std::string_view key);
  void set(std::string key, PlistValue value);
  // Removes `key`; later keys keep their order. Returns false when it was not there.
  bool erase(std::string_view key);
  void clear();

  // Keys and values in insertion order; keys()[i] goes with values()[i].
  [[nodiscard]] const std::vector<std::string>& keys() const { return keys_; }
  [[nodiscard]] const std::vector<PlistValue>& values() const { return values_; }

  bool operator==(const PlistDictionary& other) const;  // same keys, same order, equal values

 private:
  void reindex();

  std::vector<std::string> keys_;
  std::vector<PlistValue> values_;
  std::unordered_map<std::string, size_t> index_;
};

struct PlistNull {
  bool operator==(const PlistNull&) const = default;
};

// An unordered collection (NSSet). Members are kept in the order they were read or added.
struct PlistSet {
  std::vector<PlistValue> members;
  bool operator==(const PlistSet&) const;
};

// An archived object whose class this library does not model. `classChain` is the class name
// first, then its superclasses (e.g. {"TDTask", "NSObject"}); `fields` are its keyed values.
struct PlistUnknownObject {
  std::vector<std::string> classChain;
  PlistDictionary fields;
  bool operator==(const PlistUnknownObject&) const;
};

// One payload value. A value type: copies are deep. Thread-compatible.
class PlistValue {
 public:
  enum class Kind {
    kNull, kString, kInteger, kUnsignedInteger, kReal, kBoolean, kDate, kData,
    kArray, kSet, kDictionary, kUnknownObject
  };
  using Array = std::vector<PlistValue>;

  PlistValue() : v_(PlistNull{}) {}
  PlistValue(std::nullptr_t) : v_(PlistNull{}) {}
  PlistValue(std::string s) : v_(std::move(s)) {}
  PlistValue(const char* s) : v_(std::string(s)) {}
  PlistValue(std::string_view s) : v_(std::string(s)) {}
  PlistValue(int i) : v_(static_cast<int64_t>(i)) {}
  PlistValue(long i) : v_(static_cast<int64_t>(i)) {}
  PlistValue(long long i) : v_(static_cast<int64_t>(i)) {}
  // Values that fit in int64_t are stored as signed integers; larger ones as unsigned.
  PlistValue(unsigned long long u);
  PlistValue(unsigned long u) : PlistValue(static_cast<unsigned long long>(u)) {}
  PlistValue(unsigned u) : v_(static_cast<int64_t>(u)) {}
  PlistValue(double d) : v_(d) {}
  PlistValue(bool b) : v_(b) {}
  PlistValue(Date d) : v_(d) {}
  PlistValue(Bytes data) : v_(std::move(data)) {}
  PlistValue(Array array) : v_(std::move(array)) {}
  PlistValue(PlistSet set) : v_(std::move(set)) {}
  PlistValue(PlistDictionary dict) : v_(std::move(dict)) {}
  PlistValue(PlistUnknownObject object) : v_(std::move(object)) {}

  [[nodiscard]] Kind kind() const { return static_cast<Kind>(v_.index()); }
  [[nodiscard]] bool isNull() const { return kind() == Kind::kNull; }
  [[nodiscard]] bool isString() const { return kind() == Kind::kString; }
  // True for both signed and unsigned integers.
  [[nodiscard]] bool isInteger() const {
    return kind() == Kind::kInteger || kind() == Kind::kUnsignedInteger;
  }
  [[nodiscard]] bool isReal() const { return kind() == Kind::kReal; }
  [[nodiscard]] bool isBoolean() const { return kind() == Kind::kBoolean; }
  // Integers, reals and booleans: what the platform calls a number.
  [[nodiscard]] bool isNumber() const { return isInteger() || isReal() || isBoolean(); }
  [[nodiscard]] bool isDate() const { return kind() == Kind::kDate; }
  [[nodiscard]] bool isData() const { return kind() == Kind::kData; }
  [[nodiscard]] bool isArray() const { return kind() == Kind::kArray; }
  [[nodiscard]] bool isSet() const { return kind() == Kind::kSet; }
  [[nodiscard]] bool isDictionary() const { return kind() == Kind::kDictionary; }
  [[nodiscard]] bool isUnknownObject() const { return kind() == Kind::kUnknownObject; }

  // Typed access. REQUIRES: the matching is*() is true (checked: a mismatch throws
  // std::bad_variant_access, a programming error).
  [[nodiscard]] const std::string& asString() const { return std::get<std::string>(v_); }
  [[nodiscard]] int64_t asInt64() const;     // integers (unsigned wrap), reals truncated, bools
  [[nodiscard]] uint64_t asUInt64() const;   // integers reinterpreted as unsigned, reals, bools
  [[nodiscard]] double asDouble() const;     // any number
  [[nodiscard]] bool asBool() const;         // any number: non-zero is true
  [[nodiscard]] Date asDate() const { return std::get<Date>(v_); }
  [[nodiscard]] const Bytes& asData() const { return std::get<Bytes>(v_); }
  [[nodiscard]] const Array& asArray() const { return std::get<Array>(v_); }
  [[nodiscard]] Array& asArray() { return std::get<Array>(v_); }
  [[nodiscard]] const PlistSet& asSet() const { return std::get<PlistSet>(v_); }
  [[nodiscard]] const PlistDictionary& asDictionary() const {
    return std::get<PlistDictionary>(v_);
  }
  [[nodiscard]] PlistDictionary& asDictionary() { return std::get<PlistDictionary>(v_); }
  [[nodiscard]] const PlistUnknownObject& asUnknownObject() const {
    return std::get<PlistUnknownObject>(v_);
  }

  // Typed look-ups that answer nullopt / nullptr instead of throwing.
  [[nodiscard]] const std::string* stringIf() const { return std::get_if<std::string>(&v_); }
  [[nodiscard]] const PlistDictionary* dictionaryIf() const {
    return std::get_if<PlistDictionary>(&v_);
  }

  // Deep equality; a signed and an unsigned integer are equal when their values are.
  bool operator==(const PlistValue& other) const;

 private:
  std::variant<PlistNull, std::string, int64_t, uint64_t, double, bool, Date, Bytes, Array,
               PlistSet, PlistDictionary, PlistUnknownObject>
      v_;
};

}  // namespace wdc
