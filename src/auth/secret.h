// Memory for passwords and keys: wiped before it goes back to the heap, by a call that the compiler cannot remove, and
// kept out of core dumps.
#pragma once

#include <string.h>
#include <sys/prctl.h>

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <vector>

namespace kavro::auth {

/// Wipes every block that it takes back, also those that a growing container leaves behind.
template <typename T>
struct WipingAllocator {
    using value_type = T;

    WipingAllocator() noexcept = default;
    template <typename U>
    explicit WipingAllocator(const WipingAllocator<U>& /*other*/) noexcept {}

    T* allocate(std::size_t count) { return std::allocator<T>().allocate(count); }
    void deallocate(T* block, std::size_t count) noexcept {
        ::explicit_bzero(block, count * sizeof(T));
        std::allocator<T>().deallocate(block, count);
    }
    bool operator==(const WipingAllocator& /*other*/) const noexcept { return true; }
};

/// Bytes that are a secret. A string would not do: short ones live inside the object, where no allocator wipes.
using SecretBytes = std::vector<unsigned char, WipingAllocator<unsigned char>>;

/// Wipes up to the terminating zero, then free(3).
struct WipeAndFree {
    void operator()(char* text) const noexcept {
        ::explicit_bzero(text, ::strlen(text));
        std::free(text);
    }
};

/// Owner of an allocated C string that is a secret.
using SecretCString = std::unique_ptr<char, WipeAndFree>;

/// No core of this process is dumped while it lives: it would hold the secrets in memory. Programs that are run are not
/// concerned.
class NoCoreDumps {
public:
    NoCoreDumps() noexcept { ::prctl(PR_SET_DUMPABLE, 0); }
    NoCoreDumps(const NoCoreDumps&) = delete;
    NoCoreDumps& operator=(const NoCoreDumps&) = delete;
    ~NoCoreDumps() { ::prctl(PR_SET_DUMPABLE, former_); }

private:
    const int former_ = ::prctl(PR_GET_DUMPABLE);
};

/// Wipes an object of its own when the scope is left, whichever way.
template <typename Buffer>
class ScopedWipe {
public:
    explicit ScopedWipe(Buffer& buffer) noexcept : buffer_(buffer) {}
    ScopedWipe(const ScopedWipe&) = delete;
    ScopedWipe& operator=(const ScopedWipe&) = delete;
    ~ScopedWipe() { ::explicit_bzero(buffer_.data(), buffer_.size()); }

private:
    Buffer& buffer_;
};

}  // namespace kavro::auth
