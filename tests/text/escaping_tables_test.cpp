// The fast one-pass escapers held to the replacement tables they stand for. The reference here
// applies each table step by step in the plainest way (legacy URL escaping, then every step over
// the whole text, ASCII case-insensitive, left to right, non-overlapping), and random texts built
// from the characters the tables care about must come out the same both ways.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "webdavconnect/text_escaping.h"

namespace wdc {
namespace {

struct Step {
  std::string find;
  std::string replace;
};
using Table = std::vector<Step>;

bool equalNoCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) !=
        std::tolower(static_cast<unsigned char>(b[i])))
      return false;
  }
  return true;
}

std::string referenceStep(const std::string& text, const Step& step) {
  std::string out;
  size_t i = 0;
  while (i < text.size()) {
    if (i + step.find.size() <= text.size() &&
        equalNoCase(std::string_view(text).substr(i, step.find.size()), step.find)) {
      out += step.replace;
      i += step.find.size();
    } else {
      out += text[i++];
    }
  }
  return out;
}

std::string referenceTable(std::string text, const Table& table) {
  for (const Step& step : table) text = referenceStep(text, step);
  return text;
}

std::string referenceLegacyEscape(std::string_view text) {
  static const std::string kLegal = "!$&'()*+,-./:;=?@_~";
  std::string out;
  for (unsigned char c : text) {
    if (std::isalnum(c) && c < 0x80) {
      out += static_cast<char>(c);
    } else if (kLegal.find(static_cast<char>(c)) != std::string::npos) {
      out += static_cast<char>(c);
    } else {
      char hex[4];
      std::snprintf(hex, sizeof hex, "%%%02X", c);
      out += hex;
    }
  }
  return out;
}

const Table kMailTable = {
    {"&", "%26"}, {"+", "%2B"}, {",", "%2C"}, {"/", "%2F"}, {":", "%3A"}, {";", "%3B"},
    {"=", "%3D"}, {"?", "%3F"}, {"@", "%40"}, {" ", "%20"}, {"\t", "%09"}, {"#", "%23"},
    {"<", "%3C"}, {">", "%3E"}, {"\"", "%22"}, {"\n", "%0A"}, {"[", "%5B"}, {"]", "%5D"},
    {"!", "%21"}, {"'", "%27"}, {"(", "%28"}, {")", "%29"}, {"*", "%2A"}};

const Table kEscapeAllTable = {
    {"&", "%26"}, {"+", "%2B"}, {",", "%2C"}, {";", "%3B"}, {"@", "%40"}, {" ", "%20"},
    {"\t", "%09"}, {"%23", "#"}, {"<", "%3C"}, {">", "%3E"}, {"\"", "%22"}, {"\n", "%0A"}};

const Table kCallTable = {{"-", ""}, {" ", ""}, {")", ""}, {"(", ""}, {"/", ""}};

const Table kEscapeForJSONTable = {
    {"\\", "\\\\"}, {"/", "\\/"}, {"\b", ""},    {"\f", ""},    {"\n", ""},    {"\t", " "},
    {"&", "^26"},   {"+", "^2B"}, {",", "^2C"},  {":", "^3A"},  {";", "^3B"},  {"=", "^3D"},
    {"?", "^3F"},   {"@", "^40"}, {" ", "^20"},  {"\t", "^09"}, {"#", "^23"},  {"<", "^3C"},
    {">", "^3E"},   {"\"", "^22"}, {"{", "^7B"}, {"}", "^7D"},  {"[", "^5B"},  {"]", "^5D"},
    {"(", "^28"},   {")", "^29"}};

const Table kUnescapeForJSONTable = {
    {"\\\\", "\\"}, {"\\/", "/"}, {"^26", "&"},  {"^2B", "+"}, {"^2C", ","},  {"^3A", ":"},
    {"^3B", ";"},   {"^3D", "="}, {"^3F", "?"},  {"^40", "@"}, {"^20", " "},  {"^09", "\t"},
    {"^23", "#"},   {"^3C", "<"}, {"^3E", ">"},  {"^22", "\""}, {"^7B", "{"}, {"^7D", "}"},
    {"^5B", "["},   {"^5D", "]"}, {"^28", "("},  {"^29", ")"}};

// Texts made of the pieces the tables react to, in any mix and letter case.
std::vector<std::string> randomTexts(size_t count) {
  static const std::vector<std::string> kPieces = {
      "a", "Z", "0", "2", "3", "b", "B", "c", "%", "^", "\\", "/", "&", "+", ",", ":", ";", "=",
      "?", "@", " ", "\t", "\n", "\r", "#", "<", ">", "\"", "[", "]", "{", "}", "(", ")", "!",
      "'", "*", "$", "-", "_", ".", "~", "\b", "\f", "\x7F", "\xC3\xA9", "\xF0\x9F\x98\x80",
      "\xFF", "%23", "%2b", "^2c", "^3A", "^09", "\\\\", "\\/", "&lt;", "%25"};
  std::mt19937 rng(20240917);
  std::vector<std::string> texts;
  for (size_t i = 0; i < count; ++i) {
    std::string text;
    const size_t pieces = rng() % 24;
    for (size_t j = 0; j < pieces; ++j) text += kPieces[rng() % kPieces.size()];
    texts.push_back(text);
  }
  return texts;
}

TEST(EscapingTables, MailEscapingMatchesLegacyEscapingThenItsTable) {
  for (const std::string& text : randomTexts(3000)) {
    EXPECT_EQ(escapeAllForMail(text), referenceTable(referenceLegacyEscape(text), kMailTable))
        << text;
  }
}

TEST(EscapingTables, EscapeAllMatchesLegacyEscapingThenItsTable) {
  for (const std::string& text : randomTexts(3000)) {
    EXPECT_EQ(escapeAll(text), referenceTable(referenceLegacyEscape(text), kEscapeAllTable))
        << text;
  }
}

TEST(EscapingTables, CallEscapingMatchesRemovalsThenLegacyEscaping) {
  for (const std::string& text : randomTexts(3000)) {
    EXPECT_EQ(escapeAllForCall(text), referenceLegacyEscape(referenceTable(text, kCallTable)))
        << text;
  }
}

TEST(EscapingTables, CaretEscapingMatchesItsTable) {
  for (const std::string& text : randomTexts(3000)) {
    EXPECT_EQ(escapeForJSON(text), referenceTable(text, kEscapeForJSONTable)) << text;
  }
}

TEST(EscapingTables, CaretUnescapingMatchesItsTable) {
  for (const std::string& text : randomTexts(3000)) {
    EXPECT_EQ(unescapeForJSON(text), referenceTable(text, kUnescapeForJSONTable)) << text;
    const std::string escaped = escapeForJSON(text);
    EXPECT_EQ(unescapeForJSON(escaped), referenceTable(escaped, kUnescapeForJSONTable)) << text;
  }
}

}  // namespace
}  // namespace wdc
