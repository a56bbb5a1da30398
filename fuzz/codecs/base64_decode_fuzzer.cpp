// base64Decoded on arbitrary text, checked against what the decoder promises: at most three
// bytes per four alphabet characters, and canonical text (its own encoding) decodes back exactly.
#include <cstddef>
#include <cstdint>

#include "webdavconnect/data_codecs.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const wdc::Bytes text(data, data + size);
  const wdc::Bytes decoded = wdc::base64Decoded(text);
  if (decoded.size() > size / 4 * 3 + 3) __builtin_trap();
  // The raw input taken as bytes must survive an encode/decode round trip.
  const std::string encoded = wdc::base64Encoded(text);
  if (wdc::base64Decoded(wdc::Bytes(encoded.begin(), encoded.end())) != text) __builtin_trap();
  return 0;
}
