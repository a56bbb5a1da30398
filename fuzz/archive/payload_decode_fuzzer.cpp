// The stored-payload decoder on arbitrary bytes: bounded inflate, then the keyed archive.
#include <cstddef>
#include <cstdint>
#include <span>

#include "webdavconnect/payload.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 64 * 1024) return -1;
  wdc::KeyedArchiveLimits limits;
  limits.maxDecodedBytes = 8u << 20;
  std::optional<wdc::Error> error;
  auto value = wdc::decodeStoredPayload(std::span<const uint8_t>(data, size), &error, limits);
  if (value) {
    auto stored = wdc::encodeStoredPayload(*value);
    if (!stored) __builtin_trap();
  }
  return 0;
}
