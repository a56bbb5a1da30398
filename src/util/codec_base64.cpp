// Base64 with the standard alphabet. The encoder pads and never breaks lines. The decoder is
// deliberately lenient and keeps the behaviour hosts have long relied on: bytes outside the
// alphabet are skipped, the first "=" ends decoding, and an unpadded trailing partial quartet is
// dropped. On "=" after a single character, the one byte produced takes its low two bits from the
// quartet slot the previous quartet left behind; stored data was written that way, so it stays.
#include <array>

#include "webdavconnect/data_codecs.h"

namespace wdc {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr int8_t kSkip = -1;
constexpr int8_t kPad = -2;

constexpr std::array<int8_t, 256> makeDecodeTable() {
  std::array<int8_t, 256> table{};
  for (auto& entry : table) entry = kSkip;
  for (int i = 0; i < 64; ++i) table[static_cast<uint8_t>(kAlphabet[i])] = static_cast<int8_t>(i);
  table['='] = kPad;
  return table;
}
constexpr std::array<int8_t, 256> kDecode = makeDecodeTable();

}  // namespace

std::string base64Encoded(const Bytes& input) {
  std::string text;
  if (input.empty()) return text;
  text.reserve((input.size() + 2) / 3 * 4);
  for (size_t offset = 0; offset < input.size(); offset += 3) {
    const size_t remaining = input.size() - offset;
    const uint8_t b0 = input[offset];
    const uint8_t b1 = remaining > 1 ? input[offset + 1] : 0;
    const uint8_t b2 = remaining > 2 ? input[offset + 2] : 0;
    const char sextets[4] = {kAlphabet[b0 >> 2], kAlphabet[((b0 & 3) << 4) | (b1 >> 4)],
                             kAlphabet[((b1 & 15) << 2) | (b2 >> 6)], kAlphabet[b2 & 63]};
    const size_t emitted = remaining == 1 ? 2 : remaining == 2 ? 3 : 4;
    text.append(sextets, emitted);
    text.append(4 - emitted, '=');
  }
  return text;
}

Bytes base64Decoded(const Bytes& text) {
  Bytes output;
  output.reserve(text.size() / 4 * 3);
  // Slots persist across quartets on purpose (see the file comment).
  uint8_t quartet[4] = {0, 0, 0, 0};
  size_t filled = 0;
  for (uint8_t c : text) {
    const int8_t value = kDecode[c];
    if (value == kSkip) continue;
    size_t produce = 3;
    bool last = false;
    if (value == kPad) {
      if (filled == 0) break;
      produce = filled == 3 ? 2 : 1;
      filled = 3;
      last = true;
    }
    // The pad character itself lands in slot 3; only the emitted bytes are read, so its value
    // never shows.
    quartet[filled++] = static_cast<uint8_t>(value == kPad ? '=' : value);
    if (filled == 4) {
      filled = 0;
      const uint8_t bytes[3] = {
          static_cast<uint8_t>((quartet[0] << 2) | ((quartet[1] & 0x30) >> 4)),
          static_cast<uint8_t>(((quartet[1] & 0x0F) << 4) | ((quartet[2] & 0x3C) >> 2)),
          static_cast<uint8_t>(((quartet[2] & 0x03) << 6) | (quartet[3] & 0x3F))};
      output.insert(output.end(), bytes, bytes + produce);
    }
    if (last) break;
  }
  return output;
}

}  // namespace wdc
