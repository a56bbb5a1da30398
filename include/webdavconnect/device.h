// WebDAVDevice: one device taking part in a sync. Hosts keep these records in keyed archives,
// so the archive keys and value forms are a storage format:
//   "UDID"                       the identifier string; nil when absent
//   "DeviceName"                 the name; an absent name is first set to "" on the record
//   "LastSynced"                 the date; "" when absent
//   "DidUpdatServerWithNewData"  the string "1" or "0"
//   "WebDAVVersion"              the version string; "" when absent
// Every value is an object (a reference) in the archive. Reading back: "LastSynced" that is not a
// date is absent; a missing "DidUpdatServerWithNewData" key means true, a present one is true
// exactly when it is the string "1".
#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>

#include "webdavconnect/date.h"
#include "webdavconnect/error.h"
#include "webdavconnect/plist_value.h"

namespace wdc {

// A plain value object: fields are public and unlocked. Use from one thread at a time.
class WebDAVDevice {
 public:
  std::optional<std::string> UDID;
  std::optional<std::string> DeviceName;
  std::optional<Date> LastSynced;
  bool DidUpdatServerWithNewData = false;
  std::optional<std::string> WebDAVVersion;

  // The class name under which devices are archived.
  static constexpr const char* kClassName = "WebDAVDevice";

  // The record as an archived object of class WebDAVDevice, its five keys in the order above.
  // Changes the record: an absent DeviceName becomes "".
  PlistUnknownObject encodeWithCoder();
  // A new record from an archived object's fields (any class name is accepted).
  static std::shared_ptr<WebDAVDevice> initWithCoder(const PlistUnknownObject& coder);

  // "WebDAV Device: {Name: <name>, UDID: <udid>, Last Synced: <date>, Did Update Server: <1|0>,
  // Version: <version>}"; absent values read "(null)", dates "YYYY-MM-DD HH:MM:SS +0000".
  [[nodiscard]] std::string description() const;
};

// A keyed archive holding `device` as its root object (top-level key "root"). Changes `device`
// as encodeWithCoder() does.
Bytes archivedDataWithRootObject(WebDAVDevice& device);

// The device stored as the root object of a keyed archive; nullptr with `error` set
// when the bytes are not a keyed archive or its root is not an archived object.
std::shared_ptr<WebDAVDevice> unarchiveDevice(std::span<const uint8_t> archive, ErrorOut error);

}  // namespace wdc
