// gzipInflate (gzip or zlib header detected) on arbitrary bytes: a value or nullopt, never a
// crash or a hang. Inputs are capped to bound the output of a decompression bomb.
#include <cstddef>
#include <cstdint>

#include "webdavconnect/data_codecs.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 64 * 1024) return -1;
  const wdc::Bytes input(data, data + size);
  auto output = wdc::gzipInflate(input);
  if (output && !output->empty()) {
    auto again = wdc::gzipDeflate(*output);
    if (!again || wdc::gzipInflate(*again) != output) __builtin_trap();
  }
  return 0;
}
