// Safe ZIP extraction on arbitrary bytes: a result or a refusal, never a crash, never a file
// outside the destination, and every indexed path inside it. Limits are small so that a
// decompression bomb costs a megabyte, not the disk. Run with TMPDIR on a memory file system:
// every input creates and deletes real files.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

#include "platform/env.h"
#include "snapshot/zip_extractor.h"

namespace {

namespace fs = std::filesystem;

const fs::path& base() {
  static const fs::path path = [] {
    fs::path p =
        wdc::Env::current().temporaryDirectory() / ("wdc-fuzz-zip-" + std::to_string(::getpid()));
    fs::create_directories(p);
    return p;
  }();
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 256 * 1024) return -1;
  const fs::path destination = base() / "out";
  fs::create_directories(destination);
  const wdc::WebDAVZipExtractionLimits limits = {.maxEntries = 64, .maxTotalBytes = 1 << 20};
  std::string whyNot;
  const bool ok = wdc::extractZipBytes({data, size}, destination, limits, &whyNot);
  if (!ok && whyNot.empty()) __builtin_trap();  // every refusal says why

  for (const auto& [name, path] : wdc::indexExtractedFiles(destination)) {
    if (path.compare(0, destination.string().size() + 1, destination.string() + "/") != 0) {
      __builtin_trap();
    }
  }
  // The destination is the base's only child: nothing was written beside it.
  for (const auto& entry : fs::directory_iterator(base())) {
    if (entry.path() != destination) __builtin_trap();
  }
  fs::remove_all(destination);
  return 0;
}
