#include "archive/bounded_inflate.h"

#include <zlib.h>

#include <algorithm>
#include <climits>

namespace wdc {

InflateOutcome inflateBounded(std::span<const uint8_t> input, size_t maxOutput, Bytes& out) {
  out.clear();
  // zlib counts in 32-bit uInt; payloads are far below that.
  if (input.empty() || input.size() > UINT_MAX) return InflateOutcome::kNotCompressed;
  z_stream stream{};
  stream.next_in = const_cast<Bytef*>(input.data());  // zlib never writes through next_in
  stream.avail_in = static_cast<uInt>(input.size());
  if (inflateInit2(&stream, 15 + 32) != Z_OK) return InflateOutcome::kNotCompressed;

  // Start near the usual ratio of a record payload and double, up to the cap (plus one byte, so
  // a stream of exactly maxOutput bytes is told apart from a longer one).
  const size_t cap = std::min<size_t>(maxOutput, UINT_MAX - 1) + 1;
  out.resize(std::min(cap, std::max<size_t>(input.size() * 4, 4096)));
  int status = Z_OK;
  while (true) {
    stream.next_out = out.data() + stream.total_out;
    stream.avail_out = static_cast<uInt>(out.size() - stream.total_out);
    status = inflate(&stream, Z_NO_FLUSH);
    if (status != Z_OK) break;
    if (stream.avail_out == 0) {
      if (out.size() == cap) break;
      out.resize(std::min(cap, out.size() * 2));
    } else if (stream.avail_in == 0) {
      status = Z_BUF_ERROR;  // input ended before the stream did: truncated
      break;
    }
  }
  const size_t produced = stream.total_out;
  inflateEnd(&stream);
  if (produced > maxOutput && (status == Z_OK || status == Z_STREAM_END)) {
    out.clear();
    return InflateOutcome::kTooLarge;
  }
  if (status == Z_STREAM_END) {
    out.resize(produced);
    return InflateOutcome::kInflated;
  }
  out.clear();
  return InflateOutcome::kNotCompressed;
}

}  // namespace wdc
