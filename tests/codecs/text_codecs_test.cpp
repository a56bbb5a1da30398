// Digests against published vectors, hexadecimal rendering, Base64 (including the lenient
// decoder's kept quirks) and the modification-date ordering.
#include <gtest/gtest.h>

#include <random>

#include "support/test_util.h"
#include "webdavconnect/data_codecs.h"

namespace wdc {
namespace {

using test::bytesOf;
using test::textOf;

TEST(Digests, KnownVectors) {
  // RFC 1321 and FIPS 180 test suites.
  struct Case {
    std::string input, md5, sha1;
  };
  const std::vector<Case> cases = {
      {"", "d41d8cd98f00b204e9800998ecf8427e", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72", "a9993e364706816aba3e25717850c26c9cd0d89d"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0",
       "c12252ceda8be8994d5fa0290a47231c1d16aae3"},
      {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
       "8215ef0796a20bcaaae116d3876c664a", "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
  };
  for (const auto& c : cases) {
    const Bytes md5 = md5Digest(bytesOf(c.input));
    const Bytes sha1 = sha1Digest(bytesOf(c.input));
    EXPECT_EQ(md5.size(), 16u);
    EXPECT_EQ(sha1.size(), 20u);
    EXPECT_EQ(hexStringValue(md5), c.md5) << c.input;
    EXPECT_EQ(hexStringValue(sha1), c.sha1) << c.input;
  }
  // A million 'a's (FIPS 180-1) exercises the multi-block path.
  EXPECT_EQ(hexStringValue(sha1Digest(Bytes(1000000, 'a'))),
            "34aa973cd4c4daa4f61eeb2bdbad27316534016f");
}

TEST(HexString, LowerCaseTwoDigitsPerByte) {
  EXPECT_EQ(hexStringValue(Bytes{0x00, 0xAB}), "00ab");
  EXPECT_EQ(hexStringValue(Bytes{}), "");
  EXPECT_EQ(hexStringValue(Bytes{0x0F, 0xF0, 0x7E, 0xFF}), "0ff07eff");
}

TEST(Base64, EncodesWithPaddingAndNoLineBreaks) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"", ""},         {"f", "Zg=="},         {"fo", "Zm8="},         {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"},
      {"\xff\xfe\xfd", "//79"}, {"\xfb\xef", "++8="},
  };
  for (const auto& [plain, encoded] : cases) EXPECT_EQ(base64Encoded(bytesOf(plain)), encoded);
  const std::string longText = base64Encoded(Bytes(3000, 0x41));
  EXPECT_EQ(longText.size(), 4000u);
  EXPECT_EQ(longText.find_first_of("\r\n"), std::string::npos);
}

TEST(Base64, LenientDecoding) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"", ""},
      {"Zg==", "f"},
      {"Zm8=", "fo"},
      {"Zm9v", "foo"},
      {"Zm9v\nYmFy", "foobar"},      // line break skipped
      {" Z m\t9v-_Y\r\nmFy!", "foobar"},  // anything outside the alphabet skipped
      {"=Zm9v", ""},                 // "=" before any character stops at once
      {"Zm9vYg", "foo"},             // unpadded partial quartet dropped
      {"Zm9vYmE", "foo"},
      {"Zg==Zm9v", "f"},             // everything after the first "=" ignored
      {"Zm8=====", "fo"},
      {"Zm9vYmFy====", "foobar"},    // "=" right after a full quartet: nothing more
  };
  for (const auto& [encoded, plain] : cases) {
    EXPECT_EQ(textOf(base64Decoded(bytesOf(encoded))), plain) << encoded;
  }
}

TEST(Base64, PadAfterOneCharacterBorrowsBitsFromThePreviousQuartet) {
  // "A=" alone: slot 1 still holds its initial 0, so one zero byte comes out.
  EXPECT_EQ(base64Decoded(bytesOf("A=")), Bytes{0x00});
  // "Zm9v" leaves slot 1 = 'm' = 38 (0b100110); "Q=" then gives (16 << 2) | (38 & 0x30) >> 4.
  EXPECT_EQ(base64Decoded(bytesOf("Zm9vQ=")), (Bytes{'f', 'o', 'o', (16 << 2) | 2}));
  // With a previous slot 1 of 'A' = 0 the same character gives 0x40.
  EXPECT_EQ(base64Decoded(bytesOf("AAAAQ=")), (Bytes{0, 0, 0, 0x40}));
  // With two characters the previous quartet does not show: both slots used are fresh.
  EXPECT_EQ(base64Decoded(bytesOf("Zm9vZg==")), bytesOf("foof"));
}

