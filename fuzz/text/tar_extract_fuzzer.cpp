// untar on arbitrary bytes written to an archive file in the Env's scratch directory. Whatever the
// headers say, extraction must stay inside the destination, end (no hang on huge sizes), and
// report 0 or -1. Run with -close_fd_mask=2 to silence the extractor's warnings.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include "platform/env.h"
#include "webdavconnect/tar_extraction.h"

namespace fs = std::filesystem;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const fs::path root = wdc::Env::current().temporaryDirectory() / "fuzz_tar";
  const fs::path box = root / "box";
  const fs::path destination = box / "out";
  const fs::path archive = root / "archive.tar";
  std::error_code ignored;
  fs::remove_all(root, ignored);
  fs::create_directories(box);

  std::FILE* out = std::fopen(archive.c_str(), "wb");
  if (out == nullptr) return 0;
  std::fwrite(data, 1, size, out);
  std::fclose(out);
  std::FILE* in = std::fopen(archive.c_str(), "rb");
  if (in == nullptr) return 0;
  const int result = wdc::untar(in, archive.c_str(), destination.c_str());
  std::fclose(in);
  if (result != 0 && result != -1) __builtin_trap();
  // Nothing may appear next to the destination: names with ".." or "/" at the start are refused.
  for (const auto& entry : fs::directory_iterator(box)) {
    if (entry.path() != destination) __builtin_trap();
  }
  fs::remove_all(root, ignored);
  return 0;
}
