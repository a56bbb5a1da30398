// libarchive converts ZIP entry names between UTF-8 and the charset of the calling thread's
// locale. A process that never called setlocale runs in the "C" locale, where any non-ASCII name
// fails to convert and the entry comes back without a name. Store names are UTF-8, so archive
// work runs under this guard, which switches only the calling thread to C.UTF-8.
#pragma once

#include <locale.h>

namespace wdc {

class ScopedUtf8Locale {
 public:
  ScopedUtf8Locale() {
    // Created once, never freed: uselocale needs it for as long as any thread may use it.
    static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(0));
    if (utf8 != static_cast<locale_t>(0)) previous_ = uselocale(utf8);
  }
  ~ScopedUtf8Locale() {
    if (previous_ != static_cast<locale_t>(0)) uselocale(previous_);
  }
  ScopedUtf8Locale(const ScopedUtf8Locale&) = delete;
  ScopedUtf8Locale& operator=(const ScopedUtf8Locale&) = delete;

 private:
  locale_t previous_ = static_cast<locale_t>(0);
};

}  // namespace wdc
