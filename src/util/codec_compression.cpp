// Whole-buffer zlib and gzip coding. Inflate sizes its output at four times the input and doubles
// it as it fills (never less than 1.5x and half the input per step); deflate starts at 16 KB and
// grows 16 KB at a time. Stream counters are 32-bit quantities, as zlib's `uInt` fields are.
//
// The initialisers get the version string of the zlib header we compile against: zlib only
// compares the major digit and the size of `z_stream`, and the header's own string is what zlib's
// inflateInit/deflateInit macros pass, so the check stays meaningful across 1.x releases.
#include <zlib.h>

#include <algorithm>
#include <limits>

#include <cstdint>

#include "webdavconnect/data_codecs.h"

namespace wdc {
namespace {

constexpr uint32_t kDeflateChunk = 16384;
constexpr int kZlibWindowBits = 15;
constexpr int kAutoDetectWindowBits = kZlibWindowBits + 32;  // zlib or gzip header
constexpr int kGzipWindowBits = kZlibWindowBits + 16;        // gzip header on output
constexpr int kMemLevel = 8;

// kGzip: inflate detects a gzip or zlib header; deflate writes a gzip header.
enum class Wrapper { kZlib, kGzip };

z_stream newStream(const Bytes& input) {
  z_stream stream{};
  // zlib never writes through next_in; its API just predates const.
  stream.next_in = const_cast<Bytef*>(input.data());
  stream.avail_in = static_cast<uInt>(input.size());
  stream.total_out = 0;
  stream.zalloc = Z_NULL;
  stream.zfree = Z_NULL;
  stream.opaque = Z_NULL;
  return stream;
}

std::optional<Bytes> inflateWhole(const Bytes& input, Wrapper wrapper) {
  if (input.empty()) return input;
  const uint32_t full = static_cast<uint32_t>(input.size());
  const uint32_t half = full / 2;
  // The output buffer must hold at least 1.5 times the input and grow by at least half the input
  // each time it fills. Each extra inflate call costs zlib a window allocation and a copy of up
  // to 32 KB, which doubled the time of a 64 KB record; so we start at four times the input (what
  // record payloads typically inflate to) and double. The bytes produced are the same. A one-byte
  // input has half == 0: its buffer stays one byte and never grows.
  size_t length = half == 0 ? full : static_cast<size_t>(full) * 4;
  Bytes output(length);

  z_stream stream = newStream(input);
  int status = wrapper == Wrapper::kZlib
                   ? inflateInit_(&stream, ZLIB_VERSION, static_cast<int>(sizeof(z_stream)))
                   : inflateInit2_(&stream, kAutoDetectWindowBits, ZLIB_VERSION,
                                   static_cast<int>(sizeof(z_stream)));
  if (status != Z_OK) return std::nullopt;

  do {
    // A one-byte input has half == 0: the buffer cannot grow, and inflate then reports
    // Z_BUF_ERROR instead of looping.
    if (stream.total_out >= length && half != 0) {
      length = std::max(length + half, length * 2);
      output.resize(length);
    }
    stream.next_out = output.data() + stream.total_out;
    stream.avail_out = static_cast<uInt>(
        std::min<size_t>(length - stream.total_out, std::numeric_limits<uInt>::max()));
    status = inflate(&stream, Z_SYNC_FLUSH);
  } while (status == Z_OK);

  if (status != Z_STREAM_END) {
    inflateEnd(&stream);
    return std::nullopt;
  }
  if (inflateEnd(&stream) != Z_OK) return std::nullopt;
  output.resize(stream.total_out);
  // Give back spare storage when it is a sizeable share; a small tail is not worth a copy.
  if (output.capacity() - output.size() > output.size() / 4) output.shrink_to_fit();
  return output;
}

std::optional<Bytes> deflateWhole(const Bytes& input, Wrapper wrapper) {
  if (input.empty()) return input;
  z_stream stream = newStream(input);
  int status = wrapper == Wrapper::kZlib
                   ? deflateInit_(&stream, Z_BEST_COMPRESSION, ZLIB_VERSION,
                                  static_cast<int>(sizeof(z_stream)))
                   : deflateInit2_(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, kGzipWindowBits,
                                   kMemLevel, Z_DEFAULT_STRATEGY, ZLIB_VERSION,
                                   static_cast<int>(sizeof(z_stream)));
  if (status != Z_OK) return std::nullopt;

  Bytes output(kDeflateChunk);
  do {
    if (stream.total_out >= output.size()) output.resize(output.size() + kDeflateChunk);
    stream.next_out = output.data() + stream.total_out;
    stream.avail_out = static_cast<uInt>(output.size() - stream.total_out);
    // With Z_FINISH and room to spare deflate ends the stream; a full buffer means "call again".
    deflate(&stream, Z_FINISH);
  } while (stream.avail_out == 0);

  deflateEnd(&stream);
  output.resize(stream.total_out);
  output.shrink_to_fit();
  return output;
}

}  // namespace

std::optional<Bytes> zlibInflate(const Bytes& input) {
  return inflateWhole(input, Wrapper::kZlib);
}

std::optional<Bytes> zlibDeflate(const Bytes& input) {
  return deflateWhole(input, Wrapper::kZlib);
}

std::optional<Bytes> gzipInflate(const Bytes& input) {
  return inflateWhole(input, Wrapper::kGzip);
}

std::optional<Bytes> gzipDeflate(const Bytes& input) {
  return deflateWhole(input, Wrapper::kGzip);
}

}  // namespace wdc
