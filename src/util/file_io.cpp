// Opening without blocking, then looking at what was opened: no race between the look and the use. Streams over that.
#include "util/file_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "process/descriptors.h"
#include "process/retry.h"

namespace kavro {

namespace {

int number_of(void* cookie) {
    return static_cast<int>(reinterpret_cast<std::intptr_t>(cookie));
}

}  // namespace

CFile readingStream(FdOwner& fd) {
    cookie_io_functions_t functions{};
    functions.read = [](void* cookie, char* buffer, std::size_t size) {
        return retryInterrupted([&] { return ::read(number_of(cookie), buffer, size); });
    };
    functions.close = [](void* cookie) { return ::close(number_of(cookie)); };
    CFile stream(::fopencookie(reinterpret_cast<void*>(static_cast<std::intptr_t>(fd.get())), "r", functions));
    if (stream != nullptr) {
        fd.release();
    }
    return stream;
}

int openRegular(const char* path, int flags, mode_t mode) {
    QuietFdOwner file(retryInterrupted([&] { return ::open(path, flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, mode); }));
    struct stat status {};
    if (file.empty() || ::fstat(file.get(), &status) == -1) {
        return -1;
    }
    if (!S_ISREG(status.st_mode)) {
        errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
        return -1;
    }
    return file.release();
}

}  // namespace kavro
