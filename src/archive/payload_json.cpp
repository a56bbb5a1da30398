// The JSON form of payload values (see include/webdavconnect/payload.h). Objects keep their key
// order; integers keep their exact 64-bit value; reals are written with a "." or exponent so a
// reader can tell 1.0 from 1.
#include <fmt/format.h>

#include <charconv>
#include <chrono>
#include <cmath>
#include <nlohmann/json.hpp>

#include "webdavconnect/data_codecs.h"
#include "webdavconnect/payload.h"

namespace wdc {
namespace {

using Json = nlohmann::ordered_json;

constexpr size_t kMaxJsonDepth = 512;

// Proleptic Gregorian date of a day count since 1970-01-01 (H. Hinnant's civil_from_days).
void civilFromDays(int64_t days, int64_t& year, unsigned& month, unsigned& day) {
  days += 719468;
  const int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  const auto doe = static_cast<unsigned>(days - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  day = doy - (153 * mp + 2) / 5 + 1;
  month = mp < 10 ? mp + 3 : mp - 9;
  year = static_cast<int64_t>(yoe) + era * 400 + (month <= 2 ? 1 : 0);
}

// "YYYY-MM-DDTHH:MM:SS.ffffffZ", rounded to the microsecond.
std::string isoText(Date date) {
  const long double micros =
      std::nearbyint(static_cast<long double>(date.unixSeconds()) * 1000000.0L);
  if (!std::isfinite(static_cast<double>(micros)) || std::fabs(static_cast<double>(micros)) > 1e20) {
    return "invalid";
  }
  const auto total = static_cast<int64_t>(micros);
  constexpr int64_t kMicrosPerDay = int64_t{86400} * 1000000;
  int64_t days = total / kMicrosPerDay;
  int64_t rest = total % kMicrosPerDay;
  if (rest < 0) {
    rest += kMicrosPerDay;
    --days;
  }
  int64_t year;
  unsigned month, day;
  civilFromDays(days, year, month, day);
  const int64_t seconds = rest / 1000000;
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:06}Z", year, month, day, seconds / 3600,
                     (seconds / 60) % 60, seconds % 60, rest % 1000000);
}

std::string uuidText(const Bytes& bytes) {
  std::string hex;
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) hex += '-';
    hex += fmt::format("{:02X}", bytes[i]);
  }
  return hex;
}

bool hasDollarKey(const PlistDictionary& dict) {
  for (const auto& key : dict.keys()) {
    if (key.starts_with('$')) return true;
  }
  return false;
}

Json toJson(const PlistValue& value);

Json pairsJson(const PlistValue::Array& keys, const PlistValue::Array& values) {
  Json pairs = Json::array();
  for (size_t i = 0; i < keys.size() && i < values.size(); ++i) {
    pairs.push_back(Json::array({toJson(keys[i]), toJson(values[i])}));
  }
  return Json{{"$dict", std::move(pairs)}};
}

// Foundation classes the JSON form spells specially; nullopt for the generic form.
std::optional<Json> foundationJson(const PlistUnknownObject& object) {
  const std::string& name = object.classChain.front();
  const PlistDictionary& f = object.fields;
  if (name == "NSUUID") {
    const PlistValue* bytes = f.find("NS.uuidbytes");
    if (bytes && bytes->isData() && bytes->asData().size() == 16) {
      return Json{{"$uuid", uuidText(bytes->asData())}};
    }
  } else if (name == "NSURL") {
    const PlistValue* relative = f.find("NS.relative");
    if (relative) {
      Json url{{"$url", toJson(*relative)}};
      const PlistValue* base = f.find("NS.base");
      if (base && !isNilReferenceMarker(*base)) url["$base"] = toJson(*base);
      return url;
    }
  } else if (name == "NSOrderedSet" || name == "NSMutableOrderedSet") {
    Json items = Json::array();
    for (size_t i = 0;; ++i) {
      const PlistValue* item = f.find(fmt::format("NS.object.{}", i));
      if (!item) break;
      items.push_back(toJson(*item));
    }
    return Json{{"$orderedset", std::move(items)}};
  } else if (name == "NSDictionary" || name == "NSMutableDictionary") {
    const PlistValue* keys = f.find("NS.keys");
    const PlistValue* values = f.find("NS.objects");
    if (keys && values && keys->isArray() && values->isArray()) {
      return pairsJson(keys->asArray(), values->asArray());
    }
  }
  return std::nullopt;
}

