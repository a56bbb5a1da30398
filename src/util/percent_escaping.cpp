// Percent-escaping family: the legacy URL escaping and the operations built on it (mail links,
// query strings, dialling strings), the URL component coders, percent decoding, and the two
// unescapers that run replacement tables.
//
// The escapers run one pass over the bytes with a per-byte "keep" table. For escapeAllForMail,
// escapeAll and escapeAllForCall that single pass gives exactly what the legacy escaping followed
// by their replacement tables gives: every table step finds one ASCII punctuation character and
// writes "%" plus hex digits, which no later step looks for, and escapeAll's "%23" -> "#" step can
// only ever match the escape legacy escaping made of a "#" (a literal "%" is itself escaped to
// "%25"). The tests hold the fast forms to the step-by-step tables.
#include <array>
#include <string_view>

#include "util/replacement_steps.h"
#include "util/utf8_text.h"
#include "webdavconnect/text_escaping.h"

namespace wdc {
namespace {

using KeepTable = std::array<bool, 256>;

constexpr KeepTable keepTable(std::string_view punctuation) {
  KeepTable keep{};
  for (int c = 'a'; c <= 'z'; ++c) keep[static_cast<size_t>(c)] = true;
  for (int c = 'A'; c <= 'Z'; ++c) keep[static_cast<size_t>(c)] = true;
  for (int c = '0'; c <= '9'; ++c) keep[static_cast<size_t>(c)] = true;
  for (char c : punctuation) keep[static_cast<unsigned char>(c)] = true;
  return keep;
}

// What legacy URL escaping (and URL-query encoding) leaves alone.
constexpr KeepTable kLegacyKeep = keepTable("!$&'()*+,-./:;=?@_~");
// Legacy escaping followed by the mail table: only "$-._~" survive besides letters and digits.
constexpr KeepTable kMailKeep = keepTable("$-._~");
// Legacy escaping followed by escapeAll's table: & + , ; @ are escaped, "#" comes back.
constexpr KeepTable kEscapeAllKeep = keepTable("!$'()*-./:=?_~#");
// urlEscape's unreserved set.
constexpr KeepTable kUnreservedKeep = keepTable("-_.~");

std::string percentEscape(std::string_view text, const KeepTable& keep) {
  std::string out;
  out.reserve(text.size() + text.size() / 4);
  size_t run = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (keep[byte]) continue;
    out.append(text, run, i - run);
    appendPercentEscape(out, byte);
    run = i + 1;
  }
  out.append(text, run, std::string_view::npos);
  return out;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::optional<std::string> percentDecode(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  size_t run = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') continue;
    if (text.size() - i < 3) return std::nullopt;  // fewer than two characters follow the "%"
    const int high = hexValue(text[i + 1]);
    const int low = hexValue(text[i + 2]);
    if (high < 0 || low < 0) return std::nullopt;
    out.append(text, run, i - run);
    out.push_back(static_cast<char>(high * 16 + low));
    i += 2;
    run = i + 1;
  }
  out.append(text, run, std::string_view::npos);
  if (!utf8::isValid(out)) return std::nullopt;
  return out;
}

constexpr ReplacementStep kUnescapeForMailTable[] = {
    {"%26", "&"}, {"%2B", "+"},  {"%2C", ","},  {"%2F", "/"}, {"%3A", ":"}, {"%3B", ";"},
    {"%3D", "="}, {"%3F", "?"},  {"%40", "@"},  {"%20", " "}, {"%09", "\t"}, {"%23", "#"},
    {"%3C", "<"}, {"%3E", ">"},  {"%22", "\""}, {"%0A", "\n"}, {"&lt;", "<"},
};

constexpr ReplacementStep kUnescapeForToodledoTable[] = {
    {"%26", "&"}, {"%2B", "+"},  {"%2C", ","},  {"%2F", "/"},  {"%3A", ":"},  {"%3B", ";"},
    {"%3D", "="}, {"%3F", "?"},  {"%40", "@"},  {"%20", " "},  {"%09", "\t"}, {"%23", "#"},
    {"%3C", "<"}, {"%3E", ">"},  {"%22", "\""}, {"%0A", "\n"}, {"&lt;", "<"}, {"&gt;", ">"},
    {"%7B", "{"}, {"%7D", "}"},  {"%5B", "["},  {"%5D", "]"},
};

}  // namespace

std::string escapeAllForMail(std::optional<std::string_view> text) {
  if (!text) return "";
  return percentEscape(*text, kMailKeep);
}

std::optional<std::string> unescapeAllForMail(std::string_view text, ErrorOut error) {
  std::optional<std::string> decoded = percentDecode(text);
  if (!decoded) {
    setError(error, Error::corruption("invalid argument: mail text is not percent-encoded UTF-8"));
    return std::nullopt;
  }
  return applyReplacementTable(*decoded, kUnescapeForMailTable);
}

std::string escapeAll(std::string_view text) { return percentEscape(text, kEscapeAllKeep); }

std::string escapeAllForCall(std::string_view text) {
  std::string digits;
  digits.reserve(text.size());
  for (char c : text) {
    if (c == '-' || c == ' ' || c == ')' || c == '(' || c == '/') continue;
    digits.push_back(c);
  }
  return percentEscape(digits, kLegacyKeep);
}

std::string unescapeForToodledo(std::string_view text) {
  return applyReplacementTable(text, kUnescapeForToodledoTable);
}

std::string urlEscape(std::string_view text) { return percentEscape(text, kUnreservedKeep); }

std::optional<std::string> urlUnescape(std::string_view text) { return percentDecode(text); }

std::string URLEncodedString(std::string_view text) { return percentEscape(text, kLegacyKeep); }

std::optional<std::string> URLDecodedString(std::string_view text) { return percentDecode(text); }

}  // namespace wdc
