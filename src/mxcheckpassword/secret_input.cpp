// The buffer holds what was answered last, and what was read beyond it.
#include "mxcheckpassword/secret_input.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <stdexcept>

#include "process/retry.h"

namespace mxcheckpassword {

std::string_view SecretInput::pending() const noexcept {
    return {reinterpret_cast<const char*>(buffer_.data()) + taken_, buffer_.size() - taken_};
}

bool SecretInput::readMore() {
    std::array<unsigned char, 1024> chunk;
    const kavro::auth::ScopedWipe wipe(chunk);
    const auto count = kavro::checkedCall("read", [&] { return ::read(fd_, chunk.data(), chunk.size()); });
    buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(taken_));
    taken_ = 0;
    buffer_.insert(buffer_.end(), chunk.begin(), chunk.begin() + count);
    if (buffer_.size() > limit_ + chunk.size()) {
        throw std::length_error("too long input");
    }
    return count > 0;
}

std::string_view SecretInput::take(std::size_t count, std::size_t skipped) {
    if (count > limit_) {
        throw std::length_error("too long input");
    }
    const std::string_view text = pending().substr(0, count);
    taken_ += count + skipped;
    return text;
}

std::string_view SecretInput::all() {
    while (readMore()) {
    }
    return take(pending().size(), 0);
}

std::optional<std::string_view> SecretInput::line() {
    while (pending().find('\n') == std::string_view::npos) {
        if (!readMore()) {
            return std::nullopt;
        }
    }
    return take(pending().find('\n'), 1);
}

std::string_view SecretInput::bytes(std::size_t count) {
    while (pending().size() < count && count <= limit_) {
        if (!readMore()) {
            throw std::length_error("input ends too early");
        }
    }
    return take(count, 0);
}

}  // namespace mxcheckpassword
