// Base64 with the standard alphabet. The encoder pads and never breaks lines. The decoder is
// deliberately lenient and keeps the behaviour hosts have long relied on: bytes outside the
// alphabet are skipped, the first "=" ends decoding, and an unpadded trailing partial quartet is
// dropped. On "=" after a single character, the one byte produced takes its low two bits from the
// quartet slot the previous quartet left behind; stored data was written that way, so it stays.
#include <array>
#include <cstring>

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
  text.resize((input.size() + 2) / 3 * 4);
  char* out = text.data();
  const uint8_t* in = input.data();
  const size_t whole = input.size() / 3 * 3;
  for (size_t offset = 0; offset < whole; offset += 3, out += 4) {
    const uint8_t b0 = in[offset], b1 = in[offset + 1], b2 = in[offset + 2];
    out[0] = kAlphabet[b0 >> 2];
    out[1] = kAlphabet[((b0 & 3) << 4) | (b1 >> 4)];
    out[2] = kAlphabet[((b1 & 15) << 2) | (b2 >> 6)];
    out[3] = kAlphabet[b2 & 63];
  }
  // A short last group is filled with zero bytes; its missing characters become "=".
  const size_t remaining = input.size() - whole;
  if (remaining > 0) {
    const uint8_t b0 = in[whole];
    const uint8_t b1 = remaining > 1 ? in[whole + 1] : 0;
    out[0] = kAlphabet[b0 >> 2];
    out[1] = kAlphabet[((b0 & 3) << 4) | (b1 >> 4)];
    out[2] = remaining > 1 ? kAlphabet[(b1 & 15) << 2] : '=';
    out[3] = '=';
  }
  return text;
}

Bytes base64Decoded(const Bytes& text) {
  // At most three bytes per four characters, plus two for a padded partial quartet.
  Bytes output(text.size() / 4 * 3 + 3);
  uint8_t* out = output.data();
  // Slots persist across quartets on purpose (see the file comment).
  uint8_t quartet[4] = {0, 0, 0, 0};
  size_t filled = 0;
  const uint8_t* in = text.data();
  const uint8_t* const end = in + text.size();
  while (in < end) {
    // Fast path: four alphabet characters in a row at a quartet boundary, the common case.
    if (filled == 0 && end - in >= 4) {
      const int8_t v0 = kDecode[in[0]], v1 = kDecode[in[1]], v2 = kDecode[in[2]],
                   v3 = kDecode[in[3]];
      if ((v0 | v1 | v2 | v3) >= 0) {
        quartet[0] = static_cast<uint8_t>(v0);
        quartet[1] = static_cast<uint8_t>(v1);
        quartet[2] = static_cast<uint8_t>(v2);
        quartet[3] = static_cast<uint8_t>(v3);
        out[0] = static_cast<uint8_t>((v0 << 2) | ((v1 & 0x30) >> 4));
        out[1] = static_cast<uint8_t>(((v1 & 0x0F) << 4) | ((v2 & 0x3C) >> 2));
        out[2] = static_cast<uint8_t>(((v2 & 0x03) << 6) | (v3 & 0x3F));
        out += 3;
        in += 4;
        continue;
      }
    }
    const int8_t value = kDecode[*in++];
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
      std::memcpy(out, bytes, produce);
      out += produce;
    }
    if (last) break;
  }
  output.resize(static_cast<size_t>(out - output.data()));
  return output;
}

}  // namespace wdc
