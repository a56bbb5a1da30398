// Round trips through our writer and reader, the exact integer and string forms we write, and an
// independent check: Python's plistlib must read what we write and find the same object graph.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <limits>

#include "archive/archive_test_util.h"
#include "platform/virtual_env.h"
#include "support/test_util.h"
#include "webdavconnect/keyed_archive.h"
#include "webdavconnect/payload.h"

namespace wdc {
namespace {

using nlohmann::json;

// A payload with every kind of value a record holds, plus the edges of each.
PlistDictionary samplePayload() {
  PlistDictionary nested{{"title", "inner"}, {"count", 3}};
  PlistDictionary dollarKeys{{"$weird", 1}, {"plain", 2}};
  PlistUnknownObject custom{{"TDCustomThing", "NSObject"},
                            {{"name", "x"}, {"flag", true}, {"missing", nilReferenceMarker()}}};
  return PlistDictionary{
      {"Title", "Buy milk"},
      {"Unicode", "y\u5e74M\u6708 \u2605 caf\u00e9"},
      {"Emoji", "\U0001F600 outside the BMP"},
      {"Empty", ""},
      {"Long", std::string(300, 'z')},
      {"Zero", 0},
      {"Byte", 255},
      {"Short", 65535},
      {"Word", 4294967295ULL},
      {"Max", std::numeric_limits<int64_t>::max()},
      {"Min", std::numeric_limits<int64_t>::min()},
      {"MinusOne", -1},
      {"Above63", 9223372036854775808ULL},
      {"UMax", std::numeric_limits<uint64_t>::max()},
      {"One", 1.0},
      {"Tenth", 0.1},
      {"Yes", true},
      {"No", false},
      {"Due", Date{625945468.42794}},
      {"Old", Date{-13197600000.0}},
      {"Blob", Bytes{0, 1, 2, 0xff}},
      {"Nothing", PlistValue()},
      {"Tags", PlistValue::Array{"a", "b", PlistValue::Array{1, 2}}},
      {"Set", PlistSet{{1, "two"}}},
      {"Nested", nested},
      {"DollarKeys", dollarKeys},
      {"Custom", custom},
  };
}

TEST(KeyedArchive, RoundTripsEveryValueKind) {
  const PlistDictionary payload = samplePayload();
  PlistDictionary top{{"data", payload}};
  std::optional<Error> error;
  auto back = unarchiveTopLevelObjects(archiveTopLevelObjects(top, true), &error);
  ASSERT_TRUE(back.has_value()) << error->description();
  EXPECT_EQ(*back, top);
}

TEST(KeyedArchive, RoundTripsEveryFixtureArchive) {
  for (const auto& entry : std::filesystem::directory_iterator(test::fixturesDir())) {
    if (entry.path().extension() != ".bplist") continue;
    const std::string name = entry.path().filename().string();
    if (name.starts_with("plain-")) continue;
    SCOPED_TRACE(name);
    std::optional<Error> error;
    auto first = unarchiveTopLevelObjects(test::readFileBytes(entry.path()), &error);
    ASSERT_TRUE(first.has_value());
    auto second = unarchiveTopLevelObjects(archiveTopLevelObjects(*first), &error);
    ASSERT_TRUE(second.has_value()) << error->description();
    if (name.starts_with("thirdparty-custom-self-reference")) {
      // A cycle cannot be written back as such: the looping reference becomes nil.
      PlistDictionary expected = *first;
      auto fields = expected.find("root")->asUnknownObject().fields;
      ASSERT_EQ(markerUid(*fields.find("recursive"), "$cycle"), 1u);
      fields.set("recursive", nilReferenceMarker());
      expected.set("root", PlistUnknownObject{expected.find("root")->asUnknownObject().classChain,
                                              fields});
      EXPECT_EQ(*second, expected);
    } else {
      EXPECT_EQ(*second, *first);
    }
  }
}

TEST(KeyedArchive, LaidOutAsAppleWritesIt) {
  const Bytes file = archiveTopLevelObjects({{"data", samplePayload()}}, true);
  const uint8_t* trailer = file.data() + file.size() - 32;
  const unsigned offsetSize = trailer[6];
  uint64_t top = 0, count = 0, table = 0;
  for (int i = 0; i < 8; ++i) {
    count = (count << 8) | trailer[8 + i];
    top = (top << 8) | trailer[16 + i];
    table = (table << 8) | trailer[24 + i];
  }
  EXPECT_EQ(top, 0u);
  EXPECT_EQ(file[8], 0xd4);  // object 0, right after the header: the 4-key archive dictionary
  // Objects are written in number order, so the offset table only grows.
  uint64_t previous = 0;
  for (uint64_t i = 0; i < count; ++i) {
    uint64_t offset = 0;
    for (unsigned b = 0; b < offsetSize; ++b) offset = (offset << 8) | file[table + i * offsetSize + b];
    EXPECT_GT(offset, previous) << i;
    previous = offset;
  }
  // Keys in the order of recent Apple files; "$version" is object 1, the first key walked.
  EXPECT_EQ(std::string(file.begin() + 8 + 9, file.begin() + 8 + 9 + 9), "X$version");
}

// The marker byte and width of an integer as written in a plain plist holding only it.
Bytes writtenInteger(const PlistValue& value) {
  Bytes file = writeBinaryPropertyList(value);
  const size_t offsetTable = file[file.size() - 1];  // small file: 1-byte offset table position
  return Bytes(file.begin() + 8, file.begin() + static_cast<std::ptrdiff_t>(offsetTable));
}

TEST(BinaryPlist, IntegersTakeTheWidthAppleWrites) {
  struct Case {
    PlistValue value;
    Bytes bytes;
  } cases[] = {
      {0, {0x10, 0x00}},
      {255, {0x10, 0xff}},
      {256, {0x11, 0x01, 0x00}},
      {65536, {0x12, 0x00, 0x01, 0x00, 0x00}},
      {4294967296LL, {0x13, 0, 0, 0, 1, 0, 0, 0, 0}},
      {-1, {0x13, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff}},
      {9223372036854775808ULL,
       {0x14, 0, 0, 0, 0, 0, 0, 0, 0, 0x80, 0, 0, 0, 0, 0, 0, 0}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(writtenInteger(c.value), c.bytes) << payloadValueToJSON(c.value);
    std::optional<Error> error;
    EXPECT_EQ(readBinaryPropertyList(writeBinaryPropertyList(c.value), &error), c.value);
  }
}

TEST(BinaryPlist, StringsAreAsciiOrUtf16WithSurrogatePairs) {
  EXPECT_EQ(writtenInteger("ab"), (Bytes{0x52, 'a', 'b'}));
  // U+1F600 is the surrogate pair D83D DE00 and counts as two units.
  EXPECT_EQ(writtenInteger("\U0001F600"), (Bytes{0x62, 0xd8, 0x3d, 0xde, 0x00}));
  // Invalid UTF-8 is written as U+FFFD rather than refused.
  EXPECT_EQ(writtenInteger(std::string("\xff")), (Bytes{0x61, 0xff, 0xfd}));
  const std::string fifteen(15, 'q');
  Bytes expected(18, 'q');  // long count form: 5F, then the count as a 1-byte integer
  expected[0] = 0x5f;
  expected[1] = 0x10;
  expected[2] = 0x0f;
  EXPECT_EQ(writtenInteger(fifteen), expected);
}

// Runs the plistlib walker on `file` and returns what it printed, or fails.
json walkWithPlistlib(const std::filesystem::path& file) {
  const std::string command = std::string("python3 ") + WDC_SOURCE_DIR +
                              "/tests/archive/plistlib_walk.py '" + file.string() + "'";
  FILE* pipe = ::popen(command.c_str(), "r");
  std::string output;
  char buffer[4096];
  size_t n;
  while (pipe && (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, n);
  const int status = pipe ? ::pclose(pipe) : -1;
  EXPECT_EQ(status, 0) << output;
  return json::parse(output, nullptr, false);
}

TEST(KeyedArchive, PythonPlistlibReadsWhatWeWrite) {
  VirtualEnv env;
  const PlistValue payload(samplePayload());
  auto stored = encodeStoredPayload(payload);
  ASSERT_TRUE(stored.has_value());
  const auto path = env.temporaryDirectory() / "payload.tod";
  test::writeFileBytes(path, *stored);

  const json walked = walkWithPlistlib(path);
  ASSERT_FALSE(walked.is_discarded());
  const json ours = json::parse(payloadValueToJSON(payload));
  EXPECT_EQ(test::jsonDifference(walked["top"]["data"], ours), "");
  EXPECT_EQ(walked["classes"]["NSMutableDictionary"],
            json::array({"NSMutableDictionary", "NSDictionary", "NSObject"}));
  EXPECT_EQ(walked["classes"]["NSDate"], json::array({"NSDate", "NSObject"}));
  EXPECT_EQ(walked["classes"]["TDCustomThing"], json::array({"TDCustomThing", "NSObject"}));
}

TEST(PayloadJson, ReadsBackWhatItWrites) {
  const PlistValue payload(samplePayload());
  std::optional<Error> error;
  auto back = payloadValueFromJSON(payloadValueToJSON(payload), &error);
  ASSERT_TRUE(back.has_value()) << error->description();
  EXPECT_EQ(payloadValueToJSON(*back), payloadValueToJSON(payload));
  EXPECT_EQ(back->asDictionary().find("UMax")->asUInt64(), std::numeric_limits<uint64_t>::max());
  EXPECT_TRUE(back->asDictionary().find("One")->isReal());
}

TEST(PayloadJson, SpellsSpecialValuesAsTheFixturesDo) {
  EXPECT_EQ(payloadValueToJSON(Date{-619446474.0}, -1),
            R"({"$date":"1981-05-16T11:32:06.000000Z","$time":-619446474.0})");
  EXPECT_EQ(payloadValueToJSON(Date{-13197600000.0}, -1),
            R"({"$date":"1582-10-15T00:00:00.000000Z","$time":-13197600000.0})");
  EXPECT_EQ(payloadValueToJSON(PlistValue(1.0), -1), "1.0");
  EXPECT_EQ(payloadValueToJSON(PlistValue(std::nan("")), -1), R"({"$real":"nan"})");
  EXPECT_EQ(payloadValueToJSON(PlistValue(PlistValue::Array{nullptr, true}), -1), "[null,true]");
}

TEST(PayloadJson, RefusesMalformedInput) {
  for (const char* text : {"{", R"({"$time":"x"})", R"({"$uuid":"123"})", R"({"$bogus":1})",
                           R"({"$dict":[[1]]})", R"({"$cycle":-1})"}) {
    std::optional<Error> error;
    EXPECT_FALSE(payloadValueFromJSON(text, &error).has_value()) << text;
    EXPECT_TRUE(error.has_value()) << text;
  }
  std::string deep(100000, '[');
  std::optional<Error> error;
  EXPECT_FALSE(payloadValueFromJSON(deep + std::string(100000, ']'), &error).has_value());
}

}  // namespace
}  // namespace wdc
