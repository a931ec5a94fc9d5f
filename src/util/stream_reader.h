// Reading of a whole stream into memory.
#pragma once

#include <cstddef>
#include <cstdio>

/// Reads until end of file, whatever the stream is. Newly allocated, NUL-terminated (free with free(3)); null with
/// errno on failure. `size`, unless null, gets the number of bytes read; a NUL byte among them ends the text for
/// whoever reads it as a C string.
char* read_stream_contents(std::FILE* stream, std::size_t* size);
