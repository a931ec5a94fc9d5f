// Exceptions that carry an errno value, and the one place that decides which class an errno value is thrown as.
#pragma once

#include <stdexcept>
#include <string>

namespace kavro {

/// A failed system call. The message is a short lower-case tag that names the step ("close", "cwd chdir").
class SystemError : public std::runtime_error {
public:
    /// Takes the current errno when `code` is 0.
    SystemError(const std::string& message, int code);

    /// The tag, ": " and the system's text; the system's text alone for an empty tag. Built on the first call; the
    /// bare tag when there is no memory for it.
    const char* what() const noexcept override;

    /// The errno value.
    int code() const noexcept { return code_; }

private:
    int code_;
    mutable std::string text_;
};

/// One errno value as a type of its own, so that callers can catch it alone. Thrown by throwSystemError only.
template <int N>
class ExSystemError : public SystemError {
public:
    explicit ExSystemError(const std::string& message) : SystemError(message, N) {}
};

/// Throws ExSystemError<code> for EPERM, ENOENT, EINTR, EAGAIN and ECHILD, else SystemError. The argument alone
/// decides: 0 gives a plain SystemError with the current errno, whatever that is.
[[noreturn]] void throwSystemError(const std::string& message, int code);

}  // namespace kavro
