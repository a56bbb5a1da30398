// Ordering of record metadata by modification date, used to sort local listings.
#include "webdavconnect/data_codecs.h"

namespace wdc {

Ordering fileModDateSort(const WebDAVFileMetaData& first, const WebDAVFileMetaData& second,
                         void* context) {
  (void)context;
  if (!first.ModificationDate) return Ordering::kSame;
  // A missing second date reads as zero seconds since the reference date, which is what asking
  // an absent date object for its time gives.
  const double a = first.ModificationDate->sinceReferenceDate;
  const double b = second.ModificationDate ? second.ModificationDate->sinceReferenceDate : 0.0;
  if (a < b) return Ordering::kAscending;
  if (a > b) return Ordering::kDescending;
  return Ordering::kSame;
}

}  // namespace wdc
