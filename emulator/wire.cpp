#include "emulator/wire.h"

#include <ctime>

namespace wdc::emu {

void Exchange::replyJson(const Json& value, int statusCode) {
  status = statusCode;
  replyType = "application/json";
  replyBody = value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void Exchange::replyText(int statusCode, std::string text) {
  status = statusCode;
  replyType = "text/plain; charset=utf-8";
  replyBody = std::move(text);
}

void Exchange::replyRouteError(const Json& error) {
  replyJson(Json{{"error_summary", errorSummary(error)}, {"error", error}}, 409);
}

void Exchange::replyBadInput(std::string_view message) {
  replyText(400, "Error in call to API function \"" + route + "\": " + std::string(message));
}

void Exchange::replyAuthError(std::string_view tagName) {
  replyJson(Json{{"error_summary", std::string(tagName) + "/.."}, {"error", tag(tagName)}}, 401);
}

std::string errorSummary(const Json& error) {
  std::string summary;
  const Json* current = &error;
  for (int depth = 0; depth < 8 && current->is_object(); ++depth) {
    const auto tagIt = current->find(".tag");
    if (tagIt == current->end() || !tagIt->is_string()) {
      // RateLimitError is a struct whose reason carries the tag.
      const auto reason = current->find("reason");
      if (reason == current->end()) break;
      current = &*reason;
      continue;
    }
    const std::string tagName = tagIt->get<std::string>();
    summary += tagName + "/";
    const auto nested = current->find(tagName);
    if (nested != current->end() && nested->is_object()) {
      current = &*nested;
    } else if (const auto reason = current->find("reason");
               reason != current->end() && reason->is_object()) {
      current = &*reason;
    } else {
      break;
    }
  }
  return summary + "..";
}

std::string formatTimestamp(TimePoint time) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(
      std::chrono::time_point_cast<std::chrono::seconds>(time));
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char buffer[32];
  std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return buffer;
}

std::optional<TimePoint> parseTimestamp(std::string_view text) {
  if (text.size() != 20) return std::nullopt;
  std::tm parts{};
  const std::string copy(text);
  const char* end = strptime(copy.c_str(), "%Y-%m-%dT%H:%M:%SZ", &parts);
  if (end == nullptr || *end != '\0') return std::nullopt;
  // Refused like any malformed date when the clock's 64-bit tick count cannot hold it (about
  // 1677 to 2262), rather than overflowing in the conversion.
  constexpr std::time_t kLimit =
      std::chrono::duration_cast<std::chrono::seconds>(TimePoint::duration::max()).count();
  const std::time_t seconds = timegm(&parts);
  if (seconds > kLimit || seconds < -kLimit) return std::nullopt;
  return std::chrono::system_clock::from_time_t(seconds);
}

Json tag(std::string_view name) { return Json{{".tag", name}}; }

Json entryJson(const StoredEntry& entry, bool tagged) {
  const size_t slash = entry.pathDisplay.rfind('/');
  Json json = Json::object();
  if (tagged) json[".tag"] = entry.isFolder ? "folder" : "file";
  json["name"] = entry.pathDisplay.substr(slash + 1);
  json["path_lower"] = Store::lowerPath(entry.pathDisplay);
  json["path_display"] = entry.pathDisplay;
  json["id"] = entry.id;
  if (!entry.isFolder) {
    json["client_modified"] = formatTimestamp(entry.clientModified);
    json["server_modified"] = formatTimestamp(entry.serverModified);
    json["rev"] = entry.rev;
    json["size"] = entry.size();
    json["is_downloadable"] = true;
    json["content_hash"] = entry.contentHash;
  }
  return json;
}

Json deletedJson(std::string_view pathDisplay) {
  const size_t slash = pathDisplay.rfind('/');
  return Json{{".tag", "deleted"},
              {"name", pathDisplay.substr(slash == std::string_view::npos ? 0 : slash + 1)},
              {"path_lower", Store::lowerPath(pathDisplay)},
              {"path_display", pathDisplay}};
}

ArgReader::ArgReader(const Json& value, std::string where)
    : value_(value), where_(std::move(where)) {
  if (!value_.is_object()) fail("expected object, got " + std::string(typeName(value_)));
}

void ArgReader::fail(std::string message) {
  if (problem_.empty()) problem_ = where_ + ": " + std::move(message);
}

const char* ArgReader::typeName(const Json& value) {
  switch (value.type()) {
    case Json::value_t::null:
      return "null";
    case Json::value_t::boolean:
      return "boolean";
    case Json::value_t::string:
      return "string";
    case Json::value_t::array:
      return "list";
    case Json::value_t::object:
      return "object";
    case Json::value_t::number_float:
      return "float";
    default:
      return "integer";
  }
}

const Json* ArgReader::field(std::string_view name) {
  if (!value_.is_object()) return nullptr;
  const auto it = value_.find(name);
  // A null stands for an absent optional field.
  if (it == value_.end() || it->is_null()) return nullptr;
  return &*it;
}

std::string ArgReader::string(std::string_view name) {
  const Json* value = field(name);
  if (value == nullptr) {
    fail("missing required field '" + std::string(name) + "'");
    return {};
  }
  if (!value->is_string()) {
    fail(std::string(name) + ": expected string, got " + typeName(*value));
    return {};
  }
  return value->get<std::string>();
}

std::optional<std::string> ArgReader::optionalString(std::string_view name) {
  const Json* value = field(name);
  if (value == nullptr) return std::nullopt;
  if (!value->is_string()) {
    fail(std::string(name) + ": expected string, got " + typeName(*value));
    return std::nullopt;
  }
  return value->get<std::string>();
}

bool ArgReader::boolean(std::string_view name, bool fallback) {
  const Json* value = field(name);
  if (value == nullptr) return fallback;
  if (!value->is_boolean()) {
    fail(std::string(name) + ": expected boolean, got " + typeName(*value));
    return fallback;
  }
  return value->get<bool>();
}

std::optional<uint64_t> ArgReader::optionalNumber(std::string_view name, uint64_t min,
                                                  uint64_t max) {
  const Json* value = field(name);
  if (value == nullptr) return std::nullopt;
  if (!value->is_number_unsigned() && !(value->is_number_integer() && value->get<int64_t>() >= 0)) {
    fail(std::string(name) + ": expected unsigned integer, got " + typeName(*value));
    return std::nullopt;
  }
  const uint64_t number = value->get<uint64_t>();
  if (number < min || number > max) {
    fail(std::string(name) + ": " + std::to_string(number) + " is out of range " +
         std::to_string(min) + ".." + std::to_string(max));
    return std::nullopt;
  }
  return number;
}

uint64_t ArgReader::number(std::string_view name, uint64_t fallback, uint64_t min, uint64_t max) {
  return optionalNumber(name, min, max).value_or(fallback);
}

uint64_t ArgReader::requiredNumber(std::string_view name, uint64_t min, uint64_t max) {
  if (field(name) == nullptr) {
    fail("missing required field '" + std::string(name) + "'");
    return 0;
  }
  return optionalNumber(name, min, max).value_or(0);
}

std::optional<std::string> ArgReader::unionTag(std::string_view name, const Json** value) {
  const Json* union_ = field(name);
  if (value) *value = union_;
  if (union_ == nullptr) return std::nullopt;
  if (union_->is_string()) return union_->get<std::string>();
  if (union_->is_object()) {
    const auto it = union_->find(".tag");
    if (it != union_->end() && it->is_string()) return it->get<std::string>();
  }
  fail(std::string(name) + ": expected union tag, got " + typeName(*union_));
  return std::nullopt;
}

const Json* ArgReader::object(std::string_view name, bool required) {
  const Json* value = field(name);
  if (value == nullptr) {
    if (required) fail("missing required field '" + std::string(name) + "'");
    return nullptr;
  }
  if (!value->is_object()) {
    fail(std::string(name) + ": expected object, got " + typeName(*value));
    return nullptr;
  }
  return value;
}

const Json* ArgReader::list(std::string_view name, bool required, size_t maxItems) {
  const Json* value = field(name);
  if (value == nullptr) {
    if (required) fail("missing required field '" + std::string(name) + "'");
    return nullptr;
  }
  if (!value->is_array()) {
    fail(std::string(name) + ": expected list, got " + typeName(*value));
    return nullptr;
  }
  if (value->size() > maxItems) {
    fail(std::string(name) + ": list has more than " + std::to_string(maxItems) + " items");
    return nullptr;
  }
  return value;
}

}  // namespace wdc::emu
