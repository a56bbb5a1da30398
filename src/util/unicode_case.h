#pragma once

#include <string>
#include <string_view>

namespace wdc {

// Unicode-aware lower-casing of UTF-8 text in the root locale (ICU full case mapping, so "İ" and
// "Σ" map as the platform maps them). Invalid UTF-8 sequences become U+FFFD. Thread-safe.
[[nodiscard]] std::string lowercaseUnicode(std::string_view utf8);
[[nodiscard]] std::string uppercaseUnicode(std::string_view utf8);

}  // namespace wdc
