// What a TimeZone holds: an immutable ICU zone, shared between copies.
#pragma once

#include <unicode/timezone.h>

#include <memory>

#include "webdavconnect/date_conversion.h"

namespace wdc {

struct TimeZone::Rep {
  std::unique_ptr<const icu::TimeZone> zone;
};

}  // namespace wdc
