// Search, split and join helpers, the CSV and search-pattern escapers, and UUID text.
#include <cstdlib>
#include <cstring>

#include "platform/env.h"
#include "util/unicode_case.h"
#include "util/utf8_text.h"
#include "webdavconnect/text_escaping.h"

namespace wdc {

std::string escapeAllForExport(std::string_view text) {
  std::string out;
  out.reserve(text.size() + 2);
  for (char c : text) {
    if (c == '"') {
      out += "\"\"";
    } else if (c == '\n') {
      out += "\r\n";
    } else {
      out.push_back(c);
    }
  }
  // Lower-casing cannot change these ASCII separators, so plain searches decide the wrapping.
  const bool wrap = out.find_first_of(",\"\n\t") != std::string::npos ||
                    (!out.empty() && (out.front() == ' ' || out.back() == ' '));
  if (!wrap) return out;
  return "\"" + out + "\"";
}

std::string escapeForSearch(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    out.push_back(c);
    if (c == '\'') out.push_back('\'');
  }
  return out;
}

std::string stringWithUUID() {
  std::string uuid = Env::current().newUUID();
  std::string out;
  out.reserve(32);
  for (char c : uuid) {
    if (c == '-') continue;
    out.push_back(c >= 'a' && c <= 'f' ? static_cast<char>(c - 'a' + 'A') : c);
  }
  return out;
}

std::string searchReplace(std::string_view text, std::optional<std::string_view> search,
                          std::optional<std::string_view> with) {
  std::string out(text);
  if (!search || !with || search->empty()) return out;
  size_t hit = out.find(*search);
  while (hit != std::string::npos) {
    out.replace(hit, search->size(), *with);
    // Restart one character after the match's start, not after the inserted text: stored data
    // was produced this way. A match can only begin on a character boundary, so one byte on
    // finds the same next match as one UTF-16 unit on.
    hit = out.find(*search, hit + 1);
  }
  return out;
}

TextRange indexOf(std::string_view text, char16_t c) {
  int64_t units = 0;
  size_t pos = 0;
  while (pos < text.size()) {
    const auto byte = static_cast<unsigned char>(text[pos]);
    if (byte < 0x80) {
      if (byte == c) return {units, 1};
      ++units;
      ++pos;
      continue;
    }
    size_t length = 0;
    int32_t cp = utf8::decodeAt(text, pos, length);
    if (cp < 0) cp = 0xFFFD;  // an ill-formed sequence reads as one replacement character
    if (cp > 0xFFFF) {
      const auto lead = static_cast<char16_t>(0xD800 + ((cp - 0x10000) >> 10));
      const auto trail = static_cast<char16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF));
      if (lead == c) return {units, 1};
      if (trail == c) return {units + 1, 1};
      units += 2;
    } else {
      if (static_cast<char16_t>(cp) == c) return {units, 1};
      ++units;
    }
    pos += length;
  }
  return {kTextNotFound, 0};
}

bool doesContain(std::string_view text, std::optional<std::string_view> s) {
  if (!s || s->empty()) return false;
  const std::string needle = lowercaseUnicode(*s);
  if (needle.empty()) return false;
  return lowercaseUnicode(text).find(needle) != std::string::npos;
}

bool doesContainIgnoreLower(std::string_view text, std::string_view s) {
  if (s.empty()) return false;
  return text.find(s) != std::string_view::npos;
}

std::vector<std::string> explode(std::string_view text, std::string_view separator) {
  std::vector<std::string> parts;
  if (separator.empty()) {
    parts.emplace_back(text);
    return parts;
  }
  size_t start = 0;
  while (true) {
    const size_t hit = text.find(separator, start);
    if (hit == std::string_view::npos) break;
    parts.emplace_back(text.substr(start, hit - start));
    start = hit + separator.size();
  }
  parts.emplace_back(text.substr(start));
  return parts;
}

std::string implode(const std::vector<std::string>& parts, std::string_view separator) {
  std::string out;
  for (size_t i = 0; i < parts.size(); ++i) {
    if (i > 0) out.append(separator);
    out.append(parts[i]);
  }
  return out;
}

void display(std::string_view /*text*/) {}

}  // namespace wdc

extern "C" char* strduplicate(const char* s) {
  const size_t length = std::strlen(s) + 1;
  auto* copy = static_cast<char*>(std::malloc(length));
  std::memcpy(copy, s, length);
  return copy;
}