Json toJson(const PlistValue& value) {
  switch (value.kind()) {
    case PlistValue::Kind::kNull: return nullptr;
    case PlistValue::Kind::kString: return value.asString();
    case PlistValue::Kind::kInteger: return value.asInt64();
    case PlistValue::Kind::kUnsignedInteger: return value.asUInt64();
    case PlistValue::Kind::kBoolean: return value.asBool();
    case PlistValue::Kind::kReal: {
      const double d = value.asDouble();
      if (std::isnan(d)) return Json{{"$real", "nan"}};
      if (std::isinf(d)) return Json{{"$real", d > 0 ? "inf" : "-inf"}};
      return d;
    }
    case PlistValue::Kind::kDate: {
      Json date;
      date["$date"] = isoText(value.asDate());
      date["$time"] = value.asDate().sinceReferenceDate;
      return date;
    }
    case PlistValue::Kind::kData: return Json{{"$data", base64Encoded(value.asData())}};
    case PlistValue::Kind::kArray: {
      Json items = Json::array();
      for (const auto& item : value.asArray()) items.push_back(toJson(item));
      return items;
    }
    case PlistValue::Kind::kSet: {
      Json items = Json::array();
      for (const auto& item : value.asSet().members) items.push_back(toJson(item));
      return Json{{"$set", std::move(items)}};
    }
    case PlistValue::Kind::kDictionary: {
      const auto& dict = value.asDictionary();
      if (hasDollarKey(dict)) {
        PlistValue::Array keys(dict.keys().begin(), dict.keys().end());
        return pairsJson(keys, dict.values());
      }
      Json object = Json::object();
      for (size_t i = 0; i < dict.size(); ++i) object[dict.keys()[i]] = toJson(dict.values()[i]);
      return object;
    }
    case PlistValue::Kind::kUnknownObject: {
      if (isNilReferenceMarker(value)) return Json{{"$nil", true}};
      if (auto uid = markerUid(value, "$cycle")) return Json{{"$cycle", *uid}};
      if (auto uid = markerUid(value, "$uid")) return Json{{"$uid", *uid}};
      const auto& object = value.asUnknownObject();
      if (object.classChain.empty()) return Json{{"$class", "NSObject"}};
      if (auto special = foundationJson(object)) return std::move(*special);
      Json out{{"$class", object.classChain.front()}};
      for (size_t i = 0; i < object.fields.size(); ++i) {
        out[object.fields.keys()[i]] = toJson(object.fields.values()[i]);
      }
      return out;
    }
  }
  return nullptr;
}

// ---- JSON to values ------------------------------------------------------------------------

bool fail(ErrorOut error, std::string_view what) {
  setError(error, Error::corruption(fmt::format("payload JSON: {}", what)));
  return false;
}

std::vector<std::string> chainOf(const std::string& name) {
  static const char* const kMutable[][3] = {
      {"NSMutableDictionary", "NSDictionary", "NSObject"},
      {"NSMutableArray", "NSArray", "NSObject"},
      {"NSMutableSet", "NSSet", "NSObject"},
      {"NSMutableOrderedSet", "NSOrderedSet", "NSObject"},
      {"NSMutableString", "NSString", "NSObject"},
      {"NSMutableData", "NSData", "NSObject"},
      {"NSMutableAttributedString", "NSAttributedString", "NSObject"},
      {"NSMutableIndexSet", "NSIndexSet", "NSObject"},
  };
  for (const auto& chain : kMutable) {
    if (name == chain[0]) return {chain[0], chain[1], chain[2]};
  }
  return {name, "NSObject"};
}

bool fromJson(const Json& json, PlistValue& out, ErrorOut error, size_t depth);

