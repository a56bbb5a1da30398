#include "tools/wdc/record_json.h"

#include <cmath>
#include <ctime>

#include <fmt/format.h>

#include "tools/wdc/cli_context.h"
#include "webdavconnect/payload.h"

namespace wdc::cli {
namespace {

void putIfPresent(nlohmann::ordered_json& json, const char* key,
                  const std::optional<std::string>& value) {
  if (value) json[key] = *value;
}

std::optional<std::string> requiredString(const nlohmann::ordered_json& meta, const char* key,
                                          const std::string& source) {
  auto it = meta.find(key);
  if (it == meta.end() || !it->is_string()) {
    throw CommandFailure(source + ": \"meta\" needs the string \"" + key + "\"");
  }
  return it->get<std::string>();
}

}  // namespace

std::string isoDate(const Date& date) {
  const double unix = date.unixSeconds();
  double whole = std::floor(unix);
  auto micros = static_cast<long>(std::llround((unix - whole) * 1e6));
  if (micros >= 1'000'000) {
    micros -= 1'000'000;
    whole += 1;
  }
  const auto seconds = static_cast<std::time_t>(whole);
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:06}Z", parts.tm_year + 1900,
                     parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec,
                     micros);
}

nlohmann::ordered_json metaToJson(const WebDAVFileMetaData& meta) {
  nlohmann::ordered_json json = nlohmann::ordered_json::object();
  putIfPresent(json, "FilePath", meta.FilePath);
  putIfPresent(json, "ParentFolder", meta.ParentFolder);
  putIfPresent(json, "OpType", meta.OpType);
  putIfPresent(json, "ContainerUID", meta.ContainerUID);
  putIfPresent(json, "ParentUID", meta.ParentUID);
  putIfPresent(json, "UID", meta.UID);
  putIfPresent(json, "DeviceUDID", meta.DeviceUDID);
  putIfPresent(json, "Extension", meta.Extension);
  putIfPresent(json, "FileRev", meta.FileRev);
  if (meta.ModificationDate) json["ModificationDate"] = isoDate(*meta.ModificationDate);
  json["DeletedFromDropbox"] = meta.DeletedFromDropbox;
  return json;
}

nlohmann::ordered_json recordToJson(const WebDAVFileContents& record) {
  nlohmann::ordered_json json = nlohmann::ordered_json::object();
  json["meta"] = record.FileMetaData ? metaToJson(*record.FileMetaData)
                                     : nlohmann::ordered_json::object();
  if (record.FileContents) {
    json["data"] = nlohmann::ordered_json::parse(
        payloadValueToJSON(PlistValue(*record.FileContents), -1));
  } else {
    json["data"] = nullptr;
  }
  return json;
}

std::shared_ptr<WebDAVFileContents> recordFromJson(const std::string& text,
                                                   const std::string& source) {
  nlohmann::ordered_json json = nlohmann::ordered_json::parse(text, nullptr, false);
  if (json.is_discarded() || !json.is_object()) {
    throw CommandFailure(source + ": not a JSON object");
  }
  auto meta = json.find("meta");
  auto data = json.find("data");
  if (meta == json.end() || !meta->is_object()) {
    throw CommandFailure(source + ": needs an object \"meta\"");
  }
  if (data == json.end() || !data->is_object()) {
    throw CommandFailure(source + ": needs an object \"data\" (the record's payload)");
  }
  auto record = std::make_shared<WebDAVFileMetaData>();
  record->OpType = requiredString(*meta, "OpType", source);
  record->ContainerUID = requiredString(*meta, "ContainerUID", source);
  record->ParentUID = requiredString(*meta, "ParentUID", source);
  record->UID = requiredString(*meta, "UID", source);
  // A listed record names its extension only in its file name.
  auto filePath = meta->find("FilePath");
  if (!meta->contains("Extension") && filePath != meta->end() && filePath->is_string()) {
    const std::string name = filePath->get<std::string>();
    const auto dot = name.rfind('.');
    if (dot != std::string::npos && dot + 1 < name.size()) record->Extension = name.substr(dot + 1);
  }
  if (!record->Extension) record->Extension = requiredString(*meta, "Extension", source);

  std::optional<Error> error;
  std::optional<PlistValue> payload = payloadValueFromJSON(data->dump(), &error);
  if (!payload) throw CommandFailure(failureText(source + ": \"data\"", error));
  const PlistDictionary* dictionary = payload->dictionaryIf();
  if (dictionary == nullptr) throw CommandFailure(source + ": \"data\" must be a dictionary");
  return std::make_shared<WebDAVFileContents>(record,
                                              std::make_shared<PlistDictionary>(*dictionary));
}

}  // namespace wdc::cli
