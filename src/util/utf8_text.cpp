#include "util/utf8_text.h"

#include <unicode/utf8.h>

#include <cstdint>

namespace wdc::utf8 {

int32_t decodeAt(std::string_view text, size_t pos, size_t& length) {
  const auto* s = reinterpret_cast<const uint8_t*>(text.data());
  int32_t i = static_cast<int32_t>(pos);
  // ICU's macros index with int32_t; longer texts are decoded through a window from `pos`.
  if (text.size() > static_cast<size_t>(INT32_MAX)) {
    size_t window = text.size() - pos < 4 ? text.size() - pos : 4;
    return decodeAt(text.substr(pos, window), 0, length);
  }
  const int32_t end = static_cast<int32_t>(text.size());
  UChar32 c;
  U8_NEXT(s, i, end, c);
  length = static_cast<size_t>(i) - pos;
  return c;
}

bool isValid(std::string_view text) {
  size_t pos = 0;
  while (pos < text.size()) {
    // ASCII runs are the common case; skip them eight bytes at a time.
    while (pos + 8 <= text.size()) {
      uint64_t word;
      __builtin_memcpy(&word, text.data() + pos, 8);
      if ((word & 0x8080808080808080ULL) != 0) break;
      pos += 8;
    }
    if (pos >= text.size()) break;
    if (static_cast<uint8_t>(text[pos]) < 0x80) {
      ++pos;
      continue;
    }
    size_t length = 0;
    if (decodeAt(text, pos, length) < 0) return false;
    pos += length;
  }
  return true;
}

std::string repaired(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  size_t pos = 0;
  while (pos < text.size()) {
    size_t length = 0;
    if (decodeAt(text, pos, length) < 0) {
      out += "\xEF\xBF\xBD";
    } else {
      out.append(text.substr(pos, length));
    }
    pos += length;
  }
  return out;
}

}  // namespace wdc::utf8
