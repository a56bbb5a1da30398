// String operations the host application calls for mail links, URL query strings, telephone
// dialling, CSV export, search patterns, the Toodledo web service and a caret-coded JSON-safe
// form, plus control-character and XML clean-up, a right-to-left test, UUID text and a few
// search, split and join helpers.
//
// Text is UTF-8 in std::string at this interface. Where a rule counts "characters" (indexOf's
// location, validXMLString's one-character deletions) it counts UTF-16 code units, so positions
// agree with data written by hosts that work in UTF-16. Replacement tables are applied in their
// fixed order, each step over the whole text, left to right, non-overlapping and ASCII
// case-insensitively ("%2b" matches "%2B"); text a step inserts is not rescanned by that step.
// The order is part of the contract with data already written: do not reorder.
//
// Bytes that are not valid UTF-8 are carried through unchanged by the replacement steps and the
// escapers escape them byte by byte; validXMLString removes them; lower-casing (doesContain)
// reads each bad sequence as U+FFFD. Nothing here crashes, logs or hangs on any input, except
// searchReplace with a replacement that contains the search text from its second character on
// (see there).
//
// Every function is re-entrant; the only shared state is validXMLString's character set, built
// once on first use under a one-time initialisation. Any thread may call.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "webdavconnect/error.h"
#include "webdavconnect/plist_value.h"

