// The way back goes by fchdir(2). The destructor takes it too, but cannot tell of a failure.
#include "util/working_directory.h"

#include <fcntl.h>
#include <unistd.h>

#include "process/retry.h"

namespace kavro {

// O_PATH: a directory that may be searched but not read is remembered too.
WorkingDirectoryScope::WorkingDirectoryScope() noexcept
    : origin_(retryInterrupted([] { return ::open(".", O_PATH | O_DIRECTORY | O_CLOEXEC); })) {
}

WorkingDirectoryScope::~WorkingDirectoryScope() {
    const ErrnoKeeper keeper;
    restore();
}

bool WorkingDirectoryScope::enter(const char* path) noexcept {
    return remembered() && retryInterrupted([path] { return ::chdir(path); }) == 0;
}

bool WorkingDirectoryScope::enter(int directory) noexcept {
    return remembered() && retryInterrupted([directory] { return ::fchdir(directory); }) == 0;
}

bool WorkingDirectoryScope::restore() noexcept {
    if (origin_.empty()) {
        return true;
    }
    const int result = retryInterrupted([this] { return ::fchdir(origin_.get()); });
    release();
    return result == 0;
}

void WorkingDirectoryScope::release() noexcept {
    const ErrnoKeeper keeper;
    origin_.close_nothrow();
}

}  // namespace kavro
