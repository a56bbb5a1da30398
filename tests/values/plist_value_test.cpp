#include "webdavconnect/plist_value.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

namespace wdc {
namespace {

using testing::ElementsAre;

TEST(PlistDictionary, KeepsInsertionOrderAndReplacesInPlace) {
  PlistDictionary dict;
  dict.set("zeta", 1);
  dict.set("alpha", "two");
  dict.set("mid", 3.5);
  dict.set("zeta", "replaced");
  EXPECT_THAT(dict.keys(), ElementsAre("zeta", "alpha", "mid"));
  EXPECT_EQ(dict.find("zeta")->asString(), "replaced");
  EXPECT_TRUE(dict.erase("alpha"));
  EXPECT_FALSE(dict.erase("alpha"));
  EXPECT_THAT(dict.keys(), ElementsAre("zeta", "mid"));
  EXPECT_EQ(dict.find("mid")->asDouble(), 3.5);  // index still right after erase
  EXPECT_EQ(dict.find("nope"), nullptr);
}

TEST(PlistDictionary, EqualityIsOrderSensitive) {
  PlistDictionary a{{"x", 1}, {"y", 2}};
  PlistDictionary b{{"y", 2}, {"x", 1}};
  PlistDictionary c{{"x", 1}, {"y", 2}};
  EXPECT_FALSE(a == b);
  EXPECT_TRUE(a == c);
}

TEST(PlistValue, IntegersKeepEvery64BitValueExactly) {
  PlistValue big(std::numeric_limits<uint64_t>::max());
  PlistValue small(static_cast<unsigned long long>(5));
  PlistValue negative(static_cast<long long>(std::numeric_limits<int64_t>::min()));
  EXPECT_EQ(big.kind(), PlistValue::Kind::kUnsignedInteger);
  EXPECT_EQ(big.asUInt64(), std::numeric_limits<uint64_t>::max());
  EXPECT_EQ(small.kind(), PlistValue::Kind::kInteger);
  EXPECT_EQ(small, PlistValue(5));
  EXPECT_EQ(negative.asInt64(), std::numeric_limits<int64_t>::min());
  EXPECT_TRUE(big.isInteger() && big.isNumber());
}

TEST(PlistValue, NumbersConvertAcrossKinds) {
  EXPECT_EQ(PlistValue(true).asInt64(), 1);
  EXPECT_EQ(PlistValue(2.9).asInt64(), 2);
  EXPECT_TRUE(PlistValue(3).asBool());
  EXPECT_FALSE(PlistValue(0.0).asBool());
  EXPECT_THROW((void)PlistValue("x").asInt64(), std::bad_variant_access);
}

TEST(PlistValue, DeepCopiesAndDeepEquality) {
  PlistDictionary inner{{"k", Bytes{1, 2, 3}}};
  PlistValue original(PlistValue::Array{PlistValue(inner), PlistValue(nullptr), PlistValue(Date{5})});
  PlistValue copy = original;
  EXPECT_EQ(copy, original);
  copy.asArray()[0].asDictionary().set("k", Bytes{9});
  EXPECT_NE(copy, original);
  EXPECT_EQ(original.asArray()[0].asDictionary().find("k")->asData(), (Bytes{1, 2, 3}));
}

TEST(PlistValue, UnknownObjectsCompareClassChainAndFields) {
  PlistUnknownObject a{{"TDTask", "NSObject"}, PlistDictionary{{"title", "x"}}};
  PlistUnknownObject b = a;
  EXPECT_EQ(PlistValue(a), PlistValue(b));
  b.classChain[0] = "TDOther";
  EXPECT_NE(PlistValue(a), PlistValue(b));
}

TEST(Date, ConvertsBetweenReferenceAndUnixSeconds) {
  Date d = Date::fromUnixSeconds(978307200.0 + 10.5);
  EXPECT_DOUBLE_EQ(d.sinceReferenceDate, 10.5);
  EXPECT_DOUBLE_EQ(d.unixSeconds(), 978307210.5);
  EXPECT_LT(Date{1}, Date{2});
}

}  // namespace
}  // namespace wdc
