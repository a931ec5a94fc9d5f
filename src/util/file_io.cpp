// Opening without blocking, then looking at what was opened: no race between the look and the use. Streams over that.
#include "util/file_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <new>

#include "process/descriptors.h"
#include "process/retry.h"

namespace kavro {

CFile readingStream(FdOwner& fd) {
    std::unique_ptr<QuietFdOwner> owner(new (std::nothrow) QuietFdOwner(fd.get()));
    if (owner == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    cookie_io_functions_t functions{};
    functions.read = [](void* cookie, char* buffer, std::size_t size) {
        return retryInterrupted([&] { return ::read(static_cast<QuietFdOwner*>(cookie)->get(), buffer, size); });
    };
    functions.close = [](void* cookie) {
        return std::unique_ptr<QuietFdOwner>(static_cast<QuietFdOwner*>(cookie))->close_nothrow();
    };
    CFile stream(::fopencookie(owner.get(), "r", functions));
    (stream == nullptr ? *owner : fd).release();
    if (stream != nullptr) {
        static_cast<void>(owner.release());
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
