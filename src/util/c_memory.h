// Owners of memory from malloc(3): what the plain functions allocate and their callers free.
#pragma once

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
