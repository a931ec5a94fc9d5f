// Copying of a file through a temporary neighbour. The function answers to nobody: a failure ends the process.
#include "util/atomic_copy.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>

#include "process/descriptors.h"
#include "process/retry.h"
#include "util/errno_keeper.h"
#include "util/file_io.h"
#include "util/log.h"

namespace {

constexpr std::size_t kCopyBlock = 4096;

bool copyContents(int from, int to) {
    std::array<char, kCopyBlock> block;
    for (;;) {
        const ssize_t count = kavro::retryInterrupted([&] { return ::read(from, block.data(), block.size()); });
        if (count <= 0) {
            return count == 0;
        }
        const auto size = static_cast<std::size_t>(count);
        if (kavro::writeAll(to, block.data(), size) != size) {
            return false;
        }
    }
}

/// One copy under way: what its failures are reported with, and the temporary file that goes with them.
struct AtomicCopy {
    const char* source;
    const char* target;
    std::string temporary;
    bool temporaryMade = false;

    /// Removes the temporary file and ends the process.
    [[noreturn]] void fail(const char* step) const {
        if (temporaryMade) {
            const kavro::ErrnoKeeper keeper;
            kavro::retryInterrupted([this] { return ::unlink(temporary.c_str()); });
        }
        messlog2(EXIT_FAILURE, 0, "copy_file_atomic(%s -> %s): %s failed", source, target, step);
        std::abort();  // never reached: the reporter has ended the process
    }
};

}  // namespace

void copy_file_atomic(const char* source, const char* target, uid_t owner, gid_t group, mode_t mode) {
    AtomicCopy copy{source, target, {}, false};
    kavro::QuietFdOwner from(kavro::openRegular(source, O_RDONLY));
    if (from.empty()) {
        copy.fail("open");
    }
    try {
        copy.temporary = std::string(target) + ".XXXXXX";
    } catch (const std::bad_alloc&) {
        messlog2(EXIT_FAILURE, 0, "Allocation failed");
    }
    kavro::QuietFdOwner to(::mkostemp(copy.temporary.data(), O_CLOEXEC));
    if (to.empty()) {
        copy.fail("mkstemp");
    }
    copy.temporaryMade = true;
    if (!copyContents(from.get(), to.get())) {
        copy.fail("write");
    }
    if (kavro::retryInterrupted([&] { return ::fchown(to.get(), owner, group); }) == -1) {
        copy.fail("chown");
    }
    if (kavro::retryInterrupted([&] { return ::fchmod(to.get(), mode); }) == -1) {
        copy.fail("chmod");
    }
    if (to.close_nothrow() == -1) {
        copy.fail("flush");
    }
    from.close_nothrow();
    if (kavro::retryInterrupted([&] { return ::rename(copy.temporary.c_str(), target); }) == -1) {
        copy.fail("rename");
    }
}
