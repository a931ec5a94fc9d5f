// Base64 (RFC 4648, standard alphabet, "=" padding, no line breaks). The decoder is lenient: it neither validates nor
// skips anything, so that a damaged stored value fails in the cipher and not here.
#pragma once

#include <cstddef>

/// Newly allocated text of 4 * ceil(size / 3) characters; free with free(3). Null with errno on failure.
char* b64_encode(const void* bytes, std::size_t size);
/// Newly allocated bytes with a zero behind them; `size`, unless null, gets their number. Null with errno on failure.
unsigned char* b64_decode(const char* text, std::size_t* size);
/// The same for texts; the decoded one ends at its first zero for a reader.
char* b64_encode_cstr(const char* text);
char* b64_decode_cstr(const char* text);

/// Writes 4 * ceil(size / 3) characters and no zero; returns their number.
std::size_t base64Encode(char* out, const unsigned char* bytes, std::size_t size);
/// Decodes `length` characters into at most 3 * ceil(length / 4) bytes; returns their number. Characters missing in the
/// last group of four count as padding.
std::size_t base64ArrayDecode(unsigned char* out, const char* text, std::size_t length);
/// The same up to the terminating zero.
std::size_t base64Decode(unsigned char* out, const char* text);
