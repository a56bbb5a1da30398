// Byte-buffer codecs offered to the host and used by the stored payload format: zlib and gzip
// inflate/deflate of whole buffers, digests, hexadecimal, Base64, the DES in-place pair and the
// modification-date ordering of records. Every function is re-entrant and keeps no state.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "webdavconnect/file_metadata.h"
#include "webdavconnect/plist_value.h"

namespace wdc {

// Decompresses a zlib-wrapped stream. Empty input comes back empty; corrupt, truncated or
// non-zlib input (a gzip stream included) gives nullopt.
std::optional<Bytes> zlibInflate(const Bytes& input);

// Compresses to a zlib-wrapped stream at level 9. Empty input comes back empty; nullopt only when
// zlib cannot be initialised.
std::optional<Bytes> zlibDeflate(const Bytes& input);

// Decompresses a gzip- or zlib-wrapped stream (the header is detected). Empty input comes back
// empty; corrupt or truncated input gives nullopt.
std::optional<Bytes> gzipInflate(const Bytes& input);

// Compresses to a gzip-wrapped stream at level 9 with a default header. Empty input comes back
// empty; nullopt only when zlib cannot be initialised.
std::optional<Bytes> gzipDeflate(const Bytes& input);

// The 16 raw bytes of the MD5 digest of `input`.
Bytes md5Digest(const Bytes& input);

// The 20 raw bytes of the SHA-1 digest of `input`.
Bytes sha1Digest(const Bytes& input);

// Two lower-case hexadecimal digits per byte, no separators.
std::string hexStringValue(const Bytes& input);

// Standard-alphabet Base64 with "=" padding and no line breaks.
std::string base64Encoded(const Bytes& input);

// Lenient Base64 decoding of ASCII text: bytes outside the alphabet are skipped, decoding stops at
// the first "=", and an incomplete final quartet without padding is dropped.
Bytes base64Decoded(const Bytes& text);

// DES/ECB/PKCS#7 in place with the first 8 bytes of `key` (zero-padded). The buffer's length never
// changes, so encryption always reports false (no room for padding) and a successful decryption
// leaves the padding bytes in place. Returns true exactly when the cipher succeeded.
bool encryptWithKey(Bytes& buffer, std::string_view key);
bool decryptWithKey(Bytes& buffer, std::string_view key);

enum class Ordering { kAscending = -1, kSame = 0, kDescending = 1 };

// Orders two records by ModificationDate (earlier first). A first record without a date compares
// as the same; `context` is not used.
Ordering fileModDateSort(const WebDAVFileMetaData& first, const WebDAVFileMetaData& second,
                         void* context = nullptr);

}  // namespace wdc
