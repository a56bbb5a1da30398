// A small gzip command offered as functions: compress a file into "<name>.gz", restore it, or
// filter standard input to standard output. Built on zlib's gzip file interface. Nothing here
// ends the process on a failed file (the one exception is a derived file name longer than its
// 1024-byte buffer, which aborts like any checked copy); every other failure prints a message to
// standard error and comes back as a status. None of these functions keeps state; they may run on
// any thread, but they share the process's standard streams and working directory.
#pragma once

#include <cstdio>

struct gzFile_s;  // zlib's gzip stream; see <zlib.h>

namespace wdc {

// The command itself. argv[0] is the program name and is skipped. Options, each exactly two
// characters and only before the file names: "-d" decompress, "-f" filtered strategy, "-h"
// Huffman-only strategy, "-1".."-9" compression level (default 6). Any other argument, even one
// starting with "-", is a file name and ends the options. With file names, each is compressed
// with file_compress() or restored with file_uncompress() and the result is 0 whatever happened
// to them. Without file names, standard input is copied to standard output through gzip, and
// both are closed afterwards; the result is then -1 only when the gzip side cannot be opened
// ("can't gzdopen stdin" / "can't gzdopen stdout").
int minigzip(int argc, const char* const argv[]);

// Compresses `file` into `file` + ".gz" with the gzopen `mode` (e.g. "wb6 ", "wb9f") and deletes
// `file` on success. Returns 1 on success, 0 on failure (with a message on standard error).
int file_compress(const char* file, const char* mode);

// Restores "x" from "x.gz": `file` may name either one (a name ending in ".gz" longer than the
// suffix alone is the compressed one). Deletes the compressed file on success. Returns 1 on
// success, 0 on failure (with a message on standard error).
int file_uncompress(const char* file);

// Copies `in` into the gzip stream `out` in 16 KB pieces, then closes both (fclose, gzclose).
// Returns 0, or -1 after printing why. Takes ownership of both streams except on a read or write
// error, where they are left open.
int gz_compress(std::FILE* in, gzFile_s* out);

// Copies the gzip stream `in` into `out` in 16 KB pieces, then closes `out` and then `in`.
// Returns 0, or -1 after printing why. Takes ownership of both streams: a damaged stream or a
// failed write closes both; only when closing `out` fails is `in` left open.
int gz_uncompress(gzFile_s* in, std::FILE* out);

// Prints "gzip: <message>" and a line break to standard error. Never exits.
void showerror(const char* message);

}  // namespace wdc
