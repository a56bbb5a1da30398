// The JSON writer: value kinds in their order, "%d" truncation, raw strings, key order, and the
// separator written after values that produce no text.
#include "webdavconnect/json_writer.h"

#include <gtest/gtest.h>

#include <cmath>

namespace wdc {
namespace {

using Array = PlistValue::Array;

TEST(JsonWriter, ArraysOfEveryKind) {
  EXPECT_EQ(jsonWithArray(Array{"a", 2.9, true, nullptr, PlistDictionary{}}),
            "[\"a\",2,1,null,{}]");
  EXPECT_EQ(jsonWithArray(Array{Array{1, 2}, Array{}}), "[[1,2],[]]");
  EXPECT_EQ(jsonWithArray(Array{false, -2.9, 0.5, -0.5}), "[0,-2,0,0]");
  EXPECT_EQ(jsonWithArray(Array{}), "[]");
  EXPECT_EQ(jsonWithArray(static_cast<const Array*>(nullptr)), "[]");
}

TEST(JsonWriter, StringsAreWrittenRaw) {
  EXPECT_EQ(jsonWithArray(Array{"a\"b"}), "[\"a\"b\"]");
  EXPECT_EQ(jsonWithArray(Array{"back\\slash\nline"}), "[\"back\\slash\nline\"]");
  EXPECT_EQ(jsonWithDict(PlistDictionary{{"k\"", "v"}}), "{\"k\"\":\"v\"}");
}

TEST(JsonWriter, UnsupportedValuesLeaveOnlyTheirSeparator) {
  const Date date = Date::fromUnixSeconds(0);
  EXPECT_EQ(jsonWithArray(Array{1, date, 3}), "[1,,3]");
  EXPECT_EQ(jsonWithArray(Array{Bytes{1, 2}, PlistSet{}}), "[,]");
  EXPECT_EQ(jsonWithDict(PlistDictionary{{"k", date}, {"l", 2}}), "{\"k\":,\"l\":2}");
  EXPECT_EQ(jsonWithDict(PlistDictionary{{"last", Bytes{}}}), "{\"last\":}");
}

TEST(JsonWriter, NumbersBecome32BitIntegers) {
  EXPECT_EQ(jsonWithArray(Array{int64_t{4294967297}, int64_t{-1}, 2147483648ULL}),
            "[1,-1,-2147483648]");
  EXPECT_EQ(jsonWithArray(Array{1e12, -1e12, std::nan("")}), "[2147483647,-2147483648,0]");
}

TEST(JsonWriter, DictionariesKeepInsertionOrderAndNest) {
  EXPECT_EQ(jsonWithDict(PlistDictionary{{"k", "v"}}), "{\"k\":\"v\"}");
  PlistDictionary dict{{"z", 1}, {"a", Array{"x", PlistDictionary{{"n", nullptr}}}}, {"m", "s"}};
  EXPECT_EQ(jsonWithDict(dict), "{\"z\":1,\"a\":[\"x\",{\"n\":null}],\"m\":\"s\"}");
  EXPECT_EQ(jsonWithDict(PlistDictionary{}), "{}");
  EXPECT_EQ(jsonWithDict(static_cast<const PlistDictionary*>(nullptr)), std::nullopt);
  EXPECT_EQ(jsonWithDict(&dict), jsonWithDict(dict));
}

}  // namespace
}  // namespace wdc
