// An instant in time as the stored formats keep it: seconds since the reference date
// 2001-01-01T00:00:00Z as a double. Keeping that double unchanged (rather than converting to
// Unix time and back) lets a decoded date be written back bit for bit.
#pragma once

#include <chrono>
#include <compare>

namespace wdc {

// Seconds between 1970-01-01 and 2001-01-01 (UTC).
inline constexpr double kReferenceDateUnixSeconds = 978307200.0;

// A value type. Thread-compatible.
struct Date {
  double sinceReferenceDate = 0;

  static constexpr Date fromUnixSeconds(double unixSeconds) {
    return Date{unixSeconds - kReferenceDateUnixSeconds};
  }
  static Date fromTimePoint(std::chrono::system_clock::time_point tp) {
    return fromUnixSeconds(std::chrono::duration<double>(tp.time_since_epoch()).count());
  }
  [[nodiscard]] constexpr double unixSeconds() const {
    return sinceReferenceDate + kReferenceDateUnixSeconds;
  }
  [[nodiscard]] std::chrono::system_clock::time_point timePoint() const {
    return std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(
            std::chrono::duration<double>(unixSeconds())));
  }
  auto operator<=>(const Date&) const = default;
};

}  // namespace wdc
