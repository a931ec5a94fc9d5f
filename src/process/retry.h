// A scope that keeps errno, and the loops around system calls: one that retries while a signal interrupts, one that
// writes until all is written.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstddef>

#include "process/system_error.h"

namespace kavro {

/// Restores errno to its value at construction.
class ErrnoKeeper {
public:
    ErrnoKeeper() noexcept : saved_(errno) {}
    ErrnoKeeper(const ErrnoKeeper&) = delete;
    ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;
    ~ErrnoKeeper() { errno = saved_; }

    /// The value that will be restored.
    int saved() const noexcept { return saved_; }

private:
    int saved_;
};

/// Calls `call` until it answers something other than -1 with EINTR; returns its last answer.
template <typename Call>
auto retryInterrupted(Call&& call) -> decltype(call()) {
    decltype(call()) result;
    do {
        result = call();
    } while (result == -1 && errno == EINTR);
    return result;
}

/// The same; throws SystemError(tag) with the current errno when the last answer is -1.
template <typename Call>
auto checkedCall(const char* tag, Call&& call) -> decltype(call()) {
    auto result = retryInterrupted(call);
    if (result == -1) {
        throw SystemError(tag, errno);
    }
    return result;
}

/// Writes all of it; returns how much was written, less than `size` only when write(2) fails otherwise.
inline std::size_t writeAll(int fd, const char* data, std::size_t size) noexcept {
    std::size_t done = 0;
    while (done < size) {
        const ssize_t count = retryInterrupted([&] { return ::write(fd, data + done, size - done); });
        if (count <= 0) {
            break;
        }
        done += static_cast<std::size_t>(count);
    }
    return done;
}

}  // namespace kavro
