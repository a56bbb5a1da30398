// The date operations over ICU's Gregorian calendar. "Rebuilding" a date keeps year, month and
// day (and hour and minute unless replaced) read in the calendar's zone, sets seconds and
// fractions to 0, and lets ICU resolve the wall time back to an instant (a wall time skipped by
// a daylight-saving change resolves to the later side).
#include <unicode/datefmt.h>
#include <unicode/gregocal.h>
#include <unicode/locid.h>
#include <unicode/timezone.h>

#include <charconv>
#include <cmath>
#include <memory>

#include "platform/env.h"
#include "util/date_conversion_internal.h"
#include "util/time_zone_rep.h"
#include "webdavconnect/date_conversion.h"

namespace wdc {

namespace {

struct DayChange {
  int hour = 12;              // replaces the hour; minute, second and millisecond become 0
  bool startOfEpoch = false;  // replaces the day by 1970-01-01
};

// `date` read in `zone`, changed as asked, and turned back into an instant.
Date rebuild(Date date, const TimeZone& zone, const DayChange& change) {
  UErrorCode status = U_ZERO_ERROR;
  icu::GregorianCalendar calendar(zone.rep().zone->clone(), icu::Locale::getDefault(), status);
  if (U_FAILURE(status)) return date;
  calendar.setTime(date.unixSeconds() * 1000.0, status);
  if (U_FAILURE(status)) return date;
  if (change.startOfEpoch) {
    calendar.set(UCAL_EXTENDED_YEAR, 1970);
    calendar.set(UCAL_MONTH, UCAL_JANUARY);
    calendar.set(UCAL_DATE, 1);
  }
  calendar.set(UCAL_HOUR_OF_DAY, change.hour);
  calendar.set(UCAL_MINUTE, 0);
  calendar.set(UCAL_SECOND, 0);
  calendar.set(UCAL_MILLISECOND, 0);
  const UDate millis = calendar.getTime(status);
  if (U_FAILURE(status)) return date;
  return Date::fromUnixSeconds(millis / 1000.0);
}

double floatingSeconds(Date date, const TimeZone& zone) {
  return date.unixSeconds() + static_cast<double>(zone.secondsFromGMT(date));
}

// NSString-style doubleValue: leading white space skipped, then the longest number prefix;
// anything else is 0. Infinities and NaN read as 0 so no caller is handed an unusable date.
double doubleValueOfText(const std::string& text) {
  size_t pos = text.find_first_not_of(" \t\n\r\f\v");
  if (pos == std::string::npos) return 0;
  if (text[pos] == '+') ++pos;
  double value = 0;
  auto result = std::from_chars(text.data() + pos, text.data() + text.size(), value);
  if (result.ec != std::errc()) return 0;
  return std::isfinite(value) ? value : 0;
}

bool isSpace(UChar c) { return c == u' ' || c == 0x00A0 || c == 0x202F; }

}  // namespace

double absoluteTimeIntervalSince1970(Date date, const GregorianCalendar* calendar) {
  const TimeZone zone = calendar != nullptr ? calendar->timeZone() : TimeZone::defaultZone();
  const Date noon = rebuild(date, zone, {.hour = 12});
  return floatingSeconds(noon, zone);
}

Date dateWithAbsoluteTimeIntervalSince1970(double floating) {
  const TimeZone zone = TimeZone::defaultZone();
  const int32_t offset = zone.secondsFromGMT(Date::fromUnixSeconds(floating + 43200));
  return Date::fromUnixSeconds(floating - static_cast<double>(offset));
}

double syncableTimeIntervalSince1970(Date date, const GregorianCalendar* calendar) {
  return floatingSeconds(date,
                         calendar != nullptr ? calendar->timeZone() : TimeZone::defaultZone());
}

Date syncableDateWithTimeIntervalSince1970(double floating) {
  const int32_t offset = TimeZone::defaultZone().secondsFromGMT(Date::fromUnixSeconds(floating));
  return Date::fromUnixSeconds(floating - static_cast<double>(offset));
}

Date convertDateFromTimezone(Date date, const TimeZone* zone) {
  const int32_t local = TimeZone::local().secondsFromGMT(date);
  const int32_t other = zone != nullptr ? zone->secondsFromGMT(date) : 0;
  return Date::fromUnixSeconds(date.unixSeconds() + static_cast<double>(local - other));
}

bool is24HourClockInLocale(const char* localeId) {
  std::unique_ptr<icu::DateFormat> format(
      icu::DateFormat::createTimeInstance(icu::DateFormat::kMedium, icu::Locale(localeId)));
  if (format == nullptr) return false;
  const double now =
      std::chrono::duration<double, std::milli>(Env::current().now().time_since_epoch()).count();
  icu::UnicodeString text;
  format->format(now, text);
  // Recent ICU data put a narrow no-break space before AM/PM where older platforms put a plain
  // space; both separate the marker, so both count.
  for (int32_t i = 0; i < text.length(); ++i) {
    if (isSpace(text.charAt(i))) return false;
  }
  return true;
}

bool Is24HourClock() { return is24HourClockInLocale(icu::Locale::getDefault().getName()); }

std::optional<Date> gh_parseTimeSinceEpoch(const PlistValue* value,
                                           std::optional<Date> defaultDate,
                                           const TimeZone* zone) {
  if (value == nullptr || value->isNull()) return defaultDate;
  double seconds = 0;
  if (value->isNumber()) {
    seconds = value->asDouble();
    if (!std::isfinite(seconds)) seconds = 0;
  } else if (const std::string* text = value->stringIf()) {
    seconds = doubleValueOfText(*text);
  }
  const Date date = Date::fromUnixSeconds(seconds);
  if (zone == nullptr) return date;
  const TimeZone local = TimeZone::local();
  if (local == *zone) return date;
  const int32_t shift = local.secondsFromGMT(date) - zone->secondsFromGMT(date);
  return Date::fromUnixSeconds(seconds + static_cast<double>(shift));
}

std::optional<Date> gh_parseTimeSinceEpoch(const PlistValue* value) {
  return gh_parseTimeSinceEpoch(value, std::nullopt, nullptr);
}

double gh_timeIntervalSince1970(std::optional<Date> date, int hour) {
  return gh_timeIntervalSince1970(date, hour, false, false);
}

double gh_timeIntervalSince1970(std::optional<Date> date, int hour, bool /*withStartOfEpoch*/) {
  // The flag has always been dropped on the way through; callers rely on that.
  return gh_timeIntervalSince1970(date, hour, false, false);
}

double gh_timeIntervalSince1970(std::optional<Date> date, int hour, bool withStartOfEpoch,
                                bool ignoreSettingTime) {
  if (!date) return 0.0;
  const TimeZone local = TimeZone::local();
  Date pinned = *date;
  if (!ignoreSettingTime) {
    pinned = rebuild(*date, local, {.hour = hour, .startOfEpoch = withStartOfEpoch});
  }
  return floatingSeconds(pinned, local);
}

}  // namespace wdc
