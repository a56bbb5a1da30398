#include "archive/utf.h"

namespace wdc::bplist {
namespace {

constexpr uint32_t kReplacement = 0xFFFD;

// Decodes one UTF-8 sequence at text[i]; advances i. Returns kInvalid on a malformed sequence
// (overlong forms, surrogates and values above U+10FFFF included) and advances by one byte.
constexpr uint32_t kInvalid = 0xFFFFFFFF;
uint32_t decodeUtf8(std::string_view text, size_t& i) {
  const auto byte = [&](size_t k) { return static_cast<uint8_t>(text[k]); };
  const uint8_t b0 = byte(i);
  if (b0 < 0x80) {
    ++i;
    return b0;
  }
  size_t length;
  uint32_t cp;
  uint32_t minimum;
  if ((b0 & 0xE0) == 0xC0) {
    length = 2, cp = b0 & 0x1F, minimum = 0x80;
  } else if ((b0 & 0xF0) == 0xE0) {
    length = 3, cp = b0 & 0x0F, minimum = 0x800;
  } else if ((b0 & 0xF8) == 0xF0) {
    length = 4, cp = b0 & 0x07, minimum = 0x10000;
  } else {
    ++i;
    return kInvalid;
  }
  if (text.size() - i < length) {
    ++i;
    return kInvalid;
  }
  for (size_t k = 1; k < length; ++k) {
    const uint8_t b = byte(i + k);
    if ((b & 0xC0) != 0x80) {
      ++i;
      return kInvalid;
    }
    cp = (cp << 6) | (b & 0x3F);
  }
  if (cp < minimum || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
    ++i;
    return kInvalid;
  }
  i += length;
  return cp;
}

void appendUtf8(uint32_t cp, std::string& out) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

}  // namespace

bool isValidUtf8(std::string_view text) {
  for (size_t i = 0; i < text.size();) {
    if (decodeUtf8(text, i) == kInvalid) return false;
  }
  return true;
}

bool utf16BigEndianToUtf8(const uint8_t* p, size_t units, std::string& out) {
  out.clear();
  out.reserve(units);
  for (size_t i = 0; i < units; ++i) {
    uint32_t unit = (uint32_t{p[2 * i]} << 8) | p[2 * i + 1];
    if (unit >= 0xD800 && unit <= 0xDBFF) {
      if (i + 1 >= units) return false;
      const uint32_t next = (uint32_t{p[2 * i + 2]} << 8) | p[2 * i + 3];
      if (next < 0xDC00 || next > 0xDFFF) return false;
      unit = 0x10000 + ((unit - 0xD800) << 10) + (next - 0xDC00);
      ++i;
    } else if (unit >= 0xDC00 && unit <= 0xDFFF) {
      return false;
    }
    appendUtf8(unit, out);
  }
  return true;
}

void utf8ToUtf16(std::string_view text, std::vector<uint16_t>& out) {
  for (size_t i = 0; i < text.size();) {
    uint32_t cp = decodeUtf8(text, i);
    if (cp == kInvalid) cp = kReplacement;
    if (cp >= 0x10000) {
      cp -= 0x10000;
      out.push_back(static_cast<uint16_t>(0xD800 + (cp >> 10)));
      out.push_back(static_cast<uint16_t>(0xDC00 + (cp & 0x3FF)));
    } else {
      out.push_back(static_cast<uint16_t>(cp));
    }
  }
}

}  // namespace wdc::bplist