// Reads ISO 8601 text as people type it: "YYYY-MM-DD" (midnight UTC), or that with
// "THH:MM[:SS[.fraction]]" and a zone, "Z" or "+HH:MM" / "-HH:MM" / "+HHMM". A time without a
// zone is refused: its instant would depend on the machine that runs the encoder.
std::optional<Date> dateFromIsoText(std::string_view text) {
  size_t pos = 0;
  auto number = [&](size_t digits, int low, int high, int& value) {
    if (pos + digits > text.size()) return false;
    value = 0;
    for (size_t i = 0; i < digits; ++i) {
      const char c = text[pos + i];
      if (c < '0' || c > '9') return false;
      value = value * 10 + (c - '0');
    }
    pos += digits;
    return value >= low && value <= high;
  };
  auto literal = [&](char c) {
    if (pos >= text.size() || text[pos] != c) return false;
    ++pos;
    return true;
  };
  int year, month, day;
  if (!number(4, 0, 9999, year) || !literal('-') || !number(2, 1, 12, month) || !literal('-') ||
      !number(2, 1, 31, day)) {
    return std::nullopt;
  }
  const std::chrono::year_month_day civil{std::chrono::year{year},
                                          std::chrono::month{static_cast<unsigned>(month)},
                                          std::chrono::day{static_cast<unsigned>(day)}};
  if (!civil.ok()) return std::nullopt;  // 31 April, 29 February of a common year
  // Whole seconds since the reference date stay exact in an int64; the fraction is added once.
  int64_t seconds = int64_t{std::chrono::sys_days{civil}.time_since_epoch().count()} * 86400 -
                    static_cast<int64_t>(kReferenceDateUnixSeconds);
  if (pos == text.size()) return Date{static_cast<double>(seconds)};

  int hour, minute, second = 0;
  if (!literal('T') || !number(2, 0, 23, hour) || !literal(':') || !number(2, 0, 59, minute)) {
    return std::nullopt;
  }
  double fraction = 0;
  if (literal(':')) {
    if (!number(2, 0, 59, second)) return std::nullopt;
    if (literal('.')) {
      const size_t start = pos;
      while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') ++pos;
      if (pos == start) return std::nullopt;
      const std::string digits = "0." + std::string(text.substr(start, pos - start));
      std::from_chars(digits.data(), digits.data() + digits.size(), fraction);
    }
  }
  int offsetMinutes = 0;
  if (!literal('Z')) {
    const bool east = literal('+');
    if (!east && !literal('-')) return std::nullopt;
    int offsetHour, offsetMinute;
    if (!number(2, 0, 23, offsetHour)) return std::nullopt;
    literal(':');
    if (!number(2, 0, 59, offsetMinute)) return std::nullopt;
    offsetMinutes = (east ? 1 : -1) * (offsetHour * 60 + offsetMinute);
  }
  if (pos != text.size()) return std::nullopt;
  seconds += int64_t{hour} * 3600 + int64_t{minute} * 60 + second - int64_t{offsetMinutes} * 60;
  return Date{static_cast<double>(seconds) + fraction};
}

// {"$date": text} without "$time": the text is the value.
bool dateFromJson(const Json& text, PlistValue& out, ErrorOut error) {
  if (!text.is_string()) return fail(error, "$date is not a string");
  std::optional<Date> date = dateFromIsoText(text.get_ref<const std::string&>());
  if (!date) {
    // The value is quoted as JSON so that control characters cannot break the message's line.
    std::string quoted = text.dump(-1, ' ', false, Json::error_handler_t::replace);
    if (quoted.size() > 80) {
      size_t cut = 76;
      while (cut > 0 && (static_cast<unsigned char>(quoted[cut]) & 0xC0) == 0x80) --cut;
      quoted = quoted.substr(0, cut) + "...\"";
    }
    return fail(error, fmt::format("$date {} is not an ISO 8601 date such as 2024-05-01 or "
                                   "2024-05-01T09:30:00Z (a time needs Z or an offset)",
                                   quoted));
  }
  out = PlistValue(*date);
  return true;
}

