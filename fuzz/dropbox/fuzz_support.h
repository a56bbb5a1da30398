// What the backend's fuzz targets share: an invariant that stops the run when broken, and a
// logger that formats every line (debug ones too, where formatting bugs hide) but prints none.
// Each target includes this once; it defines the target's LLVMFuzzerInitialize.
#pragma once

#include "platform/logger.h"

namespace wdc::fuzzing {

// A broken invariant is a crash the fuzzer keeps, like a sanitizer report.
inline void check(bool condition) {
  if (!condition) __builtin_trap();
}

}  // namespace wdc::fuzzing

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  wdc::log::setLevel(wdc::log::Level::kVerbose);
  wdc::log::setConsoleOutput(false);
  return 0;
}
