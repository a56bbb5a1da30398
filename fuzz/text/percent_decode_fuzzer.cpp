// The percent decoders and the table-driven unescapers on arbitrary text, checked against what
// they promise: decoded text is UTF-8, valid UTF-8 survives an escape/decode round trip through
// every escaper, and validXMLString leaves only well-formed UTF-8 it would not change again.
#include <cstddef>
#include <cstdint>
#include <string>

#include "util/utf8_text.h"
#include "webdavconnect/text_escaping.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const bool valid = wdc::utf8::isValid(text);

  for (const auto& decoded : {wdc::urlUnescape(text), wdc::URLDecodedString(text)}) {
    if (decoded && !wdc::utf8::isValid(*decoded)) __builtin_trap();
  }
  std::optional<wdc::Error> error;
  const auto mail = wdc::unescapeAllForMail(text, &error);
  if (mail.has_value() == error.has_value()) __builtin_trap();

  if (valid) {
    if (wdc::urlUnescape(wdc::urlEscape(text)) != text) __builtin_trap();
    if (wdc::URLDecodedString(wdc::URLEncodedString(text)) != text) __builtin_trap();
    if (!wdc::urlUnescape(wdc::escapeAllForMail(text))) __builtin_trap();
  }
  (void)wdc::unescapeForToodledo(text);
  (void)wdc::unescapeForJSON(wdc::escapeForJSON(text));

  const std::string xml = wdc::validXMLString(text);
  if (!wdc::utf8::isValid(xml) || wdc::validXMLString(xml) != xml) __builtin_trap();
  return 0;
}
