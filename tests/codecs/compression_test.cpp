// Whole-buffer zlib/gzip coding: wrapper acceptance, growth of the inflate buffer, the one-byte
// and empty inputs, and corrupt or truncated streams. Reference streams come from zlib's own
// one-shot API so the codec is checked against an independent producer and consumer.
#include <gtest/gtest.h>
#include <zlib.h>

#include <cstring>
#include <random>

#include "support/test_util.h"
#include "webdavconnect/data_codecs.h"

namespace wdc {
namespace {

using test::bytesOf;

// Text-like data: words from a small vocabulary, so it compresses about as well as payloads.
Bytes sampleText(size_t size, uint32_t seed) {
  static const char* kWords[] = {"task ", "title ", "due ", "2026-01-01 ", "note ", "<key>",
                                 "</key>", "list ", "done ", "\n"};
  std::mt19937 rng(seed);
  Bytes out;
  while (out.size() < size) {
    const char* w = kWords[rng() % std::size(kWords)];
    out.insert(out.end(), w, w + std::strlen(w));
  }
  out.resize(size);
  return out;
}

Bytes randomBytes(size_t size, uint32_t seed) {
  std::mt19937 rng(seed);
  Bytes out(size);
  for (auto& b : out) b = static_cast<uint8_t>(rng());
  return out;
}

// zlib-wrapped stream made by zlib's compress2.
Bytes referenceZlib(const Bytes& plain) {
  uLongf size = compressBound(plain.size());
  Bytes out(size);
  EXPECT_EQ(compress2(out.data(), &size, plain.data(), plain.size(), 6), Z_OK);
  out.resize(size);
  return out;
}

// Plain zlib inflate of either wrapper, sized by the caller.
Bytes referenceInflate(const Bytes& stream, size_t plainSize, int windowBits) {
  z_stream z{};
  EXPECT_EQ(inflateInit2(&z, windowBits), Z_OK);
  Bytes out(plainSize + 1);
  z.next_in = const_cast<Bytef*>(stream.data());
  z.avail_in = static_cast<uInt>(stream.size());
  z.next_out = out.data();
  z.avail_out = static_cast<uInt>(out.size());
  EXPECT_EQ(inflate(&z, Z_FINISH), Z_STREAM_END);
  out.resize(z.total_out);
  inflateEnd(&z);
  return out;
}

TEST(Compression, EmptyInputComesBackEmptyFromAllFour) {
  for (auto* codec : {&zlibInflate, &zlibDeflate, &gzipInflate, &gzipDeflate}) {
    auto result = codec(Bytes{});
    ASSERT_TRUE(result.has_value());
    EXPECT_TRUE(result->empty());
  }
}

TEST(Compression, RoundTripsOfManySizes) {
  std::mt19937 rng(7);
  std::vector<size_t> sizes = {1, 2, 3, 100, 16383, 16384, 16385, 70000};
  for (int i = 0; i < 20; ++i) sizes.push_back(rng() % 200000 + 1);
  for (size_t size : sizes) {
    for (const Bytes& plain : {sampleText(size, static_cast<uint32_t>(size)),
                               randomBytes(size, static_cast<uint32_t>(size))}) {
      auto gz = gzipDeflate(plain);
      auto zl = zlibDeflate(plain);
      ASSERT_TRUE(gz && zl) << size;
      EXPECT_EQ(gzipInflate(*gz), plain) << size;
      EXPECT_EQ(zlibInflate(*zl), plain) << size;
      // An independent inflater agrees on both wrappers.
      EXPECT_EQ(referenceInflate(*gz, size, 15 + 16), plain) << size;
      EXPECT_EQ(referenceInflate(*zl, size, 15), plain) << size;
    }
  }
}

TEST(Compression, GzipDeflateWritesGzipMagicAndZlibDeflateAZlibHeader) {
  auto gz = gzipDeflate(bytesOf("hello hello hello"));
  ASSERT_TRUE(gz && gz->size() > 10);
  EXPECT_EQ((*gz)[0], 0x1f);
  EXPECT_EQ((*gz)[1], 0x8b);
  EXPECT_EQ((*gz)[2], 8);  // deflate method
  auto zl = zlibDeflate(bytesOf("hello hello hello"));
  ASSERT_TRUE(zl && zl->size() > 2);
  EXPECT_EQ((*zl)[0], 0x78);
  EXPECT_EQ((*zl)[1], 0xda);  // level 9 header
}

TEST(Compression, GzipInflateAcceptsBothWrappersZlibInflateOnlyZlib) {
  const Bytes plain = sampleText(5000, 1);
  const Bytes zlibStream = referenceZlib(plain);
  const Bytes gzipStream = *gzipDeflate(plain);
  EXPECT_EQ(gzipInflate(zlibStream), plain);
  EXPECT_EQ(gzipInflate(gzipStream), plain);
  EXPECT_EQ(zlibInflate(zlibStream), plain);
  EXPECT_FALSE(zlibInflate(gzipStream).has_value());
}

TEST(Compression, InflateGrowsFarBeyondOneAndAHalfTimesTheInput) {
  // 1 MB of zeros deflates to about 1 KB: the output buffer must grow many times over.
  const Bytes plain(1 << 20, 0);
  auto gz = gzipDeflate(plain);
  auto zl = zlibDeflate(plain);
  ASSERT_TRUE(gz && zl);
  EXPECT_LT(gz->size(), plain.size() / 500);
  EXPECT_EQ(gzipInflate(*gz), plain);
  EXPECT_EQ(zlibInflate(*zl), plain);
}

TEST(Compression, DeflateOutputBeyondItsFirstChunk) {
  // Incompressible input larger than the 16 KB starting buffer makes deflate grow it.
  const Bytes plain = randomBytes(100000, 3);
  auto gz = gzipDeflate(plain);
  ASSERT_TRUE(gz);
  EXPECT_GT(gz->size(), plain.size());
  EXPECT_EQ(referenceInflate(*gz, plain.size(), 31), plain);
}

TEST(Compression, OneByteInputTerminatesWithNull) {
  for (int b = 0; b < 256; ++b) {
    const Bytes one{static_cast<uint8_t>(b)};
    EXPECT_FALSE(zlibInflate(one).has_value()) << b;
    EXPECT_FALSE(gzipInflate(one).has_value()) << b;
  }
}

TEST(Compression, SmallStreamThatOverflowsItsBufferOfOneAndAHalf) {
  // A stream whose plain text exceeds 1.5x its size; the smallest inputs have tiny growth steps.
  const Bytes plain(64, 'a');
  auto zl = zlibDeflate(plain);
  ASSERT_TRUE(zl);
  ASSERT_LT(zl->size() * 3 / 2, plain.size());
  EXPECT_EQ(zlibInflate(*zl), plain);
}

TEST(Compression, CorruptOrTruncatedStreamsGiveNull) {
  const Bytes plain = sampleText(20000, 9);
  const Bytes gz = *gzipDeflate(plain);
  const Bytes zl = *zlibDeflate(plain);
  struct Case {
    const char* name;
    Bytes stream;
    bool gzip;
  };
  auto truncated = [](Bytes b, size_t keep) {
    b.resize(keep);
    return b;
  };
  auto flipped = [](Bytes b, size_t at) {
    b.at(at) ^= 0x55;
    return b;
  };
  const std::vector<Case> cases = {
      {"gzip cut in half", truncated(gz, gz.size() / 2), true},
      {"gzip without trailer", truncated(gz, gz.size() - 8), true},
      {"gzip bad crc", flipped(gz, gz.size() - 6), true},
      {"gzip bad magic", flipped(gz, 0), true},
      {"gzip body flipped", flipped(gz, gz.size() / 3), true},
      {"zlib cut in half", truncated(zl, zl.size() / 2), false},
      {"zlib without adler", truncated(zl, zl.size() - 4), false},
      {"zlib bad adler", flipped(zl, zl.size() - 1), false},
      {"zlib bad header", flipped(zl, 1), false},
      {"not compressed", bytesOf("plain text is not a stream"), false},
  };
  for (const auto& c : cases) {
    EXPECT_FALSE(gzipInflate(c.stream).has_value()) << c.name;
    if (!c.gzip) {
      EXPECT_FALSE(zlibInflate(c.stream).has_value()) << c.name;
    }
  }
}

}  // namespace
}  // namespace wdc