bool parseUuid(const std::string& text, Bytes& out) {
  std::string hex;
  for (char c : text) {
    if (c != '-') hex += c;
  }
  if (hex.size() != 32) return false;
  out.clear();
  for (size_t i = 0; i < 32; i += 2) {
    unsigned byte;
    if (std::sscanf(hex.c_str() + i, "%2x", &byte) != 1 || !std::isxdigit(hex[i]) ||
        !std::isxdigit(hex[i + 1])) {
      return false;
    }
    out.push_back(static_cast<uint8_t>(byte));
  }
  return true;
}

bool arrayFromJson(const Json& json, PlistValue::Array& out, ErrorOut error, size_t depth) {
  if (!json.is_array()) return fail(error, "expected an array");
  for (const auto& item : json) {
    PlistValue value;
    if (!fromJson(item, value, error, depth + 1)) return false;
    out.push_back(std::move(value));
  }
  return true;
}

[[gnu::noinline]] bool specialFromJson(const Json& json, PlistValue& out, ErrorOut error,
                                       size_t depth) {
  if (json.contains("$time")) {
    if (!json["$time"].is_number()) return fail(error, "$time is not a number");
    out = PlistValue(Date{json["$time"].get<double>()});
    return true;
  }
  if (json.contains("$date")) return dateFromJson(json["$date"], out, error);
  if (json.contains("$data")) {
    if (!json["$data"].is_string()) return fail(error, "$data is not a string");
    const auto& text = json["$data"].get_ref<const std::string&>();
    out = PlistValue(base64Decoded(Bytes(text.begin(), text.end())));
    return true;
  }
  if (json.contains("$set")) {
    PlistSet set;
    if (!arrayFromJson(json["$set"], set.members, error, depth)) return false;
    out = PlistValue(std::move(set));
    return true;
  }
  if (json.contains("$orderedset")) {
    PlistValue::Array items;
    if (!arrayFromJson(json["$orderedset"], items, error, depth)) return false;
    PlistUnknownObject object{chainOf("NSOrderedSet"), {}};
    for (size_t i = 0; i < items.size(); ++i) {
      object.fields.set(fmt::format("NS.object.{}", i), std::move(items[i]));
    }
    out = PlistValue(std::move(object));
    return true;
  }
  if (json.contains("$uuid")) {
    Bytes bytes;
    if (!json["$uuid"].is_string() || !parseUuid(json["$uuid"].get<std::string>(), bytes)) {
      return fail(error, "$uuid is not a UUID");
    }
    out = PlistValue(PlistUnknownObject{chainOf("NSUUID"), {{"NS.uuidbytes", PlistValue(bytes)}}});
    return true;
  }
  if (json.contains("$url")) {
    PlistValue relative, base = nilReferenceMarker();
    if (!fromJson(json["$url"], relative, error, depth + 1)) return false;
    if (json.contains("$base") && !fromJson(json["$base"], base, error, depth + 1)) return false;
    out = PlistValue(PlistUnknownObject{chainOf("NSURL"),
                                        {{"NS.base", std::move(base)},
                                         {"NS.relative", std::move(relative)}}});
    return true;
  }
  if (json.contains("$nil")) {
    out = nilReferenceMarker();
    return true;
  }
  for (const char* name : {"$cycle", "$uid"}) {
    if (json.contains(name)) {
      if (!json[name].is_number_unsigned()) return fail(error, fmt::format("{} is not a UID", name));
      const uint64_t uid = json[name].get<uint64_t>();
      out = std::string_view(name) == "$cycle" ? cycleMarker(uid) : uidMarker(uid);
      return true;
    }
  }
  if (json.contains("$real")) {
    const std::string text = json["$real"].is_string() ? json["$real"].get<std::string>() : "";
    if (text == "nan") out = PlistValue(std::nan(""));
    else if (text == "inf") out = PlistValue(HUGE_VAL);
    else if (text == "-inf") out = PlistValue(-HUGE_VAL);
    else return fail(error, "$real is not nan, inf or -inf");
    return true;
  }
  if (json.contains("$dict")) {
    const Json& pairs = json["$dict"];
    if (!pairs.is_array()) return fail(error, "$dict is not an array");
    PlistValue::Array keys, values;
    bool allStrings = true;
    for (const auto& pair : pairs) {
      if (!pair.is_array() || pair.size() != 2) return fail(error, "$dict entry is not a pair");
      PlistValue key, value;
      if (!fromJson(pair[0], key, error, depth + 1) || !fromJson(pair[1], value, error, depth + 1)) {
        return false;
      }
      allStrings = allStrings && key.isString();
      keys.push_back(std::move(key));
      values.push_back(std::move(value));
    }
    if (allStrings) {
      PlistDictionary dict;
      for (size_t i = 0; i < keys.size(); ++i) dict.set(keys[i].asString(), std::move(values[i]));
      out = PlistValue(std::move(dict));
    } else {
      out = PlistValue(PlistUnknownObject{chainOf("NSDictionary"),
                                          {{"NS.keys", PlistValue(std::move(keys))},
                                           {"NS.objects", PlistValue(std::move(values))}}});
    }
    return true;
  }
  if (json.contains("$class")) {
    if (!json["$class"].is_string()) return fail(error, "$class is not a string");
    PlistUnknownObject object{chainOf(json["$class"].get<std::string>()), {}};
    for (const auto& [key, item] : json.items()) {
      if (key == "$class") continue;
      PlistValue value;
      if (!fromJson(item, value, error, depth + 1)) return false;
      object.fields.set(key, std::move(value));
    }
    out = PlistValue(std::move(object));
    return true;
  }
  return fail(error, "object with an unknown \"$\" key");
}

