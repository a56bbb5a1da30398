#include "dbx/metadata.h"

#include <charconv>
#include <cstdio>

#include "dbx/route_types.h"
#include "dbx/tag_names.h"

namespace wdc::dbx {

const DBFILESFileMetadata* DBFILESMetadata::asFile() const {
  return isFile() ? static_cast<const DBFILESFileMetadata*>(this) : nullptr;
}
const DBFILESFolderMetadata* DBFILESMetadata::asFolder() const {
  return isFolder() ? static_cast<const DBFILESFolderMetadata*>(this) : nullptr;
}

std::string DBFILESUploadSessionFinishBatchResultEntry::tagName() const {
  return std::string(tags::nameOf(tags::kResultEntry, tag));
}

std::string formatTimestamp(DBTimestamp time) {
  using namespace std::chrono;
  auto seconds = floor<std::chrono::seconds>(time);
  auto days = floor<std::chrono::days>(seconds);
  year_month_day ymd{days};
  hh_mm_ss hms{seconds - days};
  char text[32];
  std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02dZ", static_cast<int>(ymd.year()),
                static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()),
                static_cast<int>(hms.hours().count()), static_cast<int>(hms.minutes().count()),
                static_cast<int>(hms.seconds().count()));
  return text;
}

std::optional<DBTimestamp> parseTimestamp(std::string_view text) {
  // Exactly YYYY-MM-DDTHH:MM:SSZ.
  if (text.size() != 20 || text[4] != '-' || text[7] != '-' || text[10] != 'T' ||
      text[13] != ':' || text[16] != ':' || text[19] != 'Z') {
    return std::nullopt;
  }
  auto number = [&](std::size_t at, std::size_t length, int& out) {
    const char* first = text.data() + at;
    const char* last = first + length;
    for (const char* p = first; p != last; ++p) {
      if (*p < '0' || *p > '9') return false;
    }
    return std::from_chars(first, last, out).ec == std::errc();
  };
  int y, mo, d, h, mi, s;
  if (!number(0, 4, y) || !number(5, 2, mo) || !number(8, 2, d) || !number(11, 2, h) ||
      !number(14, 2, mi) || !number(17, 2, s)) {
    return std::nullopt;
  }
  using namespace std::chrono;
  year_month_day ymd{year{y}, month{static_cast<unsigned>(mo)}, day{static_cast<unsigned>(d)}};
  if (!ymd.ok() || h > 23 || mi > 59 || s > 60) return std::nullopt;
  // Whole seconds cannot overflow for a four-digit year; the clock's finer ticks can.
  const seconds sinceEpoch =
      sys_days(ymd).time_since_epoch() + hours(h) + minutes(mi) + seconds(s);
  return timestampAfter(DBTimestamp{}, sinceEpoch);
}

std::optional<DBTimestamp> timestampAfter(DBTimestamp base, std::chrono::seconds offset) {
  using Ticks = DBTimestamp::duration;
  static_assert(Ticks::period::num == 1, "a second must be a whole number of clock ticks");
  constexpr Ticks::rep kTicksPerSecond = Ticks::period::den;
  Ticks::rep ticks = 0;
  Ticks::rep sum = 0;
  if (__builtin_mul_overflow(offset.count(), kTicksPerSecond, &ticks) ||
      __builtin_add_overflow(base.time_since_epoch().count(), ticks, &sum)) {
    return std::nullopt;
  }
  return DBTimestamp(Ticks(sum));
}

}  // namespace wdc::dbx
