// Through a temporary neighbour that is renamed over the target.
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
#include "util/file_io.h"
#include "util/log.h"

namespace {

using kavro::retryInterrupted;

constexpr std::size_t kCopyBlock = 4096;

bool copy_contents(int from, int to) {
    std::array<char, kCopyBlock> block;
    for (;;) {
        const ssize_t count = retryInterrupted([&] { return ::read(from, block.data(), block.size()); });
        if (count <= 0) {
            return count == 0;
        }
        const auto size = static_cast<std::size_t>(count);
        if (kavro::writeAll(to, block.data(), size) != size) {
            return false;
        }
    }
}

/// The file that is renamed over the target at the end, and removed when it does not come to that. errno is kept.
class TemporaryFile {
public:
    explicit TemporaryFile(const char* target)
        : fd_(retryInterrupted([&] {
              // A failed try has used the pattern up.
              name_.assign(target).append(".XXXXXX");
              return ::mkostemp(name_.data(), O_CLOEXEC);
          })),
          exists_(!fd_.empty()) {}
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    ~TemporaryFile() {
        if (exists_) {
            const kavro::ErrnoKeeper keeper;
            retryInterrupted([this] { return ::unlink(name_.c_str()); });
        }
    }

    int fd() const noexcept { return fd_.get(); }
    bool isMade() const noexcept { return exists_; }

    /// The contents reach the disk before the name does: who copied a file may remove the source afterwards.
    bool finish() {
        if (retryInterrupted([this] { return ::fsync(fd_.get()); }) == -1) {
            return false;
        }
        return fd_.close_nothrow() == 0;
    }

    bool rename(const char* target) {
        exists_ = retryInterrupted([&] { return ::rename(name_.c_str(), target); }) == -1;
        return !exists_;
    }

private:
    std::string name_;
    kavro::QuietFdOwner fd_;
    bool exists_;
};

/// Copies. Null, or the step that failed, with errno.
const char* failing_step(const char* source, const char* target, uid_t owner, gid_t group, mode_t mode) {
    const kavro::QuietFdOwner from(kavro::openRegular(source, O_RDONLY));
    if (from.empty()) {
        return "open";
    }
    TemporaryFile to(target);
    if (!to.isMade()) {
        return "mkstemp";
    }
    if (!copy_contents(from.get(), to.fd())) {
        return "write";
    }
    if (retryInterrupted([&] { return ::fchown(to.fd(), owner, group); }) == -1) {
        return "chown";
    }
    if (retryInterrupted([&] { return ::fchmod(to.fd(), mode); }) == -1) {
        return "chmod";
    }
    if (!to.finish()) {
        return "flush";
    }
    return to.rename(target) ? nullptr : "rename";
}

/// Reports a failure with the given status for the process: 0, it goes on. 0 or -1.
int copy_and_report(int status, const char* source, const char* target, uid_t owner, gid_t group, mode_t mode) {
    try {
        const char* step = failing_step(source, target, owner, group, mode);
        if (step == nullptr) {
            return 0;
        }
        messlog2(status, 0, "copy_file_atomic(%s -> %s): %s failed", source, target, step);
    } catch (const std::bad_alloc&) {
        messlog2(status, 0, "Allocation failed");
    }
    return -1;
}

}  // namespace

void copy_file_atomic(const char* source, const char* target, uid_t owner, gid_t group, mode_t mode) {
    copy_and_report(EXIT_FAILURE, source, target, owner, group, mode);
}

int try_copy_file_atomic(const char* source, const char* target, uid_t owner, gid_t group, mode_t mode) {
    return copy_and_report(0, source, target, owner, group, mode);
}
