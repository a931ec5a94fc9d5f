// A whole stream is read in time and memory linear in its length, whatever it is.
#include "util/c_memory.h"

#include <poll.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "util/log.h"

void free_array(char** array) {
    if (array == nullptr) {
        return;
    }
    for (char** s = array; *s != nullptr; ++s) {
        std::free(*s);
    }
    std::free(array);
}

namespace {

constexpr std::size_t kFirstBuffer = 64UL * 1024;

/// Whether reading may go on after a failed read: a signal came between, or a descriptor that does not block had
/// nothing to give yet and is waited for.
bool may_read_on(std::FILE* stream) {
    if (errno == EAGAIN) {
        pollfd input{::fileno(stream), POLLIN, 0};
        if (::poll(&input, 1, -1) == -1 && errno != EINTR) {
            return false;
        }
    } else if (errno != EINTR) {
        return false;
    }
    std::clearerr(stream);
    return true;
}

/// Gives the buffer another size; false, with the buffer as it was, when there is no memory.
bool resize(kavro::CString& buffer, std::size_t size) {
    auto* moved = static_cast<char*>(std::realloc(buffer.get(), size));
    if (moved == nullptr) {
        return false;
    }
    static_cast<void>(buffer.release());
    buffer.reset(moved);
    return true;
}

}  // namespace

char* read_stream_contents(std::FILE* stream, std::size_t* size) {
    kavro::CString buffer(static_cast<char*>(std::malloc(kFirstBuffer)));
    std::size_t capacity = kFirstBuffer;
    std::size_t length = 0;
    if (buffer == nullptr) {
        return nullptr;
    }
    for (;;) {
        // One byte stays free for the NUL. A read that large goes past the stream's own buffer.
        length += std::fread(buffer.get() + length, 1, capacity - length - 1, stream);
        if (std::ferror(stream) != 0) {
            if (!may_read_on(stream)) {
                return nullptr;
            }
        } else if (std::feof(stream) != 0) {
            break;
        } else {
            if (!resize(buffer, capacity * 2)) {
                return nullptr;
            }
            capacity *= 2;
        }
    }
    buffer.get()[length] = '\0';
    // A smaller block is what is asked for: without one the larger serves as well.
    resize(buffer, length + 1);
    if (size != nullptr) {
        *size = length;
    }
    return buffer.release();
}
