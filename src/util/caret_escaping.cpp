// The caret code used for JSON-safe fields: "^" and two upper-case hex digits of the character.
//
// Both directions run in one pass over the bytes. escapeForJSON's table maps each character on
// its own (no step looks for anything an earlier step wrote, except that TAB first becomes a
// space, which the space step then writes as "^20"), so a per-byte map gives the same text.
// unescapeForJSON runs its two backslash steps as real steps (they interact: "\\\/" depends on
// their order) and then decodes every caret code in one pass: a decoded character is never "^"
// nor a hex digit, so no decoding can create or hide another code.
#include <array>
#include <string_view>

#include "util/replacement_steps.h"
#include "webdavconnect/text_escaping.h"

namespace wdc {
namespace {

// Replacement text per byte; nullptr keeps the byte.
struct CaretMap {
  std::array<const char*, 256> replace{};
};

constexpr CaretMap makeEscapeMap() {
  CaretMap map{};
  auto set = [&map](char c, const char* text) { map.replace[static_cast<unsigned char>(c)] = text; };
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
  std::string out;
  out.reserve(text.size() + text.size() / 4);
  size_t run = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    const char* replacement = kEscapeMap.replace[static_cast<unsigned char>(text[i])];
    if (replacement == nullptr) continue;
    out.append(text, run, i - run);
    out.append(replacement);
    run = i + 1;
  }
  out.append(text, run, std::string_view::npos);
  return out;
}

std::string unescapeForJSON(std::string_view text) {
  std::string work(text);
  if (work.find('\\') != std::string::npos) {
    for (const ReplacementStep& step : kBackslashSteps) applyReplacementStep(work, step);
  }
  size_t caret = work.find('^');
  if (caret == std::string::npos) return work;
  std::string out;
  out.reserve(work.size());
  size_t run = 0;
  while (caret != std::string::npos) {
    if (work.size() - caret >= 3) {
      const int high = hexValue(work[caret + 1]);
      const int low = hexValue(work[caret + 2]);
      if (high >= 0 && low >= 0 && kDecodable[static_cast<size_t>(high * 16 + low)]) {
        out.append(work, run, caret - run);
        out.push_back(static_cast<char>(high * 16 + low));
        run = caret + 3;
        caret = work.find('^', run);
        continue;
      }
    }
    caret = work.find('^', caret + 1);
  }
  out.append(work, run, std::string::npos);
  return out;
}

}  // namespace wdc
