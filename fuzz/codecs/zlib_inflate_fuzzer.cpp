// zlibInflate on arbitrary bytes: must return a value or nullopt, never crash or loop. Inputs
// are capped so the at most ~1000:1 expansion of deflate stays within memory limits.
#include <cstddef>
#include <cstdint>

#include "webdavconnect/data_codecs.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 64 * 1024) return -1;
  const wdc::Bytes input(data, data + size);
  auto output = wdc::zlibInflate(input);
  // Whatever inflates must deflate and come back unchanged.
  if (output && !output->empty()) {
    auto again = wdc::zlibDeflate(*output);
    if (!again || wdc::zlibInflate(*again) != output) __builtin_trap();
  }
  return 0;
}
