// MD5 and SHA-1 digests (nettle) and the lower-case hexadecimal rendering hosts print them with.
#include <nettle/md5.h>
#include <nettle/sha1.h>

#include "webdavconnect/data_codecs.h"

namespace wdc {

Bytes md5Digest(const Bytes& input) {
  md5_ctx ctx;
  md5_init(&ctx);
  md5_update(&ctx, input.size(), input.data());
  Bytes digest(MD5_DIGEST_SIZE);
  md5_digest(&ctx, digest.size(), digest.data());
  return digest;
}

Bytes sha1Digest(const Bytes& input) {
  sha1_ctx ctx;
  sha1_init(&ctx);
  sha1_update(&ctx, input.size(), input.data());
  Bytes digest(SHA1_DIGEST_SIZE);
  sha1_digest(&ctx, digest.size(), digest.data());
  return digest;
}

std::string hexStringValue(const Bytes& input) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(input.size() * 2);
  for (uint8_t byte : input) {
    text.push_back(kDigits[byte >> 4]);
    text.push_back(kDigits[byte & 0x0F]);
  }
  return text;
}

}  // namespace wdc
