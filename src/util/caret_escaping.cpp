// The caret code used for JSON-safe fields: "^" and two upper-case hex digits of the character.
//
// Both directions run in one pass over the bytes. escapeForJSON's table maps each character on
// its own (no step looks for anything an earlier step wrote, except that TAB first becomes a
// space, which the space step then writes as "^20"), so a per-byte map gives the same text.
// unescapeForJSON runs its two backslash steps as real steps (they interact: "\\\/" depends on
// their order) and then decodes every caret code in one pass: a decoded character is never "^"
// nor a hex digit, so no decoding can create or hide another code.
#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "util/replacement_steps.h"
#include "webdavconnect/text_escaping.h"

namespace wdc {
namespace {

// Replacement text per byte; nullptr keeps the byte.
struct CaretMap {
  std::array<const char*, 256> replace{};
  std::array<uint8_t, 256> length{};  // bytes written for each input byte
};

constexpr CaretMap makeEscapeMap() {
  CaretMap map{};
  for (auto& length : map.length) length = 1;
  auto set = [&map](char c, const char* text) {
    map.replace[static_cast<unsigned char>(c)] = text;
    map.length[static_cast<unsigned char>(c)] =
        static_cast<uint8_t>(std::char_traits<char>::length(text));
  };
  set('\\', "\\\\");
  set('/', "\\/");
  set('\b', "");
  set('\f', "");
  set('\n', "");
  set('\t', "^20");
  set('&', "^26");
  set('+', "^2B");
  set(',', "^2C");
  set(':', "^3A");
  set(';', "^3B");
  set('=', "^3D");
  set('?', "^3F");
  set('@', "^40");
  set(' ', "^20");
  set('#', "^23");
  set('<', "^3C");
  set('>', "^3E");
  set('"', "^22");
  set('{', "^7B");
  set('}', "^7D");
  set('[', "^5B");
  set(']', "^5D");
  set('(', "^28");
  set(')', "^29");
  return map;
}
constexpr CaretMap kEscapeMap = makeEscapeMap();

// Characters that have a caret code on the way back, indexed by the code's byte value.
constexpr std::array<bool, 256> makeDecodable() {
  std::array<bool, 256> ok{};
  for (unsigned char c : std::string_view("&+,:;=?@ \t#<>\"{}[]()")) ok[c] = true;
  return ok;
}
constexpr std::array<bool, 256> kDecodable = makeDecodable();

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

constexpr ReplacementStep kBackslashSteps[] = {{"\\\\", "\\"}, {"\\/", "/"}};

}  // namespace

std::string escapeForToodledo(std::string_view text) { return std::string(text); }

std::string escapeForJSON(std::string_view text) {
  // Count first, then fill an exactly sized buffer: no growth and no capacity checks per byte.
  size_t size = 0;
  for (char c : text) size += kEscapeMap.length[static_cast<unsigned char>(c)];
  std::string out(size, '\0');
  char* p = out.data();
  for (char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    const char* replacement = kEscapeMap.replace[byte];
    if (replacement == nullptr) {
      *p++ = c;
    } else {
      for (size_t i = 0; i < kEscapeMap.length[byte]; ++i) *p++ = replacement[i];
    }
  }
  return out;
}

std::string unescapeForJSON(std::string_view text) {
  std::string backslashed;
  if (text.find('\\') != std::string_view::npos) {
    backslashed.assign(text);
    for (const ReplacementStep& step : kBackslashSteps) applyReplacementStep(backslashed, step);
    text = backslashed;
  }
  // Decoding only shrinks the text: write into a buffer of the input's size and trim it.
  std::string out(text.size(), '\0');
  char* p = out.data();
  size_t i = 0;
  while (i < text.size()) {
    const char c = text[i];
    if (c == '^' && text.size() - i >= 3) {
      const int high = hexValue(text[i + 1]);
      const int low = hexValue(text[i + 2]);
      if (high >= 0 && low >= 0 && kDecodable[static_cast<size_t>(high * 16 + low)]) {
        *p++ = static_cast<char>(high * 16 + low);
        i += 3;
        continue;
      }
    }
    *p++ = c;
    ++i;
  }
  out.resize(static_cast<size_t>(p - out.data()));
  return out;
}

}  // namespace wdc
