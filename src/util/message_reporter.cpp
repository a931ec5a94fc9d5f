// The message reporter: both standard streams, the system's error text behind the message, the end of the process.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "process/retry.h"
#include "util/c_memory.h"
#include "util/log.h"

const char* PROGNAME = nullptr;

namespace {

/// Room for a message and the system's text behind it.
constexpr std::size_t kMessageBuffer = 4096;

/// Null without a program name, and for one that ends with a slash.
const char* program_base_name() {
    if (PROGNAME == nullptr) {
        return nullptr;
    }
    const char* slash = std::strrchr(PROGNAME, '/');
    const char* base = slash == nullptr ? PROGNAME : slash + 1;
    return *base == '\0' ? nullptr : base;
}

void write_message(std::FILE* stream, const char* text) {
    if (const char* base = program_base_name()) {
        std::fprintf(stream, "%s: ", base);
    }
    std::fputs(text, stream);
    const std::size_t length = std::strlen(text);
    if (length == 0 || text[length - 1] != '\n') {
        std::fputc('\n', stream);
    }
    std::fflush(stream);
}

/// A message and the size of the buffer that holds it; null when there is no memory at all.
struct FormattedMessage {
    kavro::CString text;
    std::size_t capacity;
};

__attribute__((format(printf, 1, 0))) FormattedMessage format_message(const char* format, va_list args) {
    FormattedMessage message{kavro::CString(static_cast<char*>(std::malloc(kMessageBuffer))), kMessageBuffer};
    if (message.text == nullptr) {
        return message;
    }
    va_list copy;
    va_copy(copy, args);
    const int length = std::vsnprintf(message.text.get(), kMessageBuffer, format, copy);
    va_end(copy);
    if (length < 0) {
        *message.text = '\0';
    } else if (static_cast<std::size_t>(length) >= kMessageBuffer) {
        // Without memory for the whole message its truncated beginning is what is shown.
        const std::size_t needed = static_cast<std::size_t>(length) + 1;
        if (auto* grown = static_cast<char*>(std::malloc(needed))) {
            std::vsnprintf(grown, needed, format, args);
            message = {kavro::CString(grown), needed};
        }
    }
    return message;
}

/// Appends the system's text for `code` when all of it fits. Kept: a message that outgrew the first buffer has no
/// room left and never carries it.
void append_system_error(const FormattedMessage& message, int code) {
    const std::size_t length = std::strlen(message.text.get());
    const std::size_t room = message.capacity - length;
    const int added =
        std::snprintf(message.text.get() + length, room, "\nSystem error %d: %s", code, std::strerror(code));
    if (added < 0 || static_cast<std::size_t>(added) >= room) {
        message.text.get()[length] = '\0';
    }
}

}  // namespace

int ex_messlog(const char* text, int status, int /*flag*/) {
    const kavro::ErrnoKeeper keeper;
    write_message(stderr, text);
    std::cout.flush();  // has a buffer of its own
    write_message(stdout, text);
    if (status != 0) {
        std::exit(status);
    }
    return 0;
}

int vmesslog2(int status, int flag, const char* format, va_list args) {
    const kavro::ErrnoKeeper keeper;
    const FormattedMessage message = format_message(format, args);
    if (message.text == nullptr) {
        return ex_messlog("Can't allocate memory for error message", status, flag);
    }
    if (keeper.saved() != 0) {
        append_system_error(message, keeper.saved());
    }
    return ex_messlog(message.text.get(), status, flag);
}

int messlog2(int status, int flag, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int result = vmesslog2(status, flag, format, args);
    va_end(args);
    return result;
}

char* vasprintf_safe(const char* format, va_list args) {
    char* text = nullptr;
    if (::vasprintf(&text, format, args) == -1) {
        messlog2(1, 0, "Cannot allocate memory: %s", std::strerror(errno));
    }
    return text;
}

char* asprintf_safe(const char* format, ...) {
    va_list args;
    va_start(args, format);
    char* text = vasprintf_safe(format, args);
    va_end(args);
    return text;
}
