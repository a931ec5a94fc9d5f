// The text of a system error, and the choice of its class.
#include "process/system_error.h"

#include <cerrno>
#include <cstring>
#include <utility>

namespace kavro {

SystemError::SystemError(const std::string& message, int code)
    : std::runtime_error(message), code_(code != 0 ? code : errno) {
}

const char* SystemError::what() const noexcept {
    const char* tag = std::runtime_error::what();
    if (text_.empty()) {
        try {
            std::string text(tag);
            if (!text.empty()) {
                text += ": ";
            }
            text += std::strerror(code_);
            text_ = std::move(text);
        } catch (const std::exception&) {
            return tag;
        }
    }
    return text_.c_str();
}

void throwSystemError(const std::string& message, int code) {
    switch (code) {
        case EPERM:
            throw ExSystemError<EPERM>(message);
        case ENOENT:
            throw ExSystemError<ENOENT>(message);
        case EINTR:
            throw ExSystemError<EINTR>(message);
        case ECHILD:
            throw ExSystemError<ECHILD>(message);
        case EAGAIN:
            throw ExSystemError<EAGAIN>(message);
        default:
            throw SystemError(message, code);
    }
}

}  // namespace kavro