namespace wdc {

// ---- Mail, URL query and telephone escaping ----

// Legacy URL escaping, then every one of & + , / : ; = ? @ space TAB # < > " LF [ ] ! ' ( ) *
// becomes its "%XX" form. A null text (nullopt) gives "".
[[nodiscard]] std::string escapeAllForMail(std::optional<std::string_view> text);

// Percent-decodes the whole text, then turns the escapes that were escaped twice back into their
// characters ("%2526" -> "&") and "&lt;" into "<". A "%" without two hexadecimal digits after it,
// or decoded bytes that are not UTF-8, make the text an invalid argument: the result is nullopt
// and `*error` (when `error` is non-null) gets an error of domain "WebDAVConnect", code 400.
[[nodiscard]] std::optional<std::string> unescapeAllForMail(std::string_view text,
                                                            ErrorOut error = nullptr);

// Legacy URL escaping, then & + , ; @ space TAB < > " LF become "%XX" while "#" stays as it is
// (its "%23" is turned back). "/", ":", "=" and "?" are left alone.
[[nodiscard]] std::string escapeAll(std::string_view text);

// A dialling string: removes "-", " ", ")", "(" and "/", then applies legacy URL escaping.
[[nodiscard]] std::string escapeAllForCall(std::string_view text);

// ---- Export and search ----

// One CSV field: doubles every double quote, turns LF into CR LF (so an existing CR LF becomes
// CR CR LF), and wraps the result in double quotes when it holds a comma, double quote, line
// break or TAB, or begins or ends with a space.
[[nodiscard]] std::string escapeAllForExport(std::string_view text);

// Doubles every "'" for a quoted SQL-like search pattern.
[[nodiscard]] std::string escapeForSearch(std::string_view text);

// ---- Exchange formats ----

// Returns the text unchanged: the service takes it raw.
[[nodiscard]] std::string escapeForToodledo(std::string_view text);

// Turns the service's "%XX" escapes of & + , / : ; = ? @ space TAB # < > " LF { } [ ] and the
// entities "&lt;" "&gt;" back into characters. No general percent decoding: "%41" stays.
[[nodiscard]] std::string unescapeForToodledo(std::string_view text);

// Caret code: doubles "\", writes "/" as "\/", drops backspace, form feed and LF, turns TAB and
// space into "^20" and & + , : ; = ? @ # < > " { } [ ] ( ) into "^" and two upper-case hex
// digits. "^" itself and CR are left as they are, so the code is not injective.
[[nodiscard]] std::string escapeForJSON(std::string_view text);

// Reverses escapeForJSON as far as it can ("\\" then "\/" first, then every caret code of the
// escaped set, any letter case). Dropped characters do not come back.
[[nodiscard]] std::string unescapeForJSON(std::string_view text);

// ---- URL components ----

// Percent-escapes (upper-case hex) every UTF-8 byte except ASCII letters, digits, "-", "_", ".",
// "~".
[[nodiscard]] std::string urlEscape(std::string_view text);

// Percent decoding; nullopt when a "%" lacks two hex digits or the bytes are not UTF-8.
[[nodiscard]] std::optional<std::string> urlUnescape(std::string_view text);

// Percent-escapes every UTF-8 byte outside the URL-query set (ASCII letters, digits and
// ! $ & ' ( ) * + , - . / : ; = ? @ _ ~).
[[nodiscard]] std::string URLEncodedString(std::string_view text);

// Percent decoding; nullopt when it fails (as urlUnescape).
[[nodiscard]] std::optional<std::string> URLDecodedString(std::string_view text);

// ---- Clean-up ----

// The text without U+0005, U+0006, U+0007, U+0008, U+0018, U+001B and U+007F; every other
// character (other control characters included) is kept.
[[nodiscard]] std::string cleanString(std::string_view text);

// Always "" whatever the text: existing callers depend on it. Use cleanString for the cleaned
// text.
[[nodiscard]] std::string cleanStringQuick(std::string_view text);

// UTF-8 bytes of cleanString(text).
[[nodiscard]] Bytes getCleanStringData(std::string_view text);

// Puts a space before every U+042D and every U+0423 (exact match, not case-insensitive).
[[nodiscard]] std::string cleanInputString(std::string_view text);

// The text without the characters XML 1.0 forbids, where U+D7FF, U+FFFD and U+10FFFF count as
// forbidden too (the allowed ranges stop one short of the XML limits, as stored data expects).
// Bytes that are not valid UTF-8 are removed as well. Text with nothing to remove comes back
// as it is.
[[nodiscard]] std::string validXMLString(std::string_view text);

// ---- Language, identifiers ----

// True when the most likely language of the whole text is Arabic or Hebrew. "" is false.
[[nodiscard]] bool isTextRTL(std::string_view text);

// A fresh random UUID (through the Env) as 32 upper-case hex digits without dashes.
[[nodiscard]] std::string stringWithUUID();

// ---- Search, split, join ----

// Replaces `search` by `with` (case-sensitively). After each replacement the next search starts
// one character after the start of the match just replaced, not after the inserted text. A null
// `search` or `with` returns the text unchanged; an empty `search` finds nothing.
// REQUIRES: `with` does not contain `search` starting at its second character or later (for
// example search "a", with "ba"): such a call never returns.
[[nodiscard]] std::string searchReplace(std::string_view text,
                                        std::optional<std::string_view> search,
                                        std::optional<std::string_view> with);

// A range of UTF-16 code units.
struct TextRange {
  int64_t location = 0;
  int64_t length = 0;
  bool operator==(const TextRange&) const = default;
};
// "Not found" location: the largest signed value.
inline constexpr int64_t kTextNotFound = INT64_MAX;

// The range (location, 1) of the first code unit equal to `c`, counted in UTF-16 code units, or
// (kTextNotFound, 0). A surrogate value finds its half of a non-BMP character.
[[nodiscard]] TextRange indexOf(std::string_view text, char16_t c);

// Unicode-aware, case-insensitive containment (both sides lower-cased). A null or empty `s`
// gives false.
[[nodiscard]] bool doesContain(std::string_view text, std::optional<std::string_view> s);

// Case-sensitive containment, despite the name. An empty `s` gives false.
[[nodiscard]] bool doesContainIgnoreLower(std::string_view text, std::string_view s);

// Splits at every occurrence of `separator`, keeping empty fields. An empty separator gives the
// whole text as the one field.
[[nodiscard]] std::vector<std::string> explode(std::string_view text, std::string_view separator);

// Joins `parts` with `separator` between them.
[[nodiscard]] std::string implode(const std::vector<std::string>& parts,
                                  std::string_view separator);

// Does nothing; kept so hosts that call it still link.
void display(std::string_view text);

}  // namespace wdc

extern "C" {
// A malloc'd copy of the zero-terminated `s`, terminator included. The caller frees it with
// free(). Not checked for allocation failure.
char* strduplicate(const char* s);
}
