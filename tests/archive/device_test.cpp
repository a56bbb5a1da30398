// The device record's archive form: keys, value forms, defaults on reading, description.
#include <gtest/gtest.h>

#include "webdavconnect/device.h"
#include "webdavconnect/keyed_archive.h"

namespace wdc {
namespace {

// The root object of a device archive, as stored (fields still UIDs), read as a plain plist.
PlistDictionary storedRootObject(const Bytes& archive) {
  std::optional<Error> error;
  auto plist = readBinaryPropertyList(archive, &error);
  EXPECT_TRUE(plist.has_value());
  const auto& objects = plist->asDictionary().find("$objects")->asArray();
  const auto rootUid = markerUid(*plist->asDictionary().find("$top")->asDictionary().find("root"), "$uid");
  return objects.at(*rootUid).asDictionary();
}

TEST(WebDAVDevice, EmptyRecordWritesEmptyStringsNilAndZero) {
  WebDAVDevice device;
  const Bytes archive = archivedDataWithRootObject(device);
  EXPECT_EQ(device.DeviceName, "");  // the record itself was changed

  std::optional<Error> error;
  auto top = unarchiveTopLevelObjects(archive, &error);
  ASSERT_TRUE(top.has_value());
  const auto& object = top->find("root")->asUnknownObject();
  EXPECT_EQ(object.classChain, (std::vector<std::string>{"WebDAVDevice", "NSObject"}));
  EXPECT_EQ(object.fields.keys(), (std::vector<std::string>{"UDID", "DeviceName", "LastSynced",
                                                            "DidUpdatServerWithNewData",
                                                            "WebDAVVersion"}));
  EXPECT_TRUE(isNilReferenceMarker(*object.fields.find("UDID")));
  EXPECT_EQ(*object.fields.find("DeviceName"), PlistValue(""));
  EXPECT_EQ(*object.fields.find("LastSynced"), PlistValue(""));
  EXPECT_EQ(*object.fields.find("DidUpdatServerWithNewData"), PlistValue("0"));
  EXPECT_EQ(*object.fields.find("WebDAVVersion"), PlistValue(""));

  // Every value is a reference to an object, never an inline scalar.
  const PlistDictionary stored = storedRootObject(archive);
  for (const char* key : {"UDID", "DeviceName", "LastSynced", "DidUpdatServerWithNewData",
                          "WebDAVVersion"}) {
    EXPECT_TRUE(markerUid(*stored.find(key), "$uid").has_value()) << key;
  }

  auto back = unarchiveDevice(archive, &error);
  ASSERT_NE(back, nullptr);
  EXPECT_FALSE(back->UDID.has_value());
  EXPECT_FALSE(back->LastSynced.has_value());
  EXPECT_EQ(back->DeviceName, "");
  EXPECT_EQ(back->WebDAVVersion, "");
  EXPECT_FALSE(back->DidUpdatServerWithNewData);
}

TEST(WebDAVDevice, FullRecordRoundTrips) {
  WebDAVDevice device;
  device.UDID = "ABC-123";
  device.DeviceName = "Kitchen iPad";
  device.LastSynced = Date{789000000.5};
  device.DidUpdatServerWithNewData = true;
  device.WebDAVVersion = "3";
  std::optional<Error> error;
  auto back = unarchiveDevice(archivedDataWithRootObject(device), &error);
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(back->UDID, "ABC-123");
  EXPECT_EQ(back->DeviceName, "Kitchen iPad");
  EXPECT_EQ(back->LastSynced, Date{789000000.5});
  EXPECT_TRUE(back->DidUpdatServerWithNewData);
  EXPECT_EQ(back->WebDAVVersion, "3");
}

TEST(WebDAVDevice, FlagDefaultsToTrueAndReadsOnlyOneAsTrue) {
  PlistUnknownObject coder{{"WebDAVDevice", "NSObject"}, {{"DeviceName", "x"}}};
  EXPECT_TRUE(WebDAVDevice::initWithCoder(coder)->DidUpdatServerWithNewData);
  for (const auto& [stored, expected] :
       std::vector<std::pair<PlistValue, bool>>{{"1", true}, {"true", false}, {"0", false},
                                                {1, false}, {nilReferenceMarker(), false}}) {
    coder.fields.set("DidUpdatServerWithNewData", stored);
    EXPECT_EQ(WebDAVDevice::initWithCoder(coder)->DidUpdatServerWithNewData, expected);
  }
}

TEST(WebDAVDevice, DescriptionFormsEveryField) {
  WebDAVDevice device;
  EXPECT_EQ(device.description(),
            "WebDAV Device: {Name: (null), UDID: (null), Last Synced: (null), Did Update Server: "
            "0, Version: (null)}");
  device.UDID = "U";
  device.DeviceName = "N";
  device.LastSynced = Date::fromUnixSeconds(1767225600.75);  // 2026-01-01T00:00:00.75Z
  device.DidUpdatServerWithNewData = true;
  device.WebDAVVersion = "2";
  EXPECT_EQ(device.description(),
            "WebDAV Device: {Name: N, UDID: U, Last Synced: 2026-01-01 00:00:00 +0000, Did Update "
            "Server: 1, Version: 2}");
}

TEST(WebDAVDevice, ArchiveWithoutAnObjectRootIsAnError) {
  std::optional<Error> error;
  EXPECT_EQ(unarchiveDevice(archiveTopLevelObjects({{"root", "just text"}}), &error), nullptr);
  EXPECT_TRUE(error.has_value());
}

}  // namespace
}  // namespace wdc
