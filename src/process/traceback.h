// A captured call stack that exception classes can carry.
#pragma once

#include <array>
#include <cstddef>
#include <iosfwd>

namespace kavro {

/// Up to eleven return addresses. A mix-in for exception classes.
class Traceback {
public:
    /// Captures the stack here; the first `skip` frames are left out when it is printed.
    explicit Traceback(std::size_t skip);
    Traceback(const Traceback& other) noexcept;
    Traceback& operator=(const Traceback& other) noexcept;
    virtual ~Traceback();

    /// Prints one frame a line with demangled names, or the bare addresses when no symbols are to be had.
    friend std::ostream& operator<<(std::ostream& stream, const Traceback& trace);

private:
    static constexpr std::size_t kMaxFrames = 11;
    std::array<void*, kMaxFrames> frames_{};
    std::size_t count_ = 0;
    std::size_t skip_ = 0;
    mutable char** symbols_ = nullptr;  ///< from backtrace_symbols(3), freed in the destructor
};

std::ostream& operator<<(std::ostream& stream, const Traceback& trace);

}  // namespace kavro
