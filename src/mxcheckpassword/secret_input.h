// Bounded reading of what holds a password: into memory that is wiped, never through a stream's own buffer.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "auth/secret.h"

namespace mxcheckpassword {

/// A descriptor of the caller's. Throws SystemError when a read fails, std::length_error for input beyond the limit.
class SecretInput {
public:
    explicit SecretInput(int fd, std::size_t limit) : fd_(fd), limit_(limit) {}

    /// Everything to the end.
    std::string_view all();
    /// The next line without its end; nothing at the end of input. What was answered before is gone.
    std::optional<std::string_view> line();
    /// So many bytes; throws std::length_error when the input ends before.
    std::string_view bytes(std::size_t count);

private:
    bool readMore();
    std::string_view take(std::size_t count, std::size_t skipped);
    std::string_view pending() const noexcept;

    int fd_;
    std::size_t limit_;
    std::size_t taken_ = 0;
    kavro::auth::SecretBytes buffer_;
};

}  // namespace mxcheckpassword
