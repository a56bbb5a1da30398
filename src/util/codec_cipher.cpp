// The in-place DES pair (ECB, PKCS#7 padding, 8-byte key cut from a zero-filled 264-byte buffer).
//
// The buffer's length never changes, which is what makes the pair lopsided and is kept that way
// because stored host data depends on it: padding always needs 1 to 8 more bytes than an in-place
// encryption has, so encryption reports "buffer too small" before touching a byte, while a
// decryption succeeds and leaves the decrypted padding bytes at the end of the buffer.
#include <nettle/des.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "webdavconnect/data_codecs.h"

namespace wdc {
namespace {

constexpr size_t kKeyBufferSize = 264;

std::array<uint8_t, DES_KEY_SIZE> desKey(std::string_view key) {
  std::array<uint8_t, kKeyBufferSize> buffer{};
  // The key and its terminating zero must fit; a key that does not is treated as all zeros.
  if (key.size() + 1 <= kKeyBufferSize) std::memcpy(buffer.data(), key.data(), key.size());
  std::array<uint8_t, DES_KEY_SIZE> first{};
  std::copy_n(buffer.begin(), DES_KEY_SIZE, first.begin());
  return first;
}

// Length of valid PKCS#7 padding at the end of `plain`, or 0 when it is malformed.
size_t paddingLength(const Bytes& plain) {
  const uint8_t count = plain.back();
  if (count == 0 || count > DES_BLOCK_SIZE) return 0;
  for (size_t i = plain.size() - count; i < plain.size(); ++i) {
    if (plain[i] != count) return 0;
  }
  return count;
}

}  // namespace

bool encryptWithKey(Bytes& buffer, std::string_view key) {
  (void)key;
  // PKCS#7 always adds at least one byte, and in place there is no room for it.
  const size_t needed = (buffer.size() / DES_BLOCK_SIZE + 1) * DES_BLOCK_SIZE;
  return needed <= buffer.size();
}

bool decryptWithKey(Bytes& buffer, std::string_view key) {
  // An empty buffer holds no padding block; a partial block cannot be DES output.
  if (buffer.empty() || buffer.size() % DES_BLOCK_SIZE != 0) return false;
  des_ctx ctx;
  const auto keyBytes = desKey(key);
  // Weak keys (an empty key string gives one) are used as they are: nettle reports them but
  // still schedules them, like the platform cipher this pair was first written against.
  (void)des_set_key(&ctx, keyBytes.data());
  des_decrypt(&ctx, buffer.size(), buffer.data(), buffer.data());
  return paddingLength(buffer) != 0;
}

}  // namespace wdc
