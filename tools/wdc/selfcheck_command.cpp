// `wdc selfcheck`: encodes and decodes sample bytes with every codec and reports each result.
#include <CLI/CLI.hpp>

#include <cstdlib>
#include <iostream>
#include <string>

#include "records/record_name.h"
#include "tools/wdc/commands.h"
#include "webdavconnect/data_codecs.h"
#include "webdavconnect/file_metadata.h"

namespace wdc::cli {
namespace {

bool check(const char* what, bool ok) {
  std::cout << (ok ? "ok   " : "FAIL ") << what << "\n";
  return ok;
}

int runSelfCheck() {
  bool ok = true;
  std::string name =
      WebDAVFileMetaData::createEncodedPathWithOpType("a", "C", "P", "X", std::string("tod"));
  auto parsed = parseRecordName(name);
  ok &= check("record name round trip",
              parsed && parsed->opType == "a" && parsed->uid == "X" && parsed->extension == "tod");

  const std::string text = "The quick brown fox jumps over the lazy dog";
  const Bytes sample(text.begin(), text.end());
  Bytes repeated;
  for (int i = 0; i < 200; ++i) repeated.insert(repeated.end(), sample.begin(), sample.end());
  auto gz = gzipDeflate(repeated);
  auto gunzipped = gz ? gzipInflate(*gz) : std::nullopt;
  ok &= check("gzip deflate + inflate",
              gz && gz->size() > 2 && (*gz)[0] == 0x1f && (*gz)[1] == 0x8b && gunzipped == repeated);
  auto zl = zlibDeflate(repeated);
  ok &= check("zlib deflate + inflate", zl && zlibInflate(*zl) == repeated);
  const std::string encoded = base64Encoded(sample);
  ok &= check("base64 encode + decode",
              encoded == "VGhlIHF1aWNrIGJyb3duIGZveCBqdW1wcyBvdmVyIHRoZSBsYXp5IGRvZw==" &&
                  base64Decoded(Bytes(encoded.begin(), encoded.end())) == sample);
  // The widely published MD5 of this pangram.
  ok &= check("md5 hex", hexStringValue(md5Digest(sample)) == "9e107d9d372bb6826bd81d3542a419d6");
  return ok ? 0 : 1;
}

}  // namespace

void registerSelfCheckCommand(CLI::App& app) {
  auto* cmd = app.add_subcommand("selfcheck", "Check the codecs on this machine");
  cmd->callback([] {
    int rc = runSelfCheck();
    if (rc != 0) std::exit(rc);
  });
}

}  // namespace wdc::cli
