#include "webdavconnect/json_writer.h"

#include <cmath>
#include <cstdint>
#include <limits>

namespace wdc {
namespace {

// The platform's 32-bit integer view of a number: integers wrap to their low 32 bits, reals are
// cut toward zero and held inside the range (NaN as 0) so no input reaches undefined behaviour.
int32_t int32ValueOf(const PlistValue& number) {
  if (number.isBoolean()) return number.asBool() ? 1 : 0;
  if (number.isInteger()) return static_cast<int32_t>(static_cast<uint32_t>(number.asUInt64()));
  const double d = number.asDouble();
  if (std::isnan(d)) return 0;
  if (d >= 2147483647.0) return std::numeric_limits<int32_t>::max();
  if (d <= -2147483648.0) return std::numeric_limits<int32_t>::min();
  return static_cast<int32_t>(d);
}

void appendDict(std::string& out, const PlistDictionary& dict);
void appendArray(std::string& out, const PlistValue::Array& array);

void appendValue(std::string& out, const PlistValue& value) {
  if (const std::string* text = value.stringIf()) {
    out.push_back('"');
    out.append(*text);
    out.push_back('"');
  } else if (value.isNumber()) {
    out.append(std::to_string(int32ValueOf(value)));
  } else if (value.isNull()) {
    out.append("null");
  } else if (value.isArray()) {
    appendArray(out, value.asArray());
  } else if (const PlistDictionary* dict = value.dictionaryIf()) {
    appendDict(out, *dict);
  }
  // Anything else writes nothing; the caller still writes the separator.
}

void appendArray(std::string& out, const PlistValue::Array& array) {
  out.push_back('[');
  for (size_t i = 0; i < array.size(); ++i) {
    appendValue(out, array[i]);
    if (array.size() > i + 1) out.push_back(',');
  }
  out.push_back(']');
}

void appendDict(std::string& out, const PlistDictionary& dict) {
  out.push_back('{');
  const auto& keys = dict.keys();
  const auto& values = dict.values();
  for (size_t i = 0; i < keys.size(); ++i) {
    out.push_back('"');
    out.append(keys[i]);
    out.append("\":");
    appendValue(out, values[i]);
    if (keys.size() > i + 1) out.push_back(',');
  }
  out.push_back('}');
}

}  // namespace

std::string jsonWithArray(const PlistValue::Array& array) {
  std::string out;
  appendArray(out, array);
  return out;
}

std::string jsonWithArray(const PlistValue::Array* array) {
  if (array == nullptr) return "[]";
  return jsonWithArray(*array);
}

std::string jsonWithDict(const PlistDictionary& dict) {
  std::string out;
  appendDict(out, dict);
  return out;
}

std::optional<std::string> jsonWithDict(const PlistDictionary* dict) {
  if (dict == nullptr) return std::nullopt;
  return jsonWithDict(*dict);
}

}  // namespace wdc
