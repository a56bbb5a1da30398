#include "webdavconnect/device.h"

#include <fmt/format.h>

#include <chrono>
#include <cmath>

namespace wdc {
namespace {

// How the platform prints an absent object.
constexpr const char* kAbsentText = "(null)";

// The platform's text form of a date: "2026-01-01 00:00:00 +0000".
std::string dateText(Date date) {
  using namespace std::chrono;
  const double unix = std::floor(date.unixSeconds());
  if (!std::isfinite(unix) || std::fabs(unix) > 1e15) return kAbsentText;
  const sys_seconds when{seconds{static_cast<int64_t>(unix)}};
  const auto day = floor<days>(when);
  const year_month_day ymd{day};
  const hh_mm_ss time{when - day};
  return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02} +0000", static_cast<int>(ymd.year()),
                     static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()),
                     time.hours().count(), time.minutes().count(), time.seconds().count());
}

}  // namespace

std::string WebDAVDevice::description() const {
  return fmt::format(
      "WebDAV Device: {{Name: {}, UDID: {}, Last Synced: {}, Did Update Server: {}, Version: {}}}",
      DeviceName.value_or(kAbsentText), UDID.value_or(kAbsentText),
      LastSynced ? dateText(*LastSynced) : std::string(kAbsentText),
      DidUpdatServerWithNewData ? 1 : 0, WebDAVVersion.value_or(kAbsentText));
}

}  // namespace wdc
