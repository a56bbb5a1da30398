// Dates in the payload JSON form: {"$date": text} alone is read as ISO 8601; with "$time" the
// number is the value, so decode -> encode stays exact.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "webdavconnect/payload.h"

namespace wdc {
namespace {

std::string dateOnlyJson(const std::string& text) { return R"({"$date": ")" + text + R"("})"; }

TEST(PayloadJsonDate, TextAloneIsTheInstant) {
  struct Case {
    const char* text;
    double sinceReferenceDate;
  };
  const Case cases[] = {
      {"2001-01-01", 0.0},
      {"2001-01-01T00:00Z", 0.0},
      {"2023-03-08T20:26:40.5Z", 700000000.5},
      {"2023-03-08T20:26:40.500000Z", 700000000.5},
      {"1981-05-16T11:32:06Z", -619446474.0},
      {"1582-10-15T00:00:00.000000Z", -13197600000.0},
      {"2001-01-01T01:00:00+01:00", 0.0},
      {"2000-12-31T22:30:00-0130", 0.0},
      {"2024-02-29T12:00:00Z", 730900800.0},
      {"0000-02-29", -63140428800.0},  // proleptic Gregorian: year 0 is a leap year
  };
  for (const Case& c : cases) {
    std::optional<Error> error;
    auto value = payloadValueFromJSON(dateOnlyJson(c.text), &error);
    ASSERT_TRUE(value.has_value()) << c.text << ": " << error->description();
    ASSERT_TRUE(value->isDate()) << c.text;
    EXPECT_EQ(value->asDate().sinceReferenceDate, c.sinceReferenceDate) << c.text;
  }
}

TEST(PayloadJsonDate, PrintedTextReadAloneGivesTheInstantToTheMicrosecond) {
  for (double t : {625945468.42794, -13197600000.0, 0.000001, -0.25, 700000000.5, 3e9 + 0.999999}) {
    const std::string printed = payloadValueToJSON(Date{t}, -1);
    const size_t start = printed.find(":\"") + 2;
    const std::string text = printed.substr(start, printed.find('"', start) - start);
    std::optional<Error> error;
    auto value = payloadValueFromJSON(dateOnlyJson(text), &error);
    ASSERT_TRUE(value.has_value()) << text << ": " << error->description();
    EXPECT_NEAR(value->asDate().sinceReferenceDate, t, 0.6e-6) << text;
  }
}

TEST(PayloadJsonDate, TimeWinsOverTextSoTheRoundTripIsExact) {
  const Date due{625945468.42794};
  std::optional<Error> error;
  auto back = payloadValueFromJSON(payloadValueToJSON(due), &error);
  ASSERT_TRUE(back.has_value());
  EXPECT_EQ(back->asDate(), due);
  // The text beside "$time" is only for reading; it is not checked.
  back = payloadValueFromJSON(R"({"$date": "not a date", "$time": 1.25})", &error);
  ASSERT_TRUE(back.has_value());
  EXPECT_EQ(back->asDate().sinceReferenceDate, 1.25);
}

TEST(PayloadJsonDate, BadTextIsRefusedNamingTheValue) {
  for (const char* text :
       {"2023-02-29", "2023-04-31", "2023-13-01", "2023-00-10", "23-03-08", "2023-3-8",
        "2023-03-08T20:26:40", "2023-03-08T24:00:00Z", "2023-03-08T20:60Z", "2023-03-08T20:26:61Z",
        "2023-03-08 20:26:40Z", "2023-03-08T20:26:40.Z", "2023-03-08T20:26:40Z junk",
        "2023-03-08T20:26:40+1", "yesterday", ""}) {
    std::optional<Error> error;
    EXPECT_FALSE(payloadValueFromJSON(dateOnlyJson(text), &error).has_value()) << text;
    ASSERT_TRUE(error.has_value()) << text;
    EXPECT_NE(error->description().find("$date \"" + std::string(text) + "\" is not an ISO 8601"),
              std::string::npos)
        << error->description();
  }
  std::optional<Error> error;
  EXPECT_FALSE(payloadValueFromJSON(R"({"$date": 700000000})", &error).has_value());
  ASSERT_TRUE(error.has_value());
  EXPECT_NE(error->description().find("$date is not a string"), std::string::npos);

  // A hostile value is quoted, escaped and cut, so the message stays one short line.
  error.reset();
  const std::string hostile = "\\n" + std::string(500, 'x');
  EXPECT_FALSE(payloadValueFromJSON(dateOnlyJson(hostile), &error).has_value());
  ASSERT_TRUE(error.has_value());
  EXPECT_EQ(error->description().find('\n'), std::string::npos);
  EXPECT_EQ(error->description().find(std::string(100, 'x')), std::string::npos);
}

}  // namespace
}  // namespace wdc
