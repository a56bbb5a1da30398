// Keyed-archive and plain binary-plist decoding of arbitrary bytes: a value or an error, never a
// crash, a hang or unbounded memory. What decodes is written back and read again.
#include <cstddef>
#include <cstdint>
#include <span>

#include "webdavconnect/keyed_archive.h"
#include "webdavconnect/payload.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 256 * 1024) return -1;
  const std::span<const uint8_t> input(data, size);
  // A smaller expansion budget than the default keeps each run fast; the check is the same.
  wdc::KeyedArchiveLimits limits;
  limits.maxDecodedBytes = 8u << 20;
  std::optional<wdc::Error> error;
  if (auto top = wdc::unarchiveTopLevelObjects(input, &error, limits)) {
    (void)wdc::payloadValueToJSON(wdc::PlistValue(*top), -1);
    const wdc::Bytes again = wdc::archiveTopLevelObjects(*top, true);
    std::optional<wdc::Error> againError;
    (void)wdc::unarchiveTopLevelObjects(again, &againError);
  } else if (!error) {
    __builtin_trap();  // a failure must say why
  }
  error.reset();
  if (auto plain = wdc::readBinaryPropertyList(input, &error, limits)) {
    (void)wdc::writeBinaryPropertyList(*plain);
  } else if (!error) {
    __builtin_trap();
  }
  return 0;
}
