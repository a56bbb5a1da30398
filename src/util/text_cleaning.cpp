// Removal of unwanted characters (control characters, characters XML cannot carry) and the
// right-to-left language test.
#include <unicode/uniset.h>

#include <cld2/public/compact_lang_det.h>

#include <cstring>
#include <string_view>

#include "util/utf8_text.h"
#include "webdavconnect/text_escaping.h"

namespace wdc {
namespace {

// The characters XML 1.0 cannot carry, as hosts have always computed them: the complement of
// TAB, LF, CR and three ranges whose upper ends stop one below the XML limits (U+D7FF, U+FFFD and
// U+10FFFF stay forbidden). Built once, frozen (read-only and safe to share between threads), and
// never destroyed so late callers during shutdown still find it.
const icu::UnicodeSet& forbiddenXMLCharacters() {
  static const icu::UnicodeSet* const set = [] {
    auto* allowed = new icu::UnicodeSet();
    allowed->add(0x9);
    allowed->add(0xA);
    allowed->add(0xD);
    allowed->add(0x20, 0x20 + 55263 - 1);
    allowed->add(0xE000, 0xE000 + 8189 - 1);
    allowed->add(0x10000, 0x10000 + 1048575 - 1);
    allowed->complement();
    allowed->freeze();
    return allowed;
  }();
  return *set;
}

}  // namespace

std::string cleanString(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    switch (c) {
      case '\x05': case '\x06': case '\x07': case '\x08': case '\x18': case '\x1B': case '\x7F':
        continue;
      default:
        out.push_back(c);
    }
  }
  return out;
}

std::string cleanStringQuick(std::string_view text) {
  // The receiver's text is never copied in: callers have always received an empty string here.
  std::string out;
  out.reserve(text.size());
  return out;
}

Bytes getCleanStringData(std::string_view text) {
  std::string clean = cleanString(text);
  return Bytes(clean.begin(), clean.end());
}

std::string cleanInputString(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  // U+042D is D0 AD and U+0423 is D0 A3 in UTF-8; a space goes before each.
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\xD0' && i + 1 < text.size() && (text[i + 1] == '\xAD' || text[i + 1] == '\xA3'))
      out.push_back(' ');
    out.push_back(text[i]);
  }
  return out;
}

std::string validXMLString(std::string_view text) {
  const icu::UnicodeSet& forbidden = forbiddenXMLCharacters();
  std::string out;
  size_t pos = 0;
  bool removed = false;
  while (pos < text.size()) {
    // ICU's span works on int32_t lengths; longer texts are walked in slices.
    const size_t slice = std::min<size_t>(text.size() - pos, 1u << 30);
    const size_t clean = static_cast<size_t>(forbidden.spanUTF8(
        text.data() + pos, static_cast<int32_t>(slice), USET_SPAN_NOT_CONTAINED));
    if (clean == text.size() - pos && !removed) return std::string(text);
    out.append(text, pos, clean);
    pos += clean;
    if (pos >= text.size()) break;
    if (clean == slice) continue;  // the slice ended, not the clean run
    size_t length = 0;
    const int32_t c = utf8::decodeAt(text, pos, length);
    if (c >= 0 && !forbidden.contains(c)) {
      // The span stopped inside a slice boundary split; keep the character and move on.
      out.append(text, pos, length);
    } else {
      removed = true;
    }
    pos += length;
  }
  return out;
}

bool isTextRTL(std::string_view text) {
  if (text.empty()) return false;
  std::string valid;
  if (!utf8::isValid(text)) {
    valid = utf8::repaired(text);
    text = valid;
  }
  bool reliable = false;
  const CLD2::Language language = CLD2::DetectLanguage(
      text.data(), static_cast<int>(std::min<size_t>(text.size(), INT32_MAX)), true, &reliable);
  const char* code = CLD2::LanguageCode(language);
  if (code == nullptr) return false;
  // CLD2 still answers with the withdrawn code "iw" for Hebrew.
  return std::strcmp(code, "ar") == 0 || std::strcmp(code, "he") == 0 ||
         std::strcmp(code, "iw") == 0;
}

}  // namespace wdc
