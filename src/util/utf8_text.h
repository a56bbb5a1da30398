// UTF-8 helpers shared by the text utilities: validation, the length of one (possibly
// ill-formed) sequence, and repair. Ill-formed input is measured by maximal subparts, the way
// ICU and the WHATWG decoder count them, so every caller agrees on where a bad sequence ends.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace wdc::utf8 {

// True when `text` is well-formed UTF-8 (no surrogates, no overlong forms, nothing past
// U+10FFFF).
[[nodiscard]] bool isValid(std::string_view text);

// Decodes the sequence at `pos` (REQUIRES: pos < text.size()). Sets `length` to the bytes it
// spans (at least 1) and returns its code point, or -1 for an ill-formed sequence.
[[nodiscard]] int32_t decodeAt(std::string_view text, size_t pos, size_t& length);

// `text` with every ill-formed sequence replaced by U+FFFD.
[[nodiscard]] std::string repaired(std::string_view text);

}  // namespace wdc::utf8
