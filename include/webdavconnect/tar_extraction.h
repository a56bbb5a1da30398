// A minimal extractor for old-style (v7/ustar) tar archives read from an open stream: regular
// files and directories only, written below a destination folder with fixed permissions (files
// 0644, directories 0644 as well: they get no search permission, which hosts have always
// received). After a complete run the archive file is deleted.
//
// Header block (512 bytes, numbers in ASCII octal): name 0-99 (read up to the first white space
// or NUL, so "a b.txt" extracts as "a"), mode 100-107, uid 108-115, gid 116-123 (both replaced
// by the caller's), size 124-135 (low 32 bits, signed: a "negative" size writes nothing),
// mtime 136-147 (unused), chksum 148-155, typeflag 156 ("0" file, "5" directory; anything else,
// the old NUL included, stops the extraction). The checksum is the sum of the header bytes taken
// as signed 8-bit values with the chksum field counted as spaces; headers whose bytes above 0x7F
// were summed unsigned do not match. Mode, size or chksum fields without an octal number are
// refused, and so is an entry whose name is empty, absolute, or has a ".." component, before
// anything is written for it.
//
// Messages go to standard error; nothing here ends the process. Not thread-safe with respect to
// the streams and the working directory it shares with the caller; otherwise stateless.
#pragma once

#include <cstdio>

namespace wdc {

inline constexpr int kTarBlockSize = 512;

// Extracts every entry of `stream` (already open for reading) below `destination`, then checks
// the end of the archive: "tar: zero blocks not found\n" when the entries run to the end of the
// stream (the result is then -1, there being no end block to read), "tar: not enough zero
// blocks\n" when only one zero block ends it, and "tar: not eough padding blocks at the end\n"
// when the file size is not a multiple of 10240; the last two still give 0. On 0 the file at
// `archivePath` is deleted. On -1 (a short read, a bad entry) files written so far stay and the
// archive is kept. Does not close `stream`.
int untar(std::FILE* stream, const char* archivePath, const char* destination);

// Extracts the one entry whose 512-byte `header` was just read from `stream`, reading its data
// blocks. Creates `destination` (mode 0755) first. Returns 0 or -1. `header` is not changed.
int untar_it(std::FILE* stream, const char* header, const char* destination);

// 1 when all 512 bytes of `block` are zero, else 0.
int is_zero_block(const char* block);

// Reporters. Each formats into a 512-byte buffer (a longer text aborts the process, as any
// checked formatting would) and writes to standard error. The usr_ forms write the text as it
// is (no newline added); the sys_ forms write the text, ": ", the description of the current
// errno and a newline. None ends the process; the leading integer of the fatal forms is not used.
void usr_fatal(int unused, const char* format, ...) __attribute__((format(printf, 2, 3)));
void usr_warning(const char* format, ...) __attribute__((format(printf, 1, 2)));
void sys_fatal(int unused, const char* format, ...) __attribute__((format(printf, 2, 3)));
void sys_warning(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace wdc
