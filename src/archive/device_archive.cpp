// The keyed-archive coding of WebDAVDevice.
#include "webdavconnect/device.h"
#include "webdavconnect/keyed_archive.h"

namespace wdc {
namespace {

std::optional<std::string> stringField(const PlistDictionary& fields, std::string_view key) {
  const PlistValue* value = fields.find(key);
  if (value == nullptr || !value->isString()) return std::nullopt;
  return value->asString();
}

}  // namespace

PlistUnknownObject WebDAVDevice::encodeWithCoder() {
  if (!DeviceName) DeviceName = std::string();
  PlistUnknownObject object{{kClassName, "NSObject"}, {}};
  object.fields.set("UDID", UDID ? PlistValue(*UDID) : nilReferenceMarker());
  object.fields.set("DeviceName", *DeviceName);
  object.fields.set("LastSynced", LastSynced ? PlistValue(*LastSynced) : PlistValue(""));
  object.fields.set("DidUpdatServerWithNewData", DidUpdatServerWithNewData ? "1" : "0");
  object.fields.set("WebDAVVersion", WebDAVVersion.value_or(""));
  return object;
}

std::shared_ptr<WebDAVDevice> WebDAVDevice::initWithCoder(const PlistUnknownObject& coder) {
  auto device = std::make_shared<WebDAVDevice>();
  const PlistDictionary& f = coder.fields;
  device->UDID = stringField(f, "UDID");
  device->DeviceName = stringField(f, "DeviceName");
  if (const PlistValue* date = f.find("LastSynced"); date && date->isDate()) {
    device->LastSynced = date->asDate();
  }
  // Older records lack the flag: treat them as having new data, so peers look.
  device->DidUpdatServerWithNewData =
      !f.contains("DidUpdatServerWithNewData") || stringField(f, "DidUpdatServerWithNewData") == "1";
  device->WebDAVVersion = stringField(f, "WebDAVVersion");
  return device;
}

Bytes archivedDataWithRootObject(WebDAVDevice& device) {
  PlistDictionary top;
  top.set("root", PlistValue(device.encodeWithCoder()));
  return archiveTopLevelObjects(top);
}

std::shared_ptr<WebDAVDevice> unarchiveDevice(std::span<const uint8_t> archive, ErrorOut error) {
  auto top = unarchiveTopLevelObjects(archive, error);
  if (!top) return nullptr;
  const PlistValue* root = top->find("root");
  if (root == nullptr || !root->isUnknownObject() || isNilReferenceMarker(*root)) {
    setError(error, Error::corruption("device archive has no archived object under \"root\""));
    return nullptr;
  }
  return WebDAVDevice::initWithCoder(root->asUnknownObject());
}

}  // namespace wdc
