// The JSON form of payload values on arbitrary text: a value or an error. What parses is written
// out again, and that text must parse to the same JSON.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "webdavconnect/payload.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 64 * 1024) return -1;
  std::optional<wdc::Error> error;
  auto value =
      wdc::payloadValueFromJSON(std::string_view(reinterpret_cast<const char*>(data), size), &error);
  if (!value) {
    if (!error) __builtin_trap();
    return 0;
  }
  const std::string text = wdc::payloadValueToJSON(*value, -1);
  auto again = wdc::payloadValueFromJSON(text, &error);
  if (!again || wdc::payloadValueToJSON(*again, -1) != text) __builtin_trap();
  return 0;
}
