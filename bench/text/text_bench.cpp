// Throughput of the escapers a host calls in hot loops, on 1 KB and 1 MB of to-do-like text
// (words, punctuation, a little non-ASCII), each table led by a floor: a plain copy of the same
// bytes, and where one exists a library doing the equivalent job (libcurl's URL escaping,
// nlohmann-json's string escaping and parsing, ICU's UTF-8 scan). MB/s counts the input bytes;
// the ratio column is against the library row (above 1: faster than the library).
#include <curl/curl.h>
#include <unicode/unistr.h>

#include <cstdio>
#include <nlohmann/json.hpp>
#include <random>
#include <string>

#include "support/bench_util.h"
#include "webdavconnect/text_escaping.h"

namespace wdc::bench {
namespace {

std::string todoText(size_t size) {
  static const char* kPieces[] = {
      "Buy milk", "call Ann (work)", "re: \"Q3\" plan", "50% done;", "a+b=c?", "#todo",
      "[x] done", "{later}", "@home", "<urgent>", "http://example.com/a?b=1&c=2", "caf\xC3\xA9",
      "na\xC3\xAFve", "\xF0\x9F\x98\x80", "tab\there", "line\nbreak", "O'Brien", "/path/to",
      "back\\slash", "10:30", "e-mail", "notes, more notes"};
  std::mt19937 rng(11);
  std::string out;
  while (out.size() < size) {
    out += kPieces[rng() % std::size(kPieces)];
    out += ' ';
  }
  // Cut on a character boundary so the text stays valid UTF-8.
  size_t cut = size;
  while (cut > 0 && (static_cast<unsigned char>(out[cut]) & 0xC0) == 0x80) --cut;
  out.resize(cut);
  return out;
}

void tables(const std::string& label, size_t size) {
  const std::string text = todoText(size);
  const double bytes = static_cast<double>(text.size());
  CURL* curl = curl_easy_init();

  std::vector<Measurement> rows;
  rows.push_back(measure("plain copy", [&] {
    std::string out = text;
    doNotOptimize(out.data());
  }, bytes));
  rows.push_back(measure("curl_easy_escape", [&] {
    char* out = curl_easy_escape(curl, text.data(), static_cast<int>(text.size()));
    doNotOptimize(out);
    curl_free(out);
  }, bytes));
  rows.push_back(measure("escapeAllForMail", [&] {
    std::string out = escapeAllForMail(text);
    doNotOptimize(out.data());
  }, bytes));
  printTable("mail escaping " + label, rows, "curl_easy_escape");

  rows.clear();
  rows.push_back(measure("plain copy", [&] {
    std::string out = text;
    doNotOptimize(out.data());
  }, bytes));
  rows.push_back(measure("nlohmann::json dump", [&] {
    std::string out = nlohmann::json(text).dump();
    doNotOptimize(out.data());
  }, bytes));
  rows.push_back(measure("escapeForJSON", [&] {
    std::string out = escapeForJSON(text);
    doNotOptimize(out.data());
  }, bytes));
  printTable("caret escaping " + label, rows, "nlohmann::json dump");

  const std::string caret = escapeForJSON(text);
  const std::string quoted = nlohmann::json(text).dump();
  rows.clear();
  rows.push_back(measure("plain copy", [&] {
    std::string out = caret;
    doNotOptimize(out.data());
  }, bytes));
  rows.push_back(measure("nlohmann::json parse", [&] {
    auto out = nlohmann::json::parse(quoted).get<std::string>();
    doNotOptimize(out.data());
  }, bytes));
  rows.push_back(measure("unescapeForJSON", [&] {
    std::string out = unescapeForJSON(caret);
    doNotOptimize(out.data());
  }, bytes));
  printTable("caret unescaping " + label + " (MB/s of the plain text)", rows,
             "nlohmann::json parse");

  std::string dirty = text;
  for (size_t i = 97; i < dirty.size(); i += 997) dirty[i] = '\x01';  // forbidden in XML
  rows.clear();
  rows.push_back(measure("plain copy", [&] {
    std::string out = text;
    doNotOptimize(out.data());
  }, bytes));
  rows.push_back(measure("ICU UTF-8 to UTF-16", [&] {
    auto out = icu::UnicodeString::fromUTF8(
        icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
    doNotOptimize(&out);
  }, bytes));
  rows.push_back(measure("validXMLString (clean)", [&] {
    std::string out = validXMLString(text);
    doNotOptimize(out.data());
  }, bytes));
  rows.push_back(measure("validXMLString (1 in 997 bad)", [&] {
    std::string out = validXMLString(dirty);
    doNotOptimize(out.data());
  }, bytes));
  printTable("XML clean-up " + label, rows, "ICU UTF-8 to UTF-16");
  curl_easy_cleanup(curl);
}

}  // namespace
}  // namespace wdc::bench

int main() {
  wdc::bench::tables("1 KB", 1024);
  wdc::bench::tables("1 MB", 1 << 20);
  return 0;
}
