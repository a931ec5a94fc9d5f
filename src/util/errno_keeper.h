// A scope that leaves errno as it found it: for clean-up and reports on a failure's way out.
#pragma once

#include <cerrno>

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

}  // namespace kavro
