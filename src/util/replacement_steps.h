// The replacement step behind the escaping tables: every occurrence of a pattern, found
// left to right without overlap and ASCII case-insensitively, is replaced in one pass; the
// inserted text is not rescanned by the same step. A table is a list of steps applied top to
// bottom, and the order matters: a later step may match text an earlier one produced.
#pragma once

#include <span>
#include <string>
#include <string_view>

namespace wdc {

struct ReplacementStep {
  std::string_view find;
  std::string_view replace;
};

// Position of the first ASCII case-insensitive match of `needle` in `haystack` at or after
// `from`, or npos. An empty needle is never found.
[[nodiscard]] size_t findIgnoringAsciiCase(std::string_view haystack, std::string_view needle,
                                           size_t from = 0);

// Applies one step to `text` in place. Returns false (and leaves `text` untouched, without
// allocating) when the pattern does not occur.
bool applyReplacementStep(std::string& text, const ReplacementStep& step);

// Applies every step of `table` in order.
[[nodiscard]] std::string applyReplacementTable(std::string_view text,
                                                std::span<const ReplacementStep> table);

// "%" and two upper-case hex digits of `byte`, appended to `out`.
void appendPercentEscape(std::string& out, unsigned char byte);

}  // namespace wdc
