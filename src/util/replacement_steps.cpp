#include "util/replacement_steps.h"

#include <cstring>

namespace wdc {
namespace {

inline unsigned char asciiLower(unsigned char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<unsigned char>(c - 'A' + 'a') : c;
}

bool equalIgnoringAsciiCase(const char* a, const char* b, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    if (asciiLower(static_cast<unsigned char>(a[i])) !=
        asciiLower(static_cast<unsigned char>(b[i])))
      return false;
  }
  return true;
}

}  // namespace

size_t findIgnoringAsciiCase(std::string_view haystack, std::string_view needle, size_t from) {
  if (needle.empty() || haystack.size() < needle.size() || from > haystack.size() - needle.size())
    return std::string_view::npos;
  const size_t last = haystack.size() - needle.size();
  const unsigned char first = asciiLower(static_cast<unsigned char>(needle[0]));
  const bool letter = first >= 'a' && first <= 'z';
  const char* base = haystack.data();
  size_t i = from;
  while (i <= last) {
    if (!letter) {
      // Every pattern in our tables starts with a punctuation character: memchr does the
      // scanning.
      const void* hit = std::memchr(base + i, first, last - i + 1);
      if (hit == nullptr) return std::string_view::npos;
      i = static_cast<size_t>(static_cast<const char*>(hit) - base);
    } else if (asciiLower(static_cast<unsigned char>(base[i])) != first) {
      ++i;
      continue;
    }
    if (equalIgnoringAsciiCase(base + i + 1, needle.data() + 1, needle.size() - 1)) return i;
    ++i;
  }
  return std::string_view::npos;
}

bool applyReplacementStep(std::string& text, const ReplacementStep& step) {
  size_t hit = findIgnoringAsciiCase(text, step.find);
  if (hit == std::string_view::npos) return false;
  std::string out;
  out.reserve(text.size() + (step.replace.size() > step.find.size() ? text.size() / 4 : 0));
  size_t copied = 0;
  while (hit != std::string_view::npos) {
    out.append(text, copied, hit - copied);
    out.append(step.replace);
    copied = hit + step.find.size();
    hit = findIgnoringAsciiCase(text, step.find, copied);
  }
  out.append(text, copied, std::string::npos);
  text.swap(out);
  return true;
}

std::string applyReplacementTable(std::string_view text, std::span<const ReplacementStep> table) {
  std::string out(text);
  for (const ReplacementStep& step : table) applyReplacementStep(out, step);
  return out;
}

void appendPercentEscape(std::string& out, unsigned char byte) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  out.push_back('%');
  out.push_back(kHex[byte >> 4]);
  out.push_back(kHex[byte & 0xF]);
}

}  // namespace wdc
