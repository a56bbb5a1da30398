// Date operations checked three ways: the documented cases with a fixed default or local zone,
// agreement with GNU date for zones with and without daylight saving (half-hour shifts
// included) on days around their changes, and the local zone taken from TZ. CTest runs this
// binary once per TZ value.
#include "webdavconnect/date_conversion.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>

#include <unistd.h>

#include "platform/virtual_env.h"
#include "util/date_conversion_internal.h"

namespace wdc {
namespace {

// Runs a shell command and returns its standard output split into lines.
std::vector<std::string> shellLines(const std::string& command) {
  std::vector<std::string> lines;
  std::FILE* pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) return lines;
  char buffer[256];
  std::string all;
  while (std::fgets(buffer, sizeof buffer, pipe) != nullptr) all += buffer;
  ::pclose(pipe);
  std::istringstream in(all);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// GNU date over many inputs at once: `inputs` one per line, read with -f.
std::vector<std::string> gnuDate(const std::string& tzPrefix, const std::vector<std::string>& inputs,
                                 const std::string& format) {
  // One file per process: CTest runs the per-zone copies of this binary side by side.
  const std::string file =
      testing::TempDir() + "date_inputs_" + std::to_string(::getpid()) + ".txt";
  std::ofstream(file) << [&] {
    std::string text;
    for (const std::string& input : inputs) text += input + "\n";
    return text;
  }();
  std::vector<std::string> lines = shellLines(tzPrefix + "date -f " + file + " '+" + format + "'");
  std::remove(file.c_str());
  return lines;
}

double toDouble(const std::string& text) { return std::stod(text); }

// "+0530" / "-0800" as seconds east of GMT.
int offsetSeconds(const std::string& z) {
  const int sign = z[0] == '-' ? -1 : 1;
  return sign * (std::stoi(z.substr(1, 2)) * 3600 + std::stoi(z.substr(3, 2)) * 60);
}

// Instants around the daylight-saving changes of 2023 in the zones used below, plus ordinary
// days and an old date.
std::vector<double> sampleInstants() {
  std::vector<double> instants;
  for (double day : {1678449600.0, 1678579200.0, 1679788800.0, 1680350400.0, 1680436800.0,
                     1696118400.0, 1696204800.0, 1698537600.0, 1699142400.0, 1700000000.0,
                     1703980800.0, 86400.0 * 3650}) {
    for (int hour = 0; hour < 24; hour += 3) instants.push_back(day + hour * 3600.0 + 1234.0);
  }
  return instants;
}

class DateConversionTest : public testing::Test {
 protected:
  void TearDown() override {
    TimeZone::setDefaultZone(std::nullopt);
    setLocalTimeZoneForTesting(std::nullopt);
  }
  static TimeZone zone(const char* name) {
    std::optional<TimeZone> z = TimeZone::named(name);
    EXPECT_TRUE(z.has_value()) << name;
    return z.value_or(TimeZone::withOffset(0));
  }
};

TEST_F(DateConversionTest, NoonFloatingValuesInAFixedZone) {
  TimeZone::setDefaultZone(TimeZone::withOffset(7200));
  // 2023-03-10 23:30 at UTC+2 is 21:30 UTC.
  EXPECT_EQ(absoluteTimeIntervalSince1970(Date::fromUnixSeconds(1678483800)), 1678449600.0);
  EXPECT_EQ(dateWithAbsoluteTimeIntervalSince1970(1678449600).unixSeconds(), 1678442400.0);
  EXPECT_EQ(syncableTimeIntervalSince1970(Date::fromUnixSeconds(1678483800)), 1678491000.0);
  EXPECT_EQ(syncableDateWithTimeIntervalSince1970(1678491000).unixSeconds(), 1678483800.0);
  // An explicit calendar wins over the default zone.
  const GregorianCalendar utc(TimeZone::withOffset(0));
  EXPECT_EQ(absoluteTimeIntervalSince1970(Date::fromUnixSeconds(1678483800), &utc), 1678449600.0);
  EXPECT_EQ(syncableTimeIntervalSince1970(Date::fromUnixSeconds(1678483800), &utc), 1678483800.0);
}

TEST_F(DateConversionTest, NoonProbeOnlyInTheAbsoluteDirection) {
  // Berlin moves from +1 to +2 at 2023-03-26 01:00 UTC. The floating midnight of that day reads
  // the +1 offset at itself but the +2 offset twelve hours later.
  TimeZone::setDefaultZone(zone("Europe/Berlin"));
  EXPECT_EQ(syncableDateWithTimeIntervalSince1970(1679788800).unixSeconds(), 1679785200.0);
  EXPECT_EQ(dateWithAbsoluteTimeIntervalSince1970(1679788800).unixSeconds(), 1679781600.0);
  // East of GMT the probe can land on the next day: Lord Howe leaves +11 for +10:30 on
  // 2023-04-02 at 02:00 local, so 2023-04-01's noon value comes back as 11:30 local.
  TimeZone::setDefaultZone(zone("Australia/Lord_Howe"));
  EXPECT_EQ(dateWithAbsoluteTimeIntervalSince1970(1680350400).unixSeconds(), 1680312600.0);
}

TEST_F(DateConversionTest, AbsoluteValuesAgreeWithGnuDate) {
  const std::vector<double> instants = sampleInstants();
  for (const char* name : {"Europe/Berlin", "America/Los_Angeles", "Asia/Kolkata",
                           "Australia/Lord_Howe", "Pacific/Chatham", "UTC"}) {
    const std::string tz = std::string("TZ=") + name + " ";
    std::vector<std::string> at;
    for (double t : instants) at.push_back("@" + std::to_string(static_cast<long long>(t)));
    const std::vector<std::string> days = gnuDate(tz, at, "%Y-%m-%d");
    ASSERT_EQ(days.size(), instants.size()) << name;
    std::vector<std::string> noons;
    for (const std::string& day : days) noons.push_back(day + " 12:00");
    const std::vector<std::string> floating = gnuDate("TZ=UTC ", noons, "%s");
    ASSERT_EQ(floating.size(), instants.size());
    // The way back reads the zone's offset twelve hours after the floating value taken as an
    // instant; GNU date gives that offset.
    std::vector<std::string> probes;
    for (const std::string& f : floating) {
      probes.push_back("@" + std::to_string(std::stoll(f) + 43200));
    }
    const std::vector<std::string> probeOffsets = gnuDate(tz, probes, "%z");
    ASSERT_EQ(probeOffsets.size(), instants.size());

    TimeZone::setDefaultZone(zone(name));
    for (size_t i = 0; i < instants.size(); ++i) {
      const Date date = Date::fromUnixSeconds(instants[i]);
      EXPECT_EQ(absoluteTimeIntervalSince1970(date), toDouble(floating[i])) << name << " " << at[i];
      EXPECT_EQ(dateWithAbsoluteTimeIntervalSince1970(toDouble(floating[i])).unixSeconds(),
                toDouble(floating[i]) - offsetSeconds(probeOffsets[i]))
          << name << " " << days[i];
    }
  }
}

TEST_F(DateConversionTest, PinnedHoursUseTheLocalZoneFromTZ) {
  // No override: the local zone is whatever TZ says for this run; GNU date reads the same TZ.
  const std::vector<double> instants = sampleInstants();
  std::vector<std::string> at;
  for (double t : instants) at.push_back("@" + std::to_string(static_cast<long long>(t)));
  const std::vector<std::string> days = gnuDate("", at, "%Y-%m-%d");
  const std::vector<std::string> offsets = gnuDate("", at, "%z");
  ASSERT_EQ(days.size(), instants.size());
  ASSERT_EQ(offsets.size(), instants.size());
  for (int hour : {12, 23}) {
    std::vector<std::string> pinned;
    for (const std::string& day : days) pinned.push_back(day + " " + std::to_string(hour) + ":00");
    const std::vector<std::string> floating = gnuDate("TZ=UTC ", pinned, "%s");
    ASSERT_EQ(floating.size(), instants.size());
    for (size_t i = 0; i < instants.size(); ++i) {
      const Date date = Date::fromUnixSeconds(instants[i]);
      EXPECT_EQ(gh_timeIntervalSince1970(date, hour), toDouble(floating[i])) << at[i];
    }
  }
  for (size_t i = 0; i < instants.size(); ++i) {
    const Date date = Date::fromUnixSeconds(instants[i]);
    const int offset = offsetSeconds(offsets[i]);
    EXPECT_EQ(TimeZone::local().secondsFromGMT(date), offset) << at[i];
    EXPECT_EQ(gh_timeIntervalSince1970(date, 12, false, true), instants[i] + offset);
    EXPECT_EQ(convertDateFromTimezone(date, nullptr).unixSeconds(), instants[i] + offset);
  }
  EXPECT_EQ(gh_timeIntervalSince1970(Date::fromUnixSeconds(1700000000), 12),
            gh_timeIntervalSince1970(Date::fromUnixSeconds(1700000000)));
}

TEST_F(DateConversionTest, StartOfEpochFlagIsDroppedByTheThreeArgumentForm) {
  const Date date = Date::fromUnixSeconds(1700000000);
  EXPECT_EQ(gh_timeIntervalSince1970(date, 9, true), gh_timeIntervalSince1970(date, 9));
  EXPECT_EQ(gh_timeIntervalSince1970(date, 9, true), gh_timeIntervalSince1970(date, 9, false));
  // The four-argument form honours it: 1970-01-01 12:00 read as UTC, in any local zone.
  EXPECT_EQ(gh_timeIntervalSince1970(date, 12, true, false), 43200.0);
  EXPECT_EQ(gh_timeIntervalSince1970(std::nullopt), 0.0);
  EXPECT_EQ(gh_timeIntervalSince1970(std::nullopt, 5, true, true), 0.0);
}

TEST_F(DateConversionTest, ConvertFromAZoneToTheLocalClock) {
  setLocalTimeZoneForTesting(TimeZone::withOffset(-5 * 3600));
  const Date date = Date::fromUnixSeconds(1700000000);
  EXPECT_EQ(convertDateFromTimezone(date, nullptr).unixSeconds(), 1700000000.0 - 5 * 3600);
  const TimeZone kolkata = zone("Asia/Kolkata");
  EXPECT_EQ(convertDateFromTimezone(date, &kolkata).unixSeconds(),
            1700000000.0 - 5 * 3600 - 19800);
}

TEST_F(DateConversionTest, ParseTimeSinceEpoch) {
  setLocalTimeZoneForTesting(TimeZone::withOffset(3600));
  const Date fallback = Date::fromUnixSeconds(42);
  const PlistValue zero("0");
  EXPECT_EQ(gh_parseTimeSinceEpoch(&zero), Date::fromUnixSeconds(0));
  EXPECT_EQ(gh_parseTimeSinceEpoch(nullptr, fallback), fallback);
  const PlistValue null;
  EXPECT_EQ(gh_parseTimeSinceEpoch(&null, fallback), fallback);
  EXPECT_EQ(gh_parseTimeSinceEpoch(&null), std::nullopt);
  struct {
    PlistValue value;
    double seconds;
  } cases[] = {{1.5e9, 1.5e9}, {int64_t{86400}, 86400}, {" \t12.5abc", 12.5}, {"+7", 7},
               {"-3e2", -300}, {"abc", 0},            {"", 0},            {true, 1},
               {"inf", 0},     {Bytes{1}, 0}};
  for (const auto& c : cases) {
    EXPECT_EQ(gh_parseTimeSinceEpoch(&c.value, fallback), Date::fromUnixSeconds(c.seconds));
  }
  // A zone other than the local one moves the instant by (local - zone).
  const PlistValue noon(43200);
  const TimeZone sameAsLocal = TimeZone::withOffset(3600);
  const TimeZone plusThree = TimeZone::withOffset(3 * 3600);
  EXPECT_EQ(gh_parseTimeSinceEpoch(&noon, fallback, &sameAsLocal), Date::fromUnixSeconds(43200));
  EXPECT_EQ(gh_parseTimeSinceEpoch(&noon, fallback, &plusThree),
            Date::fromUnixSeconds(43200 - 2 * 3600));
}

TEST_F(DateConversionTest, TwentyFourHourClockFollowsTheLocaleTimeFormat) {
  VirtualEnv env;  // the formatted time comes from the Env's clock
  ScopedEnv use(env);
  EXPECT_FALSE(is24HourClockInLocale("en_US"));
  EXPECT_FALSE(is24HourClockInLocale("ko_KR"));
  EXPECT_TRUE(is24HourClockInLocale("de_DE"));
  EXPECT_TRUE(is24HourClockInLocale("en_GB"));
  EXPECT_TRUE(is24HourClockInLocale("ja_JP"));
  (void)Is24HourClock();  // the user's locale: any answer, no failure
}

TEST_F(DateConversionTest, ZonesAndDefaults) {
  EXPECT_EQ(TimeZone::named("Not/AZone"), std::nullopt);
  EXPECT_EQ(zone("Asia/Kolkata").identifier(), "Asia/Kolkata");
  EXPECT_TRUE(zone("Asia/Kolkata") == zone("Asia/Kolkata"));
  EXPECT_FALSE(zone("Asia/Kolkata") == zone("Europe/Berlin"));
  EXPECT_EQ(zone("Asia/Kolkata").secondsFromGMT(Date::fromUnixSeconds(1700000000)), 19800);
  EXPECT_EQ(zone("Australia/Lord_Howe").secondsFromGMT(Date::fromUnixSeconds(1700000000)), 39600);
  EXPECT_EQ(zone("Australia/Lord_Howe").secondsFromGMT(Date::fromUnixSeconds(1690000000)), 37800);
  EXPECT_TRUE(TimeZone::defaultZone() == TimeZone::local());
  TimeZone::setDefaultZone(zone("Pacific/Chatham"));
  EXPECT_EQ(TimeZone::defaultZone().identifier(), "Pacific/Chatham");
  EXPECT_EQ(GregorianCalendar().timeZone().identifier(), "Pacific/Chatham");
  TimeZone::setDefaultZone(std::nullopt);
  EXPECT_TRUE(TimeZone::defaultZone() == TimeZone::local());
  // Instants far outside the calendar's range still get an offset.
  EXPECT_EQ(zone("Asia/Kolkata").secondsFromGMT(Date::fromUnixSeconds(1e300)), 19800);
  EXPECT_EQ(TimeZone::withOffset(-12600).secondsFromGMT(Date::fromUnixSeconds(-1e300)), -12600);
}

}  // namespace
}  // namespace wdc
