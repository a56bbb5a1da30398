// Inflate with an output cap, for payload bytes from a store: a few kilobytes of deflate data can
// claim gigabytes, and the whole-buffer codec grows its output without limit.
#pragma once

#include <cstddef>
#include <span>

#include "webdavconnect/plist_value.h"

namespace wdc {

enum class InflateOutcome {
  kInflated,       // `out` holds the whole stream
  kNotCompressed,  // not a gzip or zlib stream, or corrupt or truncated: use the bytes as they are
  kTooLarge,       // the stream inflates past `maxOutput`
};

// Inflates a gzip- or zlib-wrapped stream (header detected) into `out`, never holding more than
// `maxOutput` bytes. Thread-safe.
InflateOutcome inflateBounded(std::span<const uint8_t> input, size_t maxOutput, Bytes& out);

}  // namespace wdc
