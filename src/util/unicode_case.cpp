#include "util/unicode_case.h"

#include <unicode/locid.h>
#include <unicode/unistr.h>

namespace wdc {

std::string lowercaseUnicode(std::string_view utf8) {
  // Plain ASCII is by far the common case (record names): skip ICU for it.
  bool ascii = true;
  for (unsigned char c : utf8) {
    if (c >= 0x80) {
      ascii = false;
      break;
    }
  }
  std::string out;
  if (ascii) {
    out.assign(utf8);
    for (char& c : out)
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return out;
  }
  icu::UnicodeString text = icu::UnicodeString::fromUTF8(
      icu::StringPiece(utf8.data(), static_cast<int32_t>(utf8.size())));
  text.toLower(icu::Locale::getRoot());
  text.toUTF8String(out);
  return out;
}

std::string uppercaseUnicode(std::string_view utf8) {
  icu::UnicodeString text = icu::UnicodeString::fromUTF8(
      icu::StringPiece(utf8.data(), static_cast<int32_t>(utf8.size())));
  text.toUpper(icu::Locale::getRoot());
  std::string out;
  text.toUTF8String(out);
  return out;
}

}  // namespace wdc
