// The host's fully qualified name.
#pragma once

#include <cstddef>

/// Writes the canonical name, NUL-terminated, into `buffer` of `size` bytes. 0, or -1, logged.
int get_hostname_fqdn(char* buffer, std::size_t size);
