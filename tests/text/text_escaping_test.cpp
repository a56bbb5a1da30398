// Escaping and string helpers, grouped by operation: the documented cases, the kept quirks,
// decoding failures, UTF-16 counting, and what happens to bytes that are not UTF-8.
#include "webdavconnect/text_escaping.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>

#include "platform/virtual_env.h"

namespace wdc {
namespace {

struct Case {
  std::string input;
  std::string expected;
};

TEST(MailEscaping, EscapesEverythingButUnreservedCharacters) {
  const Case cases[] = {
      {"a#b c", "a%23b%20c"},
      {"mailto:x@y.z?subject=Hi & bye", "mailto%3Ax%40y.z%3Fsubject%3DHi%20%26%20bye"},
      {"$-._~AZaz09", "$-._~AZaz09"},
      {"(1+2)*3/4;5,6!'[x]\t\n<\">", "%281%2B2%29%2A3%2F4%3B5%2C6%21%27%5Bx%5D%09%0A%3C%22%3E"},
      {"caf\xC3\xA9", "caf%C3%A9"},
      {"50%", "50%25"},
  };
  for (const Case& c : cases) EXPECT_EQ(escapeAllForMail(c.input), c.expected) << c.input;
  EXPECT_EQ(escapeAllForMail(std::nullopt), "");
}

TEST(MailEscaping, UnescapingDecodesFullyThenUndoesDoubleEscapes) {
  const Case cases[] = {
      {"%2526", "&"},        {"a&lt;b", "a<b"},     {"a%20b", "a b"},
      {"%252B%2520", "+ "},  {"%26lt;", "<"},       {"caf%C3%A9", "caf\xC3\xA9"},
      {"plain", "plain"},    {"%252f", "/"},        {"&gt;", "&gt;"},
  };
  for (const Case& c : cases) {
    std::optional<Error> error;
    EXPECT_EQ(unescapeAllForMail(c.input, &error), c.expected) << c.input;
    EXPECT_FALSE(error.has_value());
  }
}

TEST(MailEscaping, UnescapingBadEscapesIsAnInvalidArgument) {
  for (const char* bad : {"%", "100%", "%4", "%zz", "%C3", "%FF%FE", "a%2"}) {
    std::optional<Error> error;
    EXPECT_EQ(unescapeAllForMail(bad, &error), std::nullopt) << bad;
    ASSERT_TRUE(error.has_value()) << bad;
    EXPECT_EQ(error->domain(), kWebDAVConnectErrorDomain);
    EXPECT_EQ(error->code(), 400);
  }
  EXPECT_EQ(unescapeAllForMail("%"), std::nullopt);  // no error out-parameter is fine too
}

TEST(UrlEscaping, EscapeAllKeepsHashAndQuerySeparators) {
  const Case cases[] = {
      {"a#b c", "a#b%20c"},  {"50%", "50%25"},        {"x/y?z=1", "x/y?z=1"},
      {"a&b+c,d;e@f", "a%26b%2Bc%2Cd%3Be%40f"},       {"{[|]}", "%7B%5B%7C%5D%7D"},
      {"\t\n<>\"", "%09%0A%3C%3E%22"},                 {"#%23", "#%2523"},
  };
  for (const Case& c : cases) EXPECT_EQ(escapeAll(c.input), c.expected) << c.input;
}

TEST(UrlEscaping, DiallingStringsLoseFormatting) {
  EXPECT_EQ(escapeAllForCall("+1 (555) 123-45/67"), "+15551234567");
  EXPECT_EQ(escapeAllForCall("*31# 0800"), "*31%230800");
}

TEST(UrlEscaping, ComponentEncoders) {
  EXPECT_EQ(urlEscape("a b/c?d=e&f~g-h_i.j"), "a%20b%2Fc%3Fd%3De%26f~g-h_i.j");
  EXPECT_EQ(urlEscape("!*'();:@&=+$,/?%#[]{}\""),
            "%21%2A%27%28%29%3B%3A%40%26%3D%2B%24%2C%2F%3F%25%23%5B%5D%7B%7D%22");
  EXPECT_EQ(urlEscape("\xC3\xA9"), "%C3%A9");
  EXPECT_EQ(URLEncodedString("a b/c?d=e&f#g"), "a%20b/c?d=e&f%23g");
  EXPECT_EQ(URLEncodedString("[x]{y}|\\^`"), "%5Bx%5D%7By%7D%7C%5C%5E%60");
}

TEST(UrlEscaping, DecodersFailOnBadEscapesAndBadUtf8) {
  EXPECT_EQ(urlUnescape("a%20b%2fc"), "a b/c");
  EXPECT_EQ(URLDecodedString("%E2%82%AC"), "\xE2\x82\xAC");
  EXPECT_EQ(urlUnescape("%00"), std::string(1, '\0'));
  for (const char* bad : {"%", "%g0", "%0", "%C0%AF", "%ED%A0%80", "%F4%90%80%80"}) {
    EXPECT_EQ(urlUnescape(bad), std::nullopt) << bad;
    EXPECT_EQ(URLDecodedString(bad), std::nullopt) << bad;
  }
  EXPECT_EQ(urlUnescape("\xFF"), std::nullopt);  // raw bytes are checked too
}

TEST(ExportEscaping, QuotesOnlyWhenTheFieldNeedsIt) {
  const Case cases[] = {
      {"plain text", "plain text"},
      {"a,b", "\"a,b\""},
      {"say \"hi\"", "\"say \"\"hi\"\"\""},
      {" lead", "\" lead\""},
      {"trail ", "\"trail \""},
      {"tab\there", "\"tab\there\""},
      {"two\nlines", "\"two\r\nlines\""},
      {"crlf\r\nline", "\"crlf\r\r\nline\""},
      {"", ""},
      {"lone\rcr", "lone\rcr"},
  };
  for (const Case& c : cases) EXPECT_EQ(escapeAllForExport(c.input), c.expected) << c.input;
}

TEST(SearchEscaping, DoublesSingleQuotes) {
  EXPECT_EQ(escapeForSearch("O'Brien's"), "O''Brien''s");
  EXPECT_EQ(escapeForSearch("none"), "none");
}

TEST(ToodledoEscaping, EscapingIsIdentityAndUnescapingUsesOnlyItsTable) {
  EXPECT_EQ(escapeForToodledo("a & b %20"), "a & b %20");
  EXPECT_EQ(unescapeForToodledo("%26%2b%2C%2F%3a%3B%3D%3F%40%20%09%23%3C%3E%22%0A"),
            "&+,/:;=?@ \t#<>\"\n");
  EXPECT_EQ(unescapeForToodledo("%7B%7d%5B%5d&lt;&GT;"), "{}[]<>");
  EXPECT_EQ(unescapeForToodledo("%41%25"), "%41%25");  // no general decoding
  EXPECT_EQ(unescapeForToodledo("%26lt;"), "<");      // a later step sees an earlier one's output
}

TEST(CaretEscaping, DocumentedCases) {
  EXPECT_EQ(escapeForJSON("a\tb"), "a^20b");
  EXPECT_EQ(escapeForJSON("x/y"), "x\\/y");
  EXPECT_EQ(escapeForJSON("a\\b"), "a\\\\b");
  EXPECT_EQ(escapeForJSON("line\nfeed\b\f"), "linefeed");
  EXPECT_EQ(escapeForJSON("^ stays\r"), "^^20stays\r");
  EXPECT_EQ(escapeForJSON("{\"k\":[1,2]}"), "^7B^22k^22^3A^5B1^2C2^5D^7D");
  EXPECT_EQ(unescapeForJSON("a^2Cb"), "a,b");
  EXPECT_EQ(unescapeForJSON("a^2cb"), "a,b");
  EXPECT_EQ(unescapeForJSON("^09^7b^41^"), "\t{^41^");
  EXPECT_EQ(unescapeForJSON("\\\\\\/"), "\\/");  // "\\" first, then "\/"
}

TEST(CaretEscaping, RoundTripsMegabytesOfText) {
  std::string text;
  while (text.size() < 3'000'000) text += "Call Ann (work) re: \"Q3\" plan, 50% done; a+b=c? #todo [x] {y} @home <ok>/ ";
  EXPECT_EQ(unescapeForJSON(escapeForJSON(text)), text);
  const std::string escaped = escapeAllForMail(text);
  EXPECT_EQ(escaped.find_first_of(" ,;:/?@&=+#<>\"[]{}()!'*"), std::string::npos);
  EXPECT_EQ(urlUnescape(escaped), text);
}

TEST(Cleaning, CleanStringDropsOnlyItsControlCharacters) {
  EXPECT_EQ(cleanString(std::string("a\x05\x06\x07\x08\x18\x1B\x7F" "b\x01\t\n\x1F", 13)),
            "ab\x01\t\n\x1F");
  EXPECT_EQ(cleanString(""), "");
  EXPECT_EQ(getCleanStringData("x\x07y\xC3\xA9"), (Bytes{'x', 'y', 0xC3, 0xA9}));
}

TEST(Cleaning, CleanStringQuickIsAlwaysEmpty) {
  for (const char* text : {"", "abc", "\x08\x18", "\xEF\x88\x86 text"}) {
    EXPECT_EQ(cleanStringQuick(text), "") << text;
  }
}

TEST(Cleaning, CleanInputStringSpacesBeforeTwoCyrillicCapitals) {
  // U+042D and U+0423; U+044D (small e) and U+0420 are left alone.
  EXPECT_EQ(cleanInputString("\xD0\xAD\xD1\x82\xD0\xBE \xD0\xA3\xD1\x8D\xD0\xA0"),
            " \xD0\xAD\xD1\x82\xD0\xBE  \xD0\xA3\xD1\x8D\xD0\xA0");
  EXPECT_EQ(cleanInputString("latin"), "latin");
}

TEST(Cleaning, ValidXMLStringRemovesForbiddenCharactersIncludingTheRangeEnds) {
  const Case cases[] = {
      {"keep\t\n\r text", "keep\t\n\r text"},
      {"a\x01" "b\x1F" "c", "abc"},
      {"x\xEF\xBF\xBDy", "xy"},                          // U+FFFD
      {"x\xED\x9F\xBFy\xED\x9F\xBEz", "xy\xED\x9F\xBEz"},  // U+D7FF gone, U+D7FE kept
      {"\xEF\xBF\xBC\xEF\xBF\xBE", "\xEF\xBF\xBC"},      // U+FFFC kept, U+FFFE gone
      {"\xF4\x8F\xBF\xBF\xF4\x8F\xBF\xBE", "\xF4\x8F\xBF\xBE"},  // U+10FFFF gone
      {"emoji \xF0\x9F\x98\x80", "emoji \xF0\x9F\x98\x80"},
      {"bad\xFF\xC3(utf8\xED\xA0\x80", "bad(utf8"},  // ill-formed sequences go too
      {"\x02\x03\x04", ""},
  };
  for (const Case& c : cases) EXPECT_EQ(validXMLString(c.input), c.expected) << c.input;
}

TEST(Cleaning, ValidXMLStringIsSafeOnFirstUseFromManyThreads) {
  std::vector<std::thread> threads;
  std::vector<std::string> results(8);
  for (size_t i = 0; i < results.size(); ++i) {
    threads.emplace_back([&results, i] { results[i] = validXMLString("a\x01" "b"); });
  }
  for (auto& t : threads) t.join();
  for (const std::string& r : results) EXPECT_EQ(r, "ab");
}

TEST(Language, RightToLeftForArabicAndHebrewOnly) {
  EXPECT_FALSE(isTextRTL(""));
  EXPECT_TRUE(isTextRTL("\xD7\xA9\xD7\x9C\xD7\x95\xD7\x9D \xD7\xA2\xD7\x95\xD7\x9C\xD7\x9D, "
                        "\xD7\x9E\xD7\x94 \xD7\xA9\xD7\x9C\xD7\x95\xD7\x9E\xD7\x9A "
                        "\xD7\x94\xD7\x99\xD7\x95\xD7\x9D?"));
  EXPECT_TRUE(isTextRTL("\xD9\x85\xD8\xB1\xD8\xAD\xD8\xA8\xD8\xA7 \xD8\xA8\xD8\xA7\xD9\x84\xD8\xB9"
                        "\xD8\xA7\xD9\x84\xD9\x85\xD8\x8C \xD9\x83\xD9\x8A\xD9\x81 "
                        "\xD8\xAD\xD8\xA7\xD9\x84\xD9\x83 \xD8\xA7\xD9\x84\xD9\x8A\xD9\x88\xD9\x85"));
  EXPECT_FALSE(isTextRTL("Remember to buy milk and call the bank before noon"));
  EXPECT_FALSE(isTextRTL("Vergiss nicht, heute Abend die Blumen zu gie\xC3\x9F" "en"));
  EXPECT_FALSE(isTextRTL("\xFF\xFE not utf8 \xC3"));
}

TEST(Identifiers, UuidTextIs32UpperCaseHexDigits) {
  VirtualEnv env;
  ScopedEnv use(env);
  EXPECT_EQ(stringWithUUID(), "00000000000040008000000000000001");
  EXPECT_EQ(stringWithUUID(), "00000000000040008000000000000002");
}

TEST(SearchReplace, RestartsOneCharacterAfterTheMatchStart) {
  // Deleting the first "ab" brings the second to the match position, which is skipped.
  EXPECT_EQ(searchReplace("abab", "ab", ""), "ab");
  EXPECT_EQ(searchReplace("aaaa", "aa", "a"), "aa");
  EXPECT_EQ(searchReplace("a.a", "a", "ab"), "ab.ab");  // the inserted "a" is not found again
  EXPECT_EQ(searchReplace("x-y-z", "-", "-+"), "x-+y-+z");
  EXPECT_EQ(searchReplace("ABC", "b", "x"), "ABC");     // case-sensitive
  EXPECT_EQ(searchReplace("\xC3\xA9\xC3\xA9", "\xC3\xA9", "e"), "ee");
}

TEST(SearchReplace, NullOrEmptyArgumentsLeaveTheText) {
  EXPECT_EQ(searchReplace("text", std::nullopt, "x"), "text");
  EXPECT_EQ(searchReplace("text", "t", std::nullopt), "text");
  EXPECT_EQ(searchReplace("text", "", "x"), "text");
}

TEST(StringHelpers, IndexOfCountsUtf16CodeUnits) {
  const std::string text = "a\xC3\xA9\xF0\x9F\x98\x80" "b";  // a, é, U+1F600 (two units), b
  EXPECT_EQ(indexOf(text, u'a'), (TextRange{0, 1}));
  EXPECT_EQ(indexOf(text, u'\u00E9'), (TextRange{1, 1}));
  EXPECT_EQ(indexOf(text, char16_t{0xD83D}), (TextRange{2, 1}));
  EXPECT_EQ(indexOf(text, char16_t{0xDE00}), (TextRange{3, 1}));
  EXPECT_EQ(indexOf(text, u'b'), (TextRange{4, 1}));
  EXPECT_EQ(indexOf(text, u'z'), (TextRange{kTextNotFound, 0}));
  EXPECT_EQ(indexOf("\xFFx", u'x'), (TextRange{1, 1}));  // a bad byte is one unit
}

TEST(StringHelpers, ContainmentTests) {
  EXPECT_TRUE(doesContain("Hello", "ELL"));
  EXPECT_FALSE(doesContainIgnoreLower("Hello", "ELL"));
  EXPECT_TRUE(doesContainIgnoreLower("Hello", "ell"));
  EXPECT_TRUE(doesContain("\xC3\x84PFEL", "\xC3\xA4pf"));          // ÄPFEL / äpf
  EXPECT_TRUE(doesContain("\xCE\xA3\xCE\x9F\xCE\xA6\xCE\x99\xCE\x91", "\xCF\x83\xCE\xBF"));  // ΣΟ
  EXPECT_FALSE(doesContain("Hello", ""));
  EXPECT_FALSE(doesContain("Hello", std::nullopt));
  EXPECT_FALSE(doesContainIgnoreLower("Hello", ""));
  EXPECT_FALSE(doesContain("abc", "abcd"));
}

TEST(StringHelpers, ExplodeKeepsEmptyFieldsAndImplodeJoins) {
  EXPECT_EQ(explode("a,,b,", ","), (std::vector<std::string>{"a", "", "b", ""}));
  EXPECT_EQ(explode("", ","), (std::vector<std::string>{""}));
  EXPECT_EQ(explode("a::b", "::"), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(explode("abc", ""), (std::vector<std::string>{"abc"}));
  EXPECT_EQ(implode({"a", "", "b"}, ", "), "a, , b");
  EXPECT_EQ(implode({}, ","), "");
  EXPECT_EQ(implode(explode("x|y||z", "|"), "|"), "x|y||z");
}

TEST(StringHelpers, StrduplicateCopiesTheTerminator) {
  char* copy = strduplicate("abc");
  ASSERT_NE(copy, nullptr);
  EXPECT_STREQ(copy, "abc");
  std::free(copy);
}

TEST(BadInput, InvalidUtf8GetsDefinedResults) {
  const std::string bad = "a\xFF\xC3" "b\xED\xA0\x80";
  EXPECT_EQ(escapeAllForMail(bad), "a%FF%C3b%ED%A0%80");
  EXPECT_EQ(urlUnescape(escapeAllForMail(bad)), std::nullopt);
  EXPECT_EQ(escapeForJSON(bad), bad);
  EXPECT_EQ(cleanString(bad), bad);
  EXPECT_EQ(validXMLString(bad), "ab");
  EXPECT_TRUE(doesContain(bad, "B"));
}

}  // namespace
}  // namespace wdc
