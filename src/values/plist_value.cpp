#include "webdavconnect/plist_value.h"

#include <limits>

namespace wdc {

PlistDictionary::PlistDictionary() = default;
PlistDictionary::PlistDictionary(std::initializer_list<std::pair<std::string, PlistValue>> entries) {
  for (const auto& [key, value] : entries) set(key, value);
}
PlistDictionary::PlistDictionary(const PlistDictionary&) = default;
PlistDictionary::PlistDictionary(PlistDictionary&&) noexcept = default;
PlistDictionary& PlistDictionary::operator=(const PlistDictionary&) = default;
PlistDictionary& PlistDictionary::operator=(PlistDictionary&&) noexcept = default;
PlistDictionary::~PlistDictionary() = default;

bool PlistDictionary::contains(std::string_view key) const { return find(key) != nullptr; }

const PlistValue* PlistDictionary::find(std::string_view key) const {
  auto it = index_.find(std::string(key));
  return it == index_.end() ? nullptr : &values_[it->second];
}

PlistValue* PlistDictionary::find(std::string_view key) {
  auto it = index_.find(std::string(key));
  return it == index_.end() ? nullptr : &values_[it->second];
}

void PlistDictionary::set(std::string key, PlistValue value) {
  auto it = index_.find(key);
  if (it != index_.end()) {
    values_[it->second] = std::move(value);
    return;
  }
  index_.emplace(key, keys_.size());
  keys_.push_back(std::move(key));
  values_.push_back(std::move(value));
}

bool PlistDictionary::erase(std::string_view key) {
  auto it = index_.find(std::string(key));
  if (it == index_.end()) return false;
  size_t position = it->second;
  keys_.erase(keys_.begin() + static_cast<std::ptrdiff_t>(position));
  values_.erase(values_.begin() + static_cast<std::ptrdiff_t>(position));
  reindex();
  return true;
}

void PlistDictionary::clear() {
  keys_.clear();
  values_.clear();
  index_.clear();
}

void PlistDictionary::reindex() {
  index_.clear();
  for (size_t i = 0; i < keys_.size(); ++i) index_.emplace(keys_[i], i);
}

bool PlistDictionary::operator==(const PlistDictionary& other) const {
  return keys_ == other.keys_ && values_ == other.values_;
}

bool PlistSet::operator==(const PlistSet& other) const { return members == other.members; }

bool PlistUnknownObject::operator==(const PlistUnknownObject& other) const {
  return classChain == other.classChain && fields == other.fields;
}

PlistValue::PlistValue(unsigned long long u) {
  if (u <= static_cast<unsigned long long>(std::numeric_limits<int64_t>::max())) {
    v_ = static_cast<int64_t>(u);
  } else {
    v_ = static_cast<uint64_t>(u);
  }
}

int64_t PlistValue::asInt64() const {
  switch (kind()) {
    case Kind::kInteger: return std::get<int64_t>(v_);
    case Kind::kUnsignedInteger: return static_cast<int64_t>(std::get<uint64_t>(v_));
    case Kind::kBoolean: return std::get<bool>(v_) ? 1 : 0;
    case Kind::kReal: {
      double d = std::get<double>(v_);
      if (!(d == d)) return 0;
      if (d >= 9.2233720368547758e18) return std::numeric_limits<int64_t>::max();
      if (d <= -9.2233720368547758e18) return std::numeric_limits<int64_t>::min();
      return static_cast<int64_t>(d);
    }
    default: throw std::bad_variant_access();
  }
}

uint64_t PlistValue::asUInt64() const {
  switch (kind()) {
    case Kind::kUnsignedInteger: return std::get<uint64_t>(v_);
    case Kind::kInteger: return static_cast<uint64_t>(std::get<int64_t>(v_));
    case Kind::kBoolean: return std::get<bool>(v_) ? 1 : 0;
    case Kind::kReal: {
      double d = std::get<double>(v_);
      if (!(d > 0)) return 0;
      if (d >= 1.8446744073709552e19) return std::numeric_limits<uint64_t>::max();
      return static_cast<uint64_t>(d);
    }
    default: throw std::bad_variant_access();
  }
}

double PlistValue::asDouble() const {
  switch (kind()) {
    case Kind::kReal: return std::get<double>(v_);
    case Kind::kInteger: return static_cast<double>(std::get<int64_t>(v_));
    case Kind::kUnsignedInteger: return static_cast<double>(std::get<uint64_t>(v_));
    case Kind::kBoolean: return std::get<bool>(v_) ? 1.0 : 0.0;
    default: throw std::bad_variant_access();
  }
}

bool PlistValue::asBool() const {
  switch (kind()) {
    case Kind::kBoolean: return std::get<bool>(v_);
    case Kind::kInteger: return std::get<int64_t>(v_) != 0;
    case Kind::kUnsignedInteger: return std::get<uint64_t>(v_) != 0;
    case Kind::kReal: return std::get<double>(v_) != 0.0;
    default: throw std::bad_variant_access();
  }
}

bool PlistValue::operator==(const PlistValue& other) const {
  // A signed and an unsigned integer never hold the same value: unsigned is only used above
  // INT64_MAX. So the variant's own comparison is exact.
  return v_ == other.v_;
}

}  // namespace wdc
