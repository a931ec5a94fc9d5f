// Opening without blocking, then looking at what was opened: no race between the look and the use.
#include "util/file_io.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "process/descriptors.h"
#include "process/retry.h"

namespace kavro {

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
