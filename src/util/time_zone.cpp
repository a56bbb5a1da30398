// TimeZone over ICU's time-zone data, and the process-wide local and default zones.
#include <unicode/simpletz.h>
#include <unicode/timezone.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <mutex>

#include "util/date_conversion_internal.h"
#include "util/time_zone_rep.h"
#include "webdavconnect/date_conversion.h"

namespace wdc {

namespace {

// ICU's calendar range; offsets of instants beyond it are taken at its edge.
constexpr double kMaxMillis = 183882168921600000.0;

struct ZoneState {
  std::mutex mutex;
  std::optional<TimeZone> local;          // read from the system once
  std::optional<TimeZone> localOverride;  // tests
  std::optional<TimeZone> defaultZone;
};

ZoneState& zoneState() {
  static ZoneState* const state = new ZoneState();  // never destroyed: no shutdown-order surprises
  return *state;
}

}  // namespace

std::optional<TimeZone> TimeZone::named(std::string_view identifier) {
  icu::UnicodeString id = icu::UnicodeString::fromUTF8(
      icu::StringPiece(identifier.data(), static_cast<int32_t>(identifier.size())));
  std::unique_ptr<icu::TimeZone> zone(icu::TimeZone::createTimeZone(id));
  if (zone == nullptr || *zone == icu::TimeZone::getUnknown()) return std::nullopt;
  return TimeZone(std::make_shared<const Rep>(Rep{std::move(zone)}));
}

TimeZone TimeZone::withOffset(int32_t secondsEastOfGMT) {
  const int32_t total = std::abs(secondsEastOfGMT);
  char name[32];
  std::snprintf(name, sizeof name, "GMT%c%02d:%02d", secondsEastOfGMT < 0 ? '-' : '+',
                total / 3600, (total / 60) % 60);
  auto zone = std::make_unique<icu::SimpleTimeZone>(secondsEastOfGMT * 1000,
                                                    icu::UnicodeString(name, -1, US_INV));
  return TimeZone(std::make_shared<const Rep>(Rep{std::move(zone)}));
}

TimeZone TimeZone::local() {
  ZoneState& state = zoneState();
  std::lock_guard<std::mutex> lock(state.mutex);
  if (state.localOverride) return *state.localOverride;
  if (!state.local) {
    std::unique_ptr<icu::TimeZone> zone(icu::TimeZone::detectHostTimeZone());
    if (zone == nullptr) zone.reset(icu::TimeZone::getGMT()->clone());
    state.local = TimeZone(std::make_shared<const Rep>(Rep{std::move(zone)}));
  }
  return *state.local;
}

TimeZone TimeZone::defaultZone() {
  {
    ZoneState& state = zoneState();
    std::lock_guard<std::mutex> lock(state.mutex);
    if (state.defaultZone) return *state.defaultZone;
  }
  return local();
}

void TimeZone::setDefaultZone(std::optional<TimeZone> zone) {
  ZoneState& state = zoneState();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.defaultZone = std::move(zone);
}

void setLocalTimeZoneForTesting(std::optional<TimeZone> zone) {
  ZoneState& state = zoneState();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.localOverride = std::move(zone);
}

int32_t TimeZone::secondsFromGMT(Date instant) const {
  double millis = instant.unixSeconds() * 1000.0;
  if (std::isnan(millis)) millis = 0;
  millis = std::clamp(millis, -kMaxMillis, kMaxMillis);
  int32_t raw = 0;
  int32_t dst = 0;
  UErrorCode status = U_ZERO_ERROR;
  rep_->zone->getOffset(millis, false, raw, dst, status);
  if (U_FAILURE(status)) return 0;
  return (raw + dst) / 1000;
}

std::string TimeZone::identifier() const {
  icu::UnicodeString id;
  rep_->zone->getID(id);
  std::string out;
  id.toUTF8String(out);
  return out;
}

bool TimeZone::operator==(const TimeZone& other) const {
  return rep_ == other.rep_ || *rep_->zone == *other.rep_->zone;
}

GregorianCalendar::GregorianCalendar() : zone_(TimeZone::defaultZone()) {}

}  // namespace wdc