// The decoding rules written out one character at a time, to check the decoder's fast path.
Bytes referenceDecode(const std::string& text) {
  const std::string alphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  int q[4] = {0, 0, 0, 0};
  int n = 0;
  Bytes out;
  for (char c : text) {
    int produce = 3;
    bool stop = false;
    int value;
    if (c == '=') {
      if (n == 0) break;
      produce = n == 3 ? 2 : 1;
      n = 3;
      value = 0;
      stop = true;
    } else {
      const auto at = alphabet.find(c);
      if (at == std::string::npos) continue;
      value = static_cast<int>(at);
    }
    q[n++] = value;
    if (n == 4) {
      n = 0;
      const int bytes[3] = {(q[0] << 2) | ((q[1] & 0x30) >> 4),
                            ((q[1] & 0x0F) << 4) | ((q[2] & 0x3C) >> 2),
                            ((q[2] & 0x03) << 6) | (q[3] & 0x3F)};
      for (int i = 0; i < produce; ++i) out.push_back(static_cast<uint8_t>(bytes[i] & 0xFF));
    }
    if (stop) break;
  }
  return out;
}

TEST(Base64, DecoderAgreesWithTheCharacterByCharacterRulesOnNoisyText) {
  const std::string pool = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/"
                           "==== \n\r-_.\x80\xff";
  std::mt19937 rng(13);
  for (int round = 0; round < 3000; ++round) {
    std::string text(rng() % 40, ' ');
    // Mostly clean text so that the four-at-a-time path and the slow path alternate.
    for (auto& c : text) c = pool[rng() % (rng() % 4 == 0 ? pool.size() : 64)];
    EXPECT_EQ(base64Decoded(bytesOf(text)), referenceDecode(text)) << text;
  }
}

TEST(Base64, RoundTripsRandomBytes) {
  std::mt19937 rng(11);
  for (size_t size = 0; size < 300; ++size) {
    Bytes plain(size);
    for (auto& b : plain) b = static_cast<uint8_t>(rng());
    EXPECT_EQ(base64Decoded(bytesOf(base64Encoded(plain))), plain) << size;
  }
}

WebDAVFileMetaData withDate(std::optional<double> sinceReference) {
  WebDAVFileMetaData record;
  if (sinceReference) record.ModificationDate = Date{*sinceReference};
  return record;
}

TEST(FileModDateSort, ComparesFirstAgainstSecond) {
  struct Case {
    std::optional<double> first, second;
    Ordering expected;
  };
  const std::vector<Case> cases = {
      {10, 20, Ordering::kAscending},
      {20, 10, Ordering::kDescending},
      {15, 15, Ordering::kSame},
      {std::nullopt, 10, Ordering::kSame},
      {std::nullopt, std::nullopt, Ordering::kSame},
      {-5, std::nullopt, Ordering::kAscending},  // an absent second date reads as 0
      {5, std::nullopt, Ordering::kDescending},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(fileModDateSort(withDate(c.first), withDate(c.second)), c.expected)
        << c.first.value_or(-1) << " vs " << c.second.value_or(-1);
  }
}

TEST(FileModDateSort, SortsAListingEarliestFirst) {
  std::vector<WebDAVFileMetaData> records = {withDate(30), withDate(10), withDate(20)};
  std::sort(records.begin(), records.end(), [](const auto& a, const auto& b) {
    return fileModDateSort(a, b) == Ordering::kAscending;
  });
  EXPECT_EQ(records[0].ModificationDate->sinceReferenceDate, 10);
  EXPECT_EQ(records[2].ModificationDate->sinceReferenceDate, 30);
}

}  // namespace
}  // namespace wdc
