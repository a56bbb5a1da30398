// Date operations for the host to-do application. Besides real instants (Date) they work with
// "floating seconds": the wall-clock reading in some time zone written as if it were UTC, as a
// double of seconds since 1970. Instants are converted to floating values and back, a day is
// pinned to a fixed hour (12:00 unless another hour is given), epoch values become dates with an
// optional zone correction, and instants move between zones.
//
// Calendars are Gregorian (ICU) in the user's locale. Zones come from ICU's time-zone data:
//   - the local zone is the system's (the TZ variable, else /etc/localtime), read once;
//   - the default zone is the one set with TimeZone::setDefaultZone(), else the local zone.
// A zone's offset is whole seconds east of GMT at the given instant, daylight saving included.
// Every function is thread-safe; the current time comes from the Env.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "webdavconnect/date.h"
#include "webdavconnect/plist_value.h"

namespace wdc {

// A time zone: an identifier with its offset rules. A value type (copies share the immutable
// rules). Thread-safe.
class TimeZone {
 public:
  // The zone named by an IANA identifier ("Europe/Berlin") or a GMT offset form ("GMT+02:00");
  // nullopt for a name ICU does not know.
  static std::optional<TimeZone> named(std::string_view identifier);
  // A fixed offset of `secondsEastOfGMT` with no daylight saving.
  static TimeZone withOffset(int32_t secondsEastOfGMT);
  // The system's zone (read from the TZ variable, else /etc/localtime, on first use).
  static TimeZone local();
  // The zone set with setDefaultZone(), else local().
  static TimeZone defaultZone();
  // Sets (or, with nullopt, clears) the process-wide default zone.
  static void setDefaultZone(std::optional<TimeZone> zone);

  // Seconds east of GMT at `instant`.
  [[nodiscard]] int32_t secondsFromGMT(Date instant) const;
  [[nodiscard]] std::string identifier() const;
  // Same identifier and same rules.
  bool operator==(const TimeZone& other) const;

  struct Rep;
  [[nodiscard]] const Rep& rep() const { return *rep_; }

 private:
  explicit TimeZone(std::shared_ptr<const Rep> rep) : rep_(std::move(rep)) {}
  std::shared_ptr<const Rep> rep_;
};

// A Gregorian calendar in the user's locale; only its zone changes what these operations
// compute. A value type. Thread-safe.
class GregorianCalendar {
 public:
  // A calendar in the default zone.
  GregorianCalendar();
  explicit GregorianCalendar(TimeZone zone) : zone_(std::move(zone)) {}
  [[nodiscard]] const TimeZone& timeZone() const { return zone_; }

 private:
  TimeZone zone_;
};

// ---- Instants and floating seconds ----

// Floating seconds of `date`'s calendar day at 12:00:00, in `calendar`'s zone (a new calendar in
// the default zone when null). The host's first argument of this operation was never read and is
// not taken here.
[[nodiscard]] double absoluteTimeIntervalSince1970(Date date,
                                                   const GregorianCalendar* calendar = nullptr);

// The instant whose default-zone day at noon reads `floating`: floating minus the zone's offset
// taken 12 hours after it, so a day with a daylight-saving change keeps that day's offset.
[[nodiscard]] Date dateWithAbsoluteTimeIntervalSince1970(double floating);

// Floating seconds of `date` in `calendar`'s zone (the default zone when null).
[[nodiscard]] double syncableTimeIntervalSince1970(Date date,
                                                   const GregorianCalendar* calendar = nullptr);

// The instant t minus the default zone's offset at t itself (no 12-hour probe, unlike
// dateWithAbsoluteTimeIntervalSince1970; stored data depends on the difference).
[[nodiscard]] Date syncableDateWithTimeIntervalSince1970(double floating);

// The instant at which the local clock shows what `zone`'s clock showed at `date`: date plus
// (local offset - zone offset), both taken at `date`. A null zone means GMT.
[[nodiscard]] Date convertDateFromTimezone(Date date, const TimeZone* zone);

// True when the user's locale writes the time of day without an AM/PM marker: the current time
// formatted in the medium time style is one piece when split at spaces.
[[nodiscard]] bool Is24HourClock();

// ---- Epoch values ----

// `value` (a number, or a numeric string read as a double; text that is not a number reads as 0,
// and so do values of other kinds) as seconds after 1970. A null pointer or null value gives
// `defaultDate`. When `zone` is given and differs from the local zone, the instant moves by
// (local offset - zone offset) at it.
[[nodiscard]] std::optional<Date> gh_parseTimeSinceEpoch(const PlistValue* value,
                                                         std::optional<Date> defaultDate,
                                                         const TimeZone* zone = nullptr);
// The same with no default: a null value gives nullopt.
[[nodiscard]] std::optional<Date> gh_parseTimeSinceEpoch(const PlistValue* value);

// Floating seconds (local zone) of `date`'s local day at `hour`:00:00 (12 by default). A null
// date gives 0.0. With `ignoreSettingTime`, the date is used as it is instead; with
// `withStartOfEpoch` (only honoured by the four-argument form) the day becomes 1970-01-01.
[[nodiscard]] double gh_timeIntervalSince1970(std::optional<Date> date, int hour = 12);
// Accepts and drops `withStartOfEpoch`: behaves exactly like the two-argument form, which
// callers rely on.
[[nodiscard]] double gh_timeIntervalSince1970(std::optional<Date> date, int hour,
                                              bool withStartOfEpoch);
[[nodiscard]] double gh_timeIntervalSince1970(std::optional<Date> date, int hour,
                                              bool withStartOfEpoch, bool ignoreSettingTime);

}  // namespace wdc
