// Test seams of the date operations: a stand-in for the system zone, and the 24-hour test for a
// named locale instead of the user's.
#pragma once

#include <optional>

#include "webdavconnect/date_conversion.h"

namespace wdc {

// Makes TimeZone::local() answer `zone` (nullopt: the system zone again).
void setLocalTimeZoneForTesting(std::optional<TimeZone> zone);

// Is24HourClock() as it would answer in the ICU locale `localeId` ("en_US", "de_DE").
[[nodiscard]] bool is24HourClockInLocale(const char* localeId);

}  // namespace wdc
