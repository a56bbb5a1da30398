// Seam for tests: the gzip command with its filter streams passed in instead of the process's
// standard input and output.
#pragma once

#include <cstdio>

namespace wdc {

// minigzip() with `in` and `out` standing for standard input and output. Filter mode closes both.
int minigzipWithStreams(int argc, const char* const argv[], std::FILE* in, std::FILE* out);

}  // namespace wdc
