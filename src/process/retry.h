// The one loop that retries a system call while a signal interrupts it.
#pragma once

#include <cerrno>

#include "process/system_error.h"

namespace kavro {

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

}  // namespace kavro
