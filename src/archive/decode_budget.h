// The cost bound shared by the archive decoders: each decoded value is charged a fixed amount plus
// the length of its text or data, and decoding stops once the total passes the limit. This is what
// keeps a short archive whose references fan out (each level naming the next one twice) from
// expanding into gigabytes of values.
#pragma once

#include <cstddef>

#include "webdavconnect/error.h"
#include "webdavconnect/keyed_archive.h"

namespace wdc::bplist {

class DecodeBudget {
 public:
  static constexpr size_t kValueCost = 128;  // about the size of one PlistValue

  DecodeBudget(const KeyedArchiveLimits& limits, size_t inputSize)
      : left_(limits.maxDecodedBytes != 0 ? limits.maxDecodedBytes
                                          : (size_t{64} << 20) + 256 * inputSize),
        limit_(left_) {}

  // Charges one value of `payloadBytes`; false (and `error` set) once the limit is passed.
  bool charge(size_t payloadBytes, ErrorOut error) {
    const size_t cost = kValueCost + payloadBytes;
    if (cost > left_) {
      setError(error, Error::corruption("decoded value too large",
                                        "more than " + std::to_string(limit_) + " bytes"));
      return false;
    }
    left_ -= cost;
    return true;
  }

 private:
  size_t left_;
  size_t limit_;
};

}  // namespace wdc::bplist