// Containers are read in their own functions so that fromJson, the frame repeated at every
// level of nesting, stays small (sanitizer builds give every local its own guard zone).
[[gnu::noinline]] bool objectFromJson(const Json& json, PlistValue& out, ErrorOut error,
                                      size_t depth) {
  for (const auto& [key, item] : json.items()) {
    if (key.starts_with('$')) return specialFromJson(json, out, error, depth);
  }
  PlistDictionary dict;
  for (const auto& [key, item] : json.items()) {
    PlistValue value;
    if (!fromJson(item, value, error, depth + 1)) return false;
    dict.set(key, std::move(value));
  }
  out = PlistValue(std::move(dict));
  return true;
}

[[gnu::noinline]] bool arrayValueFromJson(const Json& json, PlistValue& out, ErrorOut error,
                                          size_t depth) {
  PlistValue::Array items;
  if (!arrayFromJson(json, items, error, depth)) return false;
  out = PlistValue(std::move(items));
  return true;
}

bool fromJson(const Json& json, PlistValue& out, ErrorOut error, size_t depth) {
  if (depth > kMaxJsonDepth) return fail(error, "nesting too deep");
  switch (json.type()) {
    case Json::value_t::null: out = PlistValue(); return true;
    case Json::value_t::boolean: out = PlistValue(json.get<bool>()); return true;
    case Json::value_t::number_integer: out = PlistValue(json.get<int64_t>()); return true;
    case Json::value_t::number_unsigned:
      out = PlistValue(static_cast<unsigned long long>(json.get<uint64_t>()));
      return true;
    case Json::value_t::number_float: out = PlistValue(json.get<double>()); return true;
    case Json::value_t::string: out = PlistValue(json.get_ref<const std::string&>()); return true;
    case Json::value_t::array: return arrayValueFromJson(json, out, error, depth);
    case Json::value_t::object: return objectFromJson(json, out, error, depth);
    default: return fail(error, "unsupported JSON value");
  }
}

}  // namespace

std::string payloadValueToJSON(const PlistValue& value, int indent) {
  return toJson(value).dump(indent, ' ', false, Json::error_handler_t::replace);
}

std::optional<PlistValue> payloadValueFromJSON(std::string_view json, ErrorOut error) {
  Json parsed = Json::parse(json, nullptr, /*allow_exceptions=*/false);
  if (parsed.is_discarded()) {
    fail(error, "not valid JSON");
    return std::nullopt;
  }
  PlistValue value;
  if (!fromJson(parsed, value, error, 0)) return std::nullopt;
  return value;
}

}  // namespace wdc
