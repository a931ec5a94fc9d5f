// What is told of an exception that nobody handled, on kavro::uerr; names of types in readable form, and the call stack
// that exceptions can carry.
#pragma once

#include <array>
#include <cstddef>
#include <exception>
#include <iosfwd>
#include <optional>
#include <string>

namespace kavro {

/// The name as it stands in the source; nothing when `mangled` is not a name in the C++ ABI's encoding.
std::optional<std::string> demangle(const char* mangled);

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

/// One line: "Fatal error: ", the demangled dynamic type, and what() in parentheses; then the call stack when the
/// exception carries a Traceback.
template <typename Exception>
void reportException(const Exception& error);

template <>
void reportException<std::exception>(const std::exception& error);

/// The line for an exception of unknown type.
void reportUntypedException();

}  // namespace kavro
