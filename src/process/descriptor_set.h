// A set of descriptors for select(2) that is larger than fd_set, whose macros end a fortified program beyond 1023.
#pragma once

#include <sys/select.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstddef>

#include "process/system_error.h"

namespace kavro::process {

/// Descriptors 0 to 16383, as the kernel reads them: bit n % 64 of word n / 64.
class DescriptorSet {
public:
    static constexpr int kSize = 16384;

    /// Throws SystemError("select") with EINVAL for a descriptor that no set has room for.
    static void requireRoom(int fd) {
        if (fd < 0 || fd >= kSize) {
            throw SystemError("select", EINVAL);
        }
    }
    /// Throws as requireRoom() does.
    void add(int fd) {
        requireRoom(fd);
        word(fd) |= bit(fd);
    }
    bool contains(int fd) const noexcept {
        return fd >= 0 && fd < kSize && (words_[static_cast<std::size_t>(fd) / kWordBits] & bit(fd)) != 0;
    }
    /// For select(2), which reads and writes kSize bits.
    fd_set* native() noexcept { return reinterpret_cast<fd_set*>(words_.data()); }

private:
    static constexpr std::size_t kWordBits = sizeof(unsigned long) * CHAR_BIT;

    static unsigned long bit(int fd) noexcept { return 1UL << (static_cast<std::size_t>(fd) % kWordBits); }
    unsigned long& word(int fd) noexcept { return words_[static_cast<std::size_t>(fd) / kWordBits]; }

    std::array<unsigned long, kSize / kWordBits> words_{};
};

}  // namespace kavro::process
