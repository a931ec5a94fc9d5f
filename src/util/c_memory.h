// Memory from malloc(3), which the plain functions allocate and their callers free: its owners, arrays of strings, and
// the contents of whole streams.
#pragma once

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace kavro {

/// Frees with free(3).
struct FreeDeleter {
    void operator()(const void* memory) const noexcept { std::free(const_cast<void*>(memory)); }
};

/// Owns one block from malloc(3); `release()` hands it to a caller that frees it.
template <typename T>
using CPtr = std::unique_ptr<T, FreeDeleter>;

/// Owns one allocated C string.
using CString = CPtr<char>;

}  // namespace kavro

/// Appends a copy of `s`; null or an empty array starts one. Returns the array, which may have moved; null, logged,
/// when there is no memory (the argument then stays valid).
char** string_to_mas(char** array, const char* s);
/// Frees the strings and the array. Null is allowed.
void free_array(char** array);

/// Reads until end of file, whatever the stream is. Newly allocated, NUL-terminated (free with free(3)); null with
/// errno on failure. `size`, unless null, gets the number of bytes read; a NUL byte among them ends the text for
/// whoever reads it as a C string.
char* read_stream_contents(std::FILE* stream, std::size_t* size);
