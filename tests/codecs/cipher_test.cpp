// The in-place DES pair. Ciphertexts come from OpenSSL's DES-ECB with PKCS#7 padding: two were
// recorded once, and when the `openssl` command (with its legacy provider) is present, more are
// made at run time from random plain texts.
#include <gtest/gtest.h>

#include <cstdio>
#include <random>

#include "support/test_util.h"
#include "webdavconnect/data_codecs.h"

namespace wdc {
namespace {

using test::bytesOf;

Bytes fromHex(std::string_view hex) {
  Bytes out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    out.push_back(static_cast<uint8_t>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
  }
  return out;
}

Bytes padded(Bytes plain) {
  const size_t pad = 8 - plain.size() % 8;
  plain.insert(plain.end(), pad, static_cast<uint8_t>(pad));
  return plain;
}

// `openssl enc -des-ecb` of `plain` under the 8-byte key `keyHex`; nullopt when unavailable.
std::optional<Bytes> opensslEncrypt(const Bytes& plain, const std::string& keyHex,
                                    const test::TempDir& dir) {
  const auto in = dir.path() / "plain.bin";
  const auto out = dir.path() / "cipher.bin";
  test::writeFileBytes(in, plain);
  const std::string command = "openssl enc -des-ecb -provider legacy -provider default -nosalt -K " +
                              keyHex + " -in '" + in.string() + "' -out '" + out.string() +
                              "' 2>/dev/null";
  if (std::system(command.c_str()) != 0) return std::nullopt;
  return test::readFileBytes(out);
}

// "hello des world!!" under key "key12345", and "x" under the all-zero key (a weak DES key).
const Bytes kHelloCipher = fromHex("86652253" "8315de67" "540ed2e8" "9a623da5" "7ce087f4" "994868e5");
const Bytes kZeroKeyCipher = fromHex("e69546a4adff9485");

TEST(Cipher, DecryptsRecordedOpensslVectorsLeavingThePadding) {
  Bytes buffer = kHelloCipher;
  ASSERT_TRUE(decryptWithKey(buffer, "key12345"));
  EXPECT_EQ(buffer, padded(bytesOf("hello des world!!")));

  buffer = kZeroKeyCipher;
  ASSERT_TRUE(decryptWithKey(buffer, ""));
  EXPECT_EQ(buffer, padded(bytesOf("x")));
}

TEST(Cipher, KeyIsTheFirstEightBytesOfAZeroFilledBuffer) {
  struct Case {
    std::string key;
    const Bytes* cipher;
  };
  const std::vector<Case> cases = {
      {"key12345 and much more", &kHelloCipher},     // cut to 8 bytes
      {"key12345" + std::string(255, 'z'), &kHelloCipher},  // 263 bytes + terminator fit
      {std::string(264, 'k'), &kZeroKeyCipher},     // does not fit: all-zero key
  };
  for (const auto& c : cases) {
    Bytes buffer = *c.cipher;
    EXPECT_TRUE(decryptWithKey(buffer, c.key)) << c.key.size();
  }
  // A short key is padded with zeros, so "key" is not "key12345".
  Bytes buffer = kHelloCipher;
  EXPECT_FALSE(decryptWithKey(buffer, "key") && buffer == padded(bytesOf("hello des world!!")));
}

TEST(Cipher, DecryptionFailures) {
  const std::vector<std::pair<const char*, Bytes>> cases = {
      {"empty", Bytes{}},
      {"partial block", Bytes(kHelloCipher.begin(), kHelloCipher.end() - 1)},
      {"plain text block", bytesOf("01234567")},  // decrypts to garbage padding
  };
  for (const auto& [name, input] : cases) {
    Bytes buffer = input;
    EXPECT_FALSE(decryptWithKey(buffer, "key12345")) << name;
    EXPECT_EQ(buffer.size(), input.size()) << name;
  }
}

TEST(Cipher, EncryptionAlwaysFailsAndLeavesTheBufferAlone) {
  for (size_t size = 0; size <= 33; ++size) {
    Bytes buffer(size, 0x5A);
    EXPECT_FALSE(encryptWithKey(buffer, "key12345")) << size;
    EXPECT_EQ(buffer, Bytes(size, 0x5A)) << size;
  }
}

TEST(Cipher, DecryptsWhatOpensslEncryptsAtRunTime) {
  test::TempDir dir;
  std::mt19937 rng(5);
  int checked = 0;
  for (size_t size : {0u, 1u, 7u, 8u, 9u, 64u, 1000u}) {
    Bytes plain(size);
    for (auto& b : plain) b = static_cast<uint8_t>(rng());
    Bytes key(8);
    for (auto& b : key) b = static_cast<uint8_t>('a' + rng() % 26);
    auto cipher = opensslEncrypt(plain, hexStringValue(key), dir);
    if (!cipher) GTEST_SKIP() << "openssl with DES not available";
    Bytes buffer = *cipher;
    ASSERT_TRUE(decryptWithKey(buffer, std::string(key.begin(), key.end()))) << size;
    EXPECT_EQ(buffer, padded(plain)) << size;
    ++checked;
  }
  EXPECT_EQ(checked, 7);
}

}  // namespace
}  // namespace wdc
