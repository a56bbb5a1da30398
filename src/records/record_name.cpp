#include "records/record_name.h"

#include <vector>

namespace wdc {
namespace {
constexpr size_t kMinimumComponents = 8;
constexpr size_t kComponentsWithDevice = 10;
}  // namespace

std::string_view pathExtension(std::string_view fileName) {
  auto slash = fileName.find_last_of('/');
  std::string_view last = slash == std::string_view::npos ? fileName : fileName.substr(slash + 1);
  auto dot = last.find_last_of('.');
  // A leading dot names a hidden file, not an extension.
  if (dot == std::string_view::npos || dot == 0) return {};
  return last.substr(dot + 1);
}

std::string_view deletingPathExtension(std::string_view fileName) {
  std::string_view extension = pathExtension(fileName);
  if (extension.empty() && (fileName.empty() || fileName.back() != '.')) return fileName;
  return fileName.substr(0, fileName.size() - extension.size() - 1);
}

std::optional<RecordNameFields> parseRecordName(std::string_view fileName) {
  std::string_view stem = deletingPathExtension(fileName);
  std::vector<std::string_view> parts;
  size_t start = 0;
  for (;;) {
    size_t underscore = stem.find('_', start);
    if (underscore == std::string_view::npos) {
      parts.push_back(stem.substr(start));
      break;
    }
    parts.push_back(stem.substr(start, underscore - start));
    start = underscore + 1;
  }
  if (parts.size() < kMinimumComponents) return std::nullopt;
  RecordNameFields fields;
  fields.opType = parts[1];
  fields.containerUID = parts[3];
  fields.parentUID = parts[5];
  fields.uid = parts[7];
  if (parts.size() >= kComponentsWithDevice) fields.deviceUDID = std::string(parts[9]);
  fields.extension = pathExtension(fileName);
  return fields;
}

void applyRecordName(const RecordNameFields& fields, WebDAVFileMetaData& record) {
  record.OpType = fields.opType;
  record.ContainerUID = fields.containerUID;
  record.ParentUID = fields.parentUID;
  record.UID = fields.uid;
  if (fields.deviceUDID) record.DeviceUDID = fields.deviceUDID;
  record.Extension = fields.extension;
}

}  // namespace wdc
