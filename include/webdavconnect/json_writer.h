// A small writer of compact JSON-like text from payload arrays and dictionaries, built by plain
// string concatenation. It escapes nothing: strings are written between double quotes exactly as
// they are, so the output is valid JSON only when the strings need no escaping (hosts pass
// strings already treated with escapeForJSON). Stateless; any thread may call.
//
// Per value, in this order: a string is written as "text"; a number (integers, reals and
// booleans) as "%d" of its value converted to a signed 32-bit integer (fractions cut toward
// zero, true 1, false 0; integers outside the 32-bit range keep their low 32 bits, reals outside
// it saturate and NaN writes 0); the null marker as null; an array or dictionary recursively.
// Anything else (dates, data, sets, archived objects) writes nothing, but the separator after it
// is still written: [1,,3] and {"k":,"l":2} are what hosts have always received.
#pragma once

#include <optional>
#include <string>

#include "webdavconnect/plist_value.h"

namespace wdc {

// "[" the elements separated by "," "]"; no white space anywhere. A null array gives "[]".
[[nodiscard]] std::string jsonWithArray(const PlistValue::Array* array);
[[nodiscard]] std::string jsonWithArray(const PlistValue::Array& array);

// "{" then "\"key\":value" per key in the dictionary's (insertion) order, separated by ","
// then "}". A null dictionary gives nullopt.
[[nodiscard]] std::optional<std::string> jsonWithDict(const PlistDictionary* dict);
[[nodiscard]] std::string jsonWithDict(const PlistDictionary& dict);

}  // namespace wdc
