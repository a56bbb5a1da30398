// UTF-8 / UTF-16 conversions for property-list strings, which store text either as ASCII or as
// big-endian UTF-16 code units.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace wdc::bplist {

[[nodiscard]] bool isValidUtf8(std::string_view text);
// Converts `units` big-endian UTF-16 code units at `p`. False on a lone surrogate.
bool utf16BigEndianToUtf8(const uint8_t* p, size_t units, std::string& out);
// Appends the UTF-16 code units of `text`; invalid UTF-8 sequences become U+FFFD.
void utf8ToUtf16(std::string_view text, std::vector<uint16_t>& out);

}  // namespace wdc::bplist
